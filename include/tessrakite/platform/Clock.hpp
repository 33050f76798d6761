#pragma once

#include <atomic>
#include <memory>

#include <tessrakite/Export.hpp>

namespace tessrakite::platform {

/// The current time, in seconds since 1970. The main queue's timers run on it too, so
/// a manual clock makes time-based behaviour testable without sleeping.
class TESSRA_EXPORT Clock {
public:
    virtual ~Clock() = default;
    virtual double now() const = 0;
    /// A manual clock only moves when told to; the run loop then advances it itself.
    virtual bool isManual() const { return false; }
    /// Moves a manual clock forward to `seconds`; a real clock ignores it.
    virtual void advanceTo(double seconds) { (void)seconds; }
};

class TESSRA_EXPORT SystemClock final : public Clock {
public:
    double now() const override;
};

class TESSRA_EXPORT ManualClock final : public Clock {
public:
    explicit ManualClock(double start = 1'700'000'000.0) : now_(start) {}
    double now() const override { return now_.load(); }
    bool isManual() const override { return true; }
    void advanceTo(double seconds) override {
        if (seconds > now_.load()) now_.store(seconds);
    }
    void set(double seconds) { now_.store(seconds); }
    void advance(double seconds);

private:
    std::atomic<double> now_;
};

}  // namespace tessrakite::platform
