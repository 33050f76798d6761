#include <cstdlib>
#include <set>

#include <gtest/gtest.h>

#include <tessrakite/core/StorageManager.hpp>
#include <tessrakite/platform/Clock.hpp>
#include <tessrakite/platform/FileRoots.hpp>
#include <tessrakite/platform/Platform.hpp>
#include <tessrakite/platform/headless/HeadlessPlatform.hpp>

#include "TestEnv.hpp"

namespace tessrakite {
namespace {

namespace fs = std::filesystem;
using test::ConsoleCapture;
using test::ScopedHome;

constexpr const char* kAppId = "com.example.sample";
constexpr const char* kSuite = "group.com.example.sample.tessraQuill";

// Every test installs the same host application, since the identifier is computed once
// per process.
class StorageManagerTest : public ::testing::Test {
protected:
    void SetUp() override { test::installMainBundle(home.path(), kAppId); }

    ScopedHome home;
};

TEST(StorageKeyTest, RawValuesAreTheUniquePersistedKeyNames) {
    std::set<std::string_view> seen;
    for (StorageKey key : allStorageKeys) {
        EXPECT_TRUE(seen.insert(rawValue(key)).second) << rawValue(key);
        EXPECT_EQ(storageKey(rawValue(key)), key);
    }
    EXPECT_FALSE(storageKey("tx_unknown"));
}

TEST_F(StorageManagerTest, OpensTheAppGroupSuiteOfTheHostApplication) {
    StorageManager storage;

    storage.set(StorageKey::tok, "abc");
    EXPECT_EQ(StorageManager().getToken(), "abc");  // every instance sees the same store
    EXPECT_TRUE(fs::exists(platform::FileRoots::appGroupContainer(kSuite) / "defaults.sqlite"));
}

TEST_F(StorageManagerTest, ExtensionsUseTheirApplicationsIdentifier) {
    const fs::path app = test::makeBundle(home.path() / "App.app", {{"CFBundleIdentifier", "com.example.host"}});
    const fs::path ext = test::makeBundle(app / "PlugIns" / "Ext.appex", {{"CFBundleIdentifier", "com.example.h.x"}});
    const auto orphan = std::make_shared<platform::Bundle>(home.path() / "Gone.app" / "PlugIns" / "Lost.appex",
                                                           PlistDictionary{{"CFBundleIdentifier", "com.example.lost"}});
    const std::vector<std::tuple<std::shared_ptr<platform::Bundle>, std::optional<std::string>, bool>> cases = {
        {platform::Bundle::open(ext), "com.example.host", false},
        {orphan, "com.example.lost", true},  // its application is missing: a console line, its own identifier
        {platform::Bundle::open(test::makeBundle(home.path() / "Bare.app", {})), std::nullopt, false},
    };
    for (const auto& [bundle, identifier, fallback] : cases) {
        ConsoleCapture console;
        ASSERT_TRUE(bundle);
        EXPECT_EQ(StorageManager::hostBundleIdentifier(*bundle), identifier) << identifier.value_or("none");
        EXPECT_EQ(console.lines(), fallback ? std::vector<std::string>{"AppGroupsHelper: Error, could not obtain main "
                                                                       "bundle from extension!"}
                                            : std::vector<std::string>{});
    }
}

// A typed read gives its value, and nothing for a value of any other type.
TEST_F(StorageManagerTest, EachTypedReadGivesItsValueAndNothingForAnyOtherType) {
    StorageManager storage;
    storage.set(StorageKey::tok, 1);
    EXPECT_FALSE(storage.getToken());
    storage.set(StorageKey::tok, "v");
    EXPECT_EQ(storage.getToken(), "v");
    for (const PlistValue& wrong : {PlistValue(true), PlistValue(3.0), PlistValue("3")}) {  // a Bool is no count
        storage.set(StorageKey::sessionNum, wrong);
        EXPECT_FALSE(storage.getIntFromStorage(StorageKey::sessionNum)) << PlistValue::typeName(wrong.type());
    }
    storage.set(StorageKey::schInt, 60);  // where a Double is read, a whole number counts
    EXPECT_EQ(storage.getScheduledTime(), 60.0);
    // One element of another type spoils the whole map.
    storage.set(StorageKey::utm, PlistDictionary{{"utm_source", "push"}, {"c", true}});
    EXPECT_FALSE(storage.getArayOfStringDictsFromStorage(StorageKey::utm));
    storage.set(StorageKey::t, PlistDictionary{{"k", PlistArray{"a", 1}}});
    EXPECT_FALSE(storage.getCoversionsFromStorage());
    storage.set(StorageKey::t, PlistDictionary{{"k", PlistArray{"a", "b"}}});
    EXPECT_EQ(storage.getCoversionsFromStorage(), (std::map<std::string, std::vector<std::string>>{{"k", {"a", "b"}}}));
}

TEST_F(StorageManagerTest, LastAppOpenAdTimeIsThePresentWhenNothingUsableIsStored) {
    auto clock = std::make_shared<platform::ManualClock>(1'234.5);
    platform::setCurrentPlatform(platform::headless::makeHeadlessPlatform({clock, nullptr}).platform);
    StorageManager storage;
    EXPECT_EQ(storage.getLastAppOpedAdSavedTime(), 1'234.5);
    clock->advance(10);
    storage.set(StorageKey::appOpenSavedAt, "yesterday");
    EXPECT_EQ(storage.getLastAppOpedAdSavedTime(), 1'244.5);
    storage.set(StorageKey::appOpenSavedAt, 99.25);
    EXPECT_EQ(storage.getLastAppOpedAdSavedTime(), 99.25);
    platform::setCurrentPlatform(nullptr);
}

// Fatal stops re-run the test in a fresh process, so the once-only identifier is computed
// there from the bundle given. The bundles live in memory only: a dying child leaves no files.
TEST(StorageManagerDeathTest, AHostWithoutIdentifierOrASuiteThatCannotBeOpenedIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto start = [](PlistDictionary info, const char* home) {
        platform::Bundle::setMain(std::make_shared<platform::Bundle>("/nowhere/Host.app", std::move(info)));
        if (home) ::setenv("TESSRA_HOME", home, 1);
        StorageManager storage;
    };
    const PlistDictionary named{{"CFBundleIdentifier", kAppId}};
    EXPECT_DEATH(start({}, nullptr), "Fatal error: ");
    EXPECT_DEATH(start(named, "/dev/null/home"), "Fatal error: ");  // no folder can be made there
}

}  // namespace
}  // namespace tessrakite
