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
        {"push and crash",
         [](TessraBuilder& b) { b.push().crash(); },
         {{StorageKey::analytics, true}, {StorageKey::push, true}, {StorageKey::crash, true}}},
        {"custom", [](TessraBuilder& b) { b.custom(); }, {{StorageKey::analytics, true}, {StorageKey::custom, true}}},
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

TEST_F(Builder, AccessorsOfUnsetSwitchesReadFalse) {
    auto config = TessraBuilder(std::string("k")).build();
    EXPECT_EQ(config->apiKey(), "k");
    EXPECT_TRUE(config->analytics());
    EXPECT_FALSE(config->push());
    EXPECT_FALSE(config->crash());
    EXPECT_FALSE(config->schedule());
    EXPECT_FALSE(config->mavo());
    EXPECT_FALSE(config->consent());
    EXPECT_TRUE(TessraBuilder(std::string("k")).mavo().build()->mavo());
}

TEST_F(Builder, LaterLaunchWithoutPushKeepsTheStoredSwitch) {
    TessraBuilder(std::string("k")).push().build();
    TessraBuilder(std::string("k")).build();
    EXPECT_EQ(storage().getBool(StorageKey::push), true);
}

TEST_F(Builder, EnableAndDisableServices) {
    auto config = TessraBuilder(std::string("k")).push().crash().build();
    config->disableServices();
    for (auto key : {StorageKey::crash, StorageKey::analytics, StorageKey::push, StorageKey::geofence,
                     StorageKey::beacon, StorageKey::custom, StorageKey::location})
        EXPECT_EQ(storage().getBool(key), false) << rawValue(key);
    config->enableServices();
    EXPECT_EQ(storage().getBool(StorageKey::push), true);
    EXPECT_EQ(storage().getBool(StorageKey::crash), true);
    EXPECT_EQ(storage().getBool(StorageKey::analytics), true);
    EXPECT_EQ(storage().getBool(StorageKey::geofence), false);  // not set by the host: left as it was
}

TEST_F(Builder, ReminderIntervalIsStoredAtOnceAndDroppedRemindersAreCancelled) {
    TessraBuilder builder(std::string("k"));
    builder.scheduleNotifications(3600);
    EXPECT_EQ(storage().getScheduledTime(), 3600.0);
    EXPECT_TRUE(builder.build()->schedule());

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
