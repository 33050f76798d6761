#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/Clock.hpp>

namespace tessrakite::platform {

/// The main dispatch queue: host entry points, UI work and most delegate calls run here.
class TESSRA_EXPORT MainQueue {
public:
    virtual ~MainQueue() = default;
    virtual void async(std::function<void()> work) = 0;
    virtual void asyncAfter(double seconds, std::function<void()> work) = 0;
    virtual bool isMainThread() const = 0;
};

/// A system event loop that dispatches the run loop's items (the GLib main loop on a
/// desktop): told of new work from any thread, and turned while a host pumps the run loop,
/// so the system's own sources (bus replies, signals) are served by the same pump.
class TESSRA_EXPORT RunLoopDriver {
public:
    virtual ~RunLoopDriver() = default;
    /// Work was posted; may be called from any thread.
    virtual void wake() = 0;
    /// One round of the system loop on the pumping thread, waiting at most `seconds`.
    virtual void iterate(double seconds) = 0;
};

/// The headless main queue: work waits until the host pumps it, the way an app runs its
/// event loop. Delays are measured on the platform clock; with a manual clock, runFor
/// moves the clock forward to each timer instead of sleeping.
class TESSRA_EXPORT RunLoop final : public MainQueue {
public:
    explicit RunLoop(std::shared_ptr<Clock> clock);
    ~RunLoop() override;

    /// The current platform's main run loop.
    static RunLoop& main();

    void async(std::function<void()> work) override;
    void asyncAfter(double seconds, std::function<void()> work) override;
    bool isMainThread() const override;

    /// Runs work for `seconds` of clock time (virtual time with a manual clock).
    void runFor(double seconds);
    /// Runs until nothing is due and no busy source reports work in flight, for at most
    /// `maxSeconds` of real time. Returns true when it became idle.
    bool runUntilIdle(double maxSeconds = 10.0);
    /// Runs what is due now, without waiting. Returns how many items ran.
    std::size_t runOnce();

    /// A source of outside work the loop waits for in runUntilIdle (for example requests
    /// in flight whose completions will post to this queue).
    using BusySource = std::function<bool()>;
    void addBusySource(BusySource source);

    /// Makes the calling thread the main thread (the one that pumps).
    void adoptCurrentThread();
    /// Number of items waiting, due or not.
    std::size_t pendingCount() const;
    /// Clock seconds until the next item is due (0 when one is), nothing when none waits.
    std::optional<double> nextDue() const;
    /// The system loop that dispatches this queue from now on; none: the host pumps it alone.
    void setDriver(std::shared_ptr<RunLoopDriver> driver);
    const std::shared_ptr<Clock>& clock() const { return clock_; }

private:
    struct Item {
        double due;
        std::uint64_t sequence;
        std::function<void()> work;
    };
    bool popDue(double now, std::function<void()>& out);
    bool busy() const;
    std::shared_ptr<RunLoopDriver> currentDriver() const;
    void post(double due, std::function<void()> work);
    /// Waits up to `seconds` for new work, turning the driver's loop when there is one.
    void waitForWork(double seconds);

    std::shared_ptr<Clock> clock_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::vector<Item> items_;
    std::uint64_t sequence_ = 0;
    std::thread::id mainThread_;
    std::vector<BusySource> busySources_;
    std::shared_ptr<RunLoopDriver> driver_;
};

}  // namespace tessrakite::platform
