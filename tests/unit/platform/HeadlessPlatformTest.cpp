#include <future>
#include <thread>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <tessrakite/platform/headless/HeadlessPlatform.hpp>

namespace tessrakite::platform::headless {
namespace {

struct Recorded {
    std::vector<std::string> names;
    std::vector<nlohmann::ordered_json> args;
};

class HeadlessPlatformTest : public ::testing::Test {
protected:
    HeadlessPlatformTest() {
        clock = std::make_shared<ManualClock>(1'000.0);
        h = makeHeadlessPlatform({clock, nullptr});
        h.effects->setSink([this](const std::string& name, const nlohmann::ordered_json& a) {
            recorded.names.push_back(name);
            recorded.args.push_back(a);
        });
    }
    std::shared_ptr<ManualClock> clock;
    Headless h;
    Recorded recorded;
};

TEST_F(HeadlessPlatformTest, AuthorizationAnswersAreTheInjectedOnes) {
    struct Case {
        bool granted;
        UNAuthorizationStatus status;
    };
    for (const auto& c : {Case{true, UNAuthorizationStatus::authorized}, Case{false, UNAuthorizationStatus::denied}}) {
        h.userNotificationCenter->setAuthorizationAnswer(c.granted, c.status);
        std::promise<std::pair<bool, std::thread::id>> answer;
        std::optional<UNAuthorizationStatus> status;
        h.userNotificationCenter->requestAuthorization(
            UNAuthorizationOptions::alert | UNAuthorizationOptions::badge | UNAuthorizationOptions::sound,
            [&](bool g, std::optional<std::string>) { answer.set_value({g, std::this_thread::get_id()}); });
        h.userNotificationCenter->getNotificationSettings([&](UNNotificationSettings s) { status = s.authorizationStatus; });
        EXPECT_FALSE(status.has_value()) << "the settings wait for the main queue";
        h.platform->runLoop->runUntilIdle(1.0);
        auto future = answer.get_future();
        ASSERT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        const auto [granted, thread] = future.get();
        EXPECT_EQ(granted, c.granted);
        EXPECT_NE(thread, std::this_thread::get_id()) << "the answer comes off the main thread, as on the phone";
        EXPECT_EQ(status, c.status);
    }
    EXPECT_EQ(h.userNotificationCenter->lastAuthorizationOptions(), 7u);
}



}  // namespace
}  // namespace tessrakite::platform::headless
