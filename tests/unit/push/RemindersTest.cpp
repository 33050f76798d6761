#include <gtest/gtest.h>

#include <tessrakite/core/TessraQuill.hpp>

#include "SdkFixture.hpp"

namespace tessrakite {
namespace {

class Reminders : public test::SdkFixture {
protected:
    std::vector<platform::UNNotificationRequest> pending() const { return headless.userNotificationCenter->pending(); }
};

TEST_F(Reminders, OneRepeatingReminderOfAtLeastAMinuteWithTheStoredTitle) {
    storage().set(StorageKey::push, true);
    struct Case {
        double delay;
        std::optional<std::string> title;  // stored with setNotification
        double interval;
        std::string shownTitle;
    };
    for (const auto& c : {Case{10, std::nullopt, 60, "Hey, we are missing you!"},
                          Case{3600, "Your cart misses you", 3600, "Your cart misses you"},
                          Case{-5, std::nullopt, 60, "Hey, we are missing you!"}}) {
        if (c.title)
            TessraQuill::setNotification(*c.title);
        else
            storage().remove(StorageKey::notificationText);
        TessraQuill::createScheduledNotification(c.delay);
        TessraQuill::createScheduledNotification(c.delay);  // replaces, never adds
        auto requests = pending();
        ASSERT_EQ(requests.size(), 1u) << c.delay;
        EXPECT_EQ(requests[0].content.title, c.shownTitle);
        ASSERT_TRUE(requests[0].trigger);
        EXPECT_EQ(requests[0].trigger->timeInterval, c.interval);
        EXPECT_TRUE(requests[0].trigger->repeats);
    }
}

TEST_F(Reminders, TheReminderComesBackEveryIntervalUntilCancelled) {
    storage().set(StorageKey::push, true);
    TessraQuill::createScheduledNotification(10);
    std::vector<double> deliveredAt;
    headless.effects->setSink([&](const std::string& name, const nlohmann::ordered_json&) {
        if (name == "notificationDelivered") deliveredAt.push_back(clock->now() - kStartTime);
    });
    headless.platform->runLoop->runFor(150);
    EXPECT_EQ(deliveredAt, (std::vector<double>{60, 120}));
    TessraQuill::cancelScheduledNotifications();
    headless.platform->runLoop->runFor(150);
    EXPECT_EQ(deliveredAt.size(), 2u);
    EXPECT_TRUE(pending().empty());
    EXPECT_TRUE(headless.userNotificationCenter->delivered().empty());
    EXPECT_FALSE(storage().getScheduledId());
    headless.effects->setSink(nullptr);
}

TEST_F(Reminders, NothingIsScheduledOrTouchedWithoutPushOrAStoredReminder) {
    storage().set(StorageKey::push, false);
    TessraQuill::createScheduledNotification(120);
    EXPECT_TRUE(console->contains("Cannot schedule notifications, please enable push"));
    EXPECT_TRUE(pending().empty());
    EXPECT_FALSE(storage().getScheduledId());

    // Another notification of the app's stays when there is no reminder to cancel.
    platform::UNNotificationRequest other;
    other.identifier = "other";
    other.trigger = platform::UNTimeIntervalNotificationTrigger{30, false};
    headless.userNotificationCenter->add(other, nullptr);
    TessraQuill::cancelScheduledNotifications();
    EXPECT_EQ(pending().size(), 1u);
}

TEST_F(Reminders, UpdateSchedulerSchedulesAgainWithTheStoredInterval) {
    storage().set(StorageKey::push, true);
    TessraQuill::updateScheduler();
    EXPECT_TRUE(pending().empty()) << "no interval stored: nothing to schedule";
    storage().set(StorageKey::schInt, 7200.0);
    TessraQuill::updateScheduler();
    auto requests = pending();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].trigger->timeInterval, 7200);
}

}  // namespace
}  // namespace tessrakite
