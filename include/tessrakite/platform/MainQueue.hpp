#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
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

private:
    struct Item {
        double due;
        std::uint64_t sequence;
        std::function<void()> work;
    };
    bool popDue(double now, std::function<void()>& out);
    bool busy() const;

    std::shared_ptr<Clock> clock_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::vector<Item> items_;
    std::uint64_t sequence_ = 0;
    std::thread::id mainThread_;
    std::vector<BusySource> busySources_;
};

}  // namespace tessrakite::platform
