#include <gtest/gtest.h>

#include <tessrakite/core/TessraBuilder.hpp>
#include <tessrakite/platform/Platform.hpp>

#include "SdkFixture.hpp"

namespace tessrakite {
namespace {

using Builder = test::SdkFixture;

TEST_F(Builder, WritesOnlyTheSwitchesTheHostSet) {
    struct Case {
        const char* name;
        std::function<void(TessraBuilder&)> configure;
        std::map<StorageKey, bool> written;
    };
    const std::vector<Case> cases = {
        {"key only", [](TessraBuilder&) {}, {{StorageKey::analytics, true}}},
        {"analytics off", [](TessraBuilder& b) { b.analytics(false); }, {{StorageKey::analytics, false}}},
        {"custom handling",
         [](TessraBuilder& b) { b.customNotificationHandling(); },
         {{StorageKey::analytics, true}, {StorageKey::custom, true}}},
        {"location services",
         [](TessraBuilder& b) { b.geofence(true).beacon(false).locationTracking(true); },
         {{StorageKey::analytics, true},
          {StorageKey::geofence, true},
          {StorageKey::beacon, false},
          {StorageKey::location, true}}},
    };
    const StorageKey switches[] = {StorageKey::crash,  StorageKey::analytics, StorageKey::push,
                                   StorageKey::geofence, StorageKey::beacon, StorageKey::custom,
                                   StorageKey::location};
    for (const auto& c : cases) {
        for (auto key : switches) storage().remove(key);
        TessraBuilder builder(std::string("k"));
        c.configure(builder);
        auto config = builder.build();
        for (auto key : switches) {
            auto it = c.written.find(key);
            EXPECT_EQ(storage().getBool(key), it == c.written.end() ? std::nullopt : std::optional<bool>(it->second))
                << c.name << " " << rawValue(key);
        }
    }
}

TEST_F(Builder, LaterLaunchKeepsTheStoredSwitchAndServicesGoOffAndOnAgain) {
    TessraBuilder(std::string("k")).push().build();
    auto config = TessraBuilder(std::string("k")).crash().build();
    EXPECT_EQ(storage().getBool(StorageKey::push), true);
    EXPECT_FALSE(config->push()) << "an unset switch reads false";
    config->disableServices();
    EXPECT_EQ(storage().getBool(StorageKey::crash), false);
    config->enableServices();
    EXPECT_EQ(storage().getBool(StorageKey::crash), true);
    EXPECT_EQ(storage().getBool(StorageKey::geofence), false);  // not set by the host: left as it was
}

TEST_F(Builder, ReminderIntervalIsStoredAtOnceAndDroppedRemindersAreCancelled) {
    TessraBuilder builder(std::string("k"));
    builder.scheduleNotifications(3600);
    EXPECT_EQ(storage().getScheduledTime(), 3600.0);

    platform::UNNotificationRequest reminder;
    reminder.identifier = "tx-reminder";
    reminder.trigger = platform::UNTimeIntervalNotificationTrigger{3600, false};
    headless.userNotificationCenter->add(reminder, nullptr);
    storage().set(StorageKey::schId, "tx-reminder");
    TessraBuilder(std::string("k")).build();
    EXPECT_TRUE(headless.userNotificationCenter->pending().empty());
    EXPECT_FALSE(storage().getScheduledId().has_value());
}

TEST_F(Builder, KeyComesFromInfoPlistOrStopsTheApp) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    test::installMainBundle(home->path() / "withkey", "com.example.sample",
                            {{"TessraQuillApiKey", PlistValue("plist-key")}});
    EXPECT_EQ(TessraBuilder(std::nullopt).build()->apiKey(), "plist-key");
    test::installMainBundle(home->path() / "numeric", "com.example.sample", {{"TessraQuillApiKey", PlistValue(7)}});
    EXPECT_DEATH(TessraBuilder(std::nullopt), "Fatal error: ");
    test::installMainBundle(home->path() / "nokey", "com.example.sample");
    EXPECT_DEATH(TessraBuilder(std::nullopt), "Fatal error: ");
}

}  // namespace
}  // namespace tessrakite
