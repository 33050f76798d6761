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

TEST_F(HeadlessPlatformTest, TimeIntervalTriggersFireWhenTheRunLoopReachesThem) {
    UNNotificationRequest request;
    request.identifier = "reminder";
    request.content.title = "Come back";
    request.trigger = UNTimeIntervalNotificationTrigger{60, false};
    h.userNotificationCenter->add(request, nullptr);
    h.platform->runLoop->runFor(59);
    EXPECT_EQ(h.userNotificationCenter->pending().size(), 1u);
    EXPECT_TRUE(h.userNotificationCenter->delivered().empty());
    h.platform->runLoop->runFor(2);
    EXPECT_TRUE(h.userNotificationCenter->pending().empty());
    ASSERT_EQ(h.userNotificationCenter->delivered().size(), 1u);
    EXPECT_DOUBLE_EQ(h.userNotificationCenter->delivered()[0].date, 1'060.0);

    // A removed request never fires.
    request.identifier = "cancelled";
    h.userNotificationCenter->add(request, nullptr);
    h.userNotificationCenter->removePendingNotificationRequests({"cancelled"});
    h.platform->runLoop->runFor(120);
    EXPECT_EQ(h.userNotificationCenter->delivered().size(), 1u);
}

TEST_F(HeadlessPlatformTest, ApplicationEffectsAreObservable) {
    Data received;
    h.application->setDeviceTokenHandler([&](const Data& token) { received = token; });
    h.application->registerForRemoteNotifications();
    h.platform->runLoop->runUntilIdle(1.0);
    EXPECT_EQ(received.size(), 32u);
    auto url = Url::parse("https://example.com/a?b=c");
    ASSERT_TRUE(url);
    h.application->open(*url, nullptr);
    EXPECT_FALSE(h.application->canOpenURL(*Url::parse("myapp://deep/link")));
    EXPECT_EQ(recorded.names, (std::vector<std::string>{"registerForRemoteNotifications", "openURL"}));
    EXPECT_EQ(recorded.args[1]["url"], "https://example.com/a?b=c");
}

}  // namespace
}  // namespace tessrakite::platform::headless
