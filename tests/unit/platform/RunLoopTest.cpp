#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include <tessrakite/platform/MainQueue.hpp>

namespace tessrakite::platform {
namespace {

TEST(RunLoop, RunsWorkInOrderOnlyWhenPumped) {
    auto clock = std::make_shared<ManualClock>(1000.0);
    RunLoop loop(clock);
    std::vector<int> order;
    loop.asyncAfter(2.0, [&] { order.push_back(3); });
    loop.async([&] { order.push_back(1); });
    loop.asyncAfter(1.0, [&] { order.push_back(2); });
    // Work posted while running runs in the same pump.
    loop.async([&] { loop.async([&] { order.push_back(11); }); });
    EXPECT_TRUE(order.empty());

    EXPECT_TRUE(loop.runUntilIdle(1.0));
    EXPECT_EQ(order, (std::vector<int>{1, 11}));  // timers not yet due do not keep it busy

    loop.runFor(1.5);  // virtual time: no sleeping
    EXPECT_EQ(order, (std::vector<int>{1, 11, 2}));
    EXPECT_DOUBLE_EQ(clock->now(), 1001.5);
    loop.runFor(10);
    EXPECT_EQ(order, (std::vector<int>{1, 11, 2, 3}));
    EXPECT_EQ(loop.pendingCount(), 0u);
}

TEST(RunLoop, WaitsForBusySourcesAndWorkPostedFromOtherThreads) {
    RunLoop loop(std::make_shared<SystemClock>());
    std::atomic<bool> inFlight{true};
    loop.addBusySource([&] { return inFlight.load(); });
    bool delivered = false;
    std::thread worker([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        loop.async([&] { delivered = true; });
        inFlight = false;
    });
    EXPECT_TRUE(loop.runUntilIdle(5.0));
    worker.join();
    EXPECT_TRUE(delivered);
    EXPECT_TRUE(loop.isMainThread());
}

}  // namespace
}  // namespace tessrakite::platform
