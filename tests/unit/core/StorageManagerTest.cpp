#include <cstdlib>
#include <functional>
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

TEST(StorageKeyTest, RawValuesAreTheUniquePersistedKeyNamesInDeclarationOrder) {
    ASSERT_EQ(allStorageKeys.size(), 48u);
    EXPECT_EQ(allStorageKeys[40], StorageKey::appOpenSavedAt);
    EXPECT_EQ(rawValue(StorageKey::appOpenSavedAt), "tx_app_open_saved_at");
    std::set<std::string_view> seen;
    for (StorageKey key : allStorageKeys) {
        EXPECT_TRUE(seen.insert(rawValue(key)).second) << rawValue(key);
        EXPECT_EQ(storageKey(rawValue(key)), key);
    }
    EXPECT_FALSE(storageKey("tx_unknown"));
}

TEST_F(StorageManagerTest, OpensTheAppGroupSuiteOfTheHostApplication) {
    StorageManager storage;
    EXPECT_EQ(StorageManager::bundleId(), kAppId);
    EXPECT_EQ(StorageManager::suiteName(), kSuite);
    EXPECT_EQ(storage.defaultStorage, platform::userDefaults(kSuite));

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
        {platform::Bundle::open(app), "com.example.host", false},
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

enum class Read { absent, expected, other };
#define READ(call) [](const StorageManager& s) { return s.call; }

// Reads `key` with `read`: `good` must come back, and each of `wrong` must read as absent.
using ReadCase =
    std::tuple<StorageKey, std::function<Read(const StorageManager&)>, PlistValue, std::vector<PlistValue>>;

template <typename Reader, typename Value>
std::function<Read(const StorageManager&)> expecting(Reader read, Value expected) {
    return [read, expected](const StorageManager& s) {
        auto value = read(s);
        return !value ? Read::absent : *value == expected ? Read::expected : Read::other;
    };
}

TEST_F(StorageManagerTest, EachTypedReadGivesItsValueAndNothingForAnyOtherType) {
    const PlistValue list = PlistArray{"a", "b"};
    const std::vector<PlistValue> notStrings = {true, 1, 1.5, Data{1}, Date{1}, PlistArray{"x"}, PlistDictionary{}};
    const std::vector<PlistValue> notListMaps = {"x", PlistArray{list}, PlistDictionary{{"k", "a"}},
                                                 PlistDictionary{{"k", PlistArray{"a", 1}}},
                                                 PlistDictionary{{"k", list}, {"j", PlistArray{true}}}};
    const std::map<std::string, std::vector<std::string>> lists{{"k", {"a", "b"}}};
    const std::vector<ReadCase> cases = {
        {StorageKey::wd, expecting(READ(wasDisabled()), true), true, {1, 0, "true", 1.0, PlistArray{true}}},
        {StorageKey::tok, expecting(READ(getToken()), std::string("v")), "v", notStrings},
        {StorageKey::unscToken, expecting(READ(getUnsToken()), std::string("v")), "v", notStrings},
        {StorageKey::eEndpoint, expecting(READ(getE()), std::string("v")), "v", notStrings},
        {StorageKey::schId, expecting(READ(getScheduledId()), std::string("v")), "v", notStrings},
        {StorageKey::configUrl, expecting(READ(getStringFromStorage(StorageKey::configUrl)), std::string("v")), "v",
         notStrings},
        {StorageKey::schInt, expecting(READ(getScheduledTime()), 2.5), 2.5, {true, "2.5", Date{2.5}, PlistArray{2.5}}},
        // A Bool under the session counter is no count.
        {StorageKey::sessionNum, expecting(READ(getIntFromStorage(StorageKey::sessionNum)), std::int64_t{3}), 3,
         {true, false, 3.0, "3", PlistArray{3}}},
        {StorageKey::t, expecting(READ(getCoversionsFromStorage()), lists), PlistDictionary{{"k", list}}, notListMaps},
        {StorageKey::tags, expecting(READ(getTagsFromStorage(StorageKey::tags)), lists), PlistDictionary{{"k", list}},
         notListMaps},
        {StorageKey::url,
         expecting(READ(getUrlsFromStorage()), std::map<std::string, std::map<std::string, std::string>>{
                                                   {"n1", {{"u", "https://x"}}}}),
         PlistDictionary{{"n1", PlistDictionary{{"u", "https://x"}}}},
         {"x", PlistArray{}, PlistDictionary{{"n1", "u"}}, PlistDictionary{{"n1", PlistDictionary{{"u", 1}}}},
          PlistDictionary{{"n1", PlistArray{"u"}}}}},
        {StorageKey::utm,
         expecting(READ(getArayOfStringDictsFromStorage(StorageKey::utm)),
                   std::map<std::string, std::string>{{"utm_source", "push"}}),
         PlistDictionary{{"utm_source", "push"}},
         {"push", PlistArray{"push"}, PlistDictionary{{"utm_source", 1}}, PlistDictionary{{"a", "b"}, {"c", true}}}},
        {StorageKey::exPaDict,
         expecting(READ(getDictFromStorage(StorageKey::exPaDict)), std::map<std::string, double>{{"a", 1.5}, {"b", 2}}),
         PlistDictionary{{"a", 1.5}, {"b", 2}},
         {1.5, PlistArray{1.5}, PlistDictionary{{"a", "1.5"}}, PlistDictionary{{"a", true}},
          PlistDictionary{{"a", 1.5}, {"b", PlistArray{}}}}},
    };
    StorageManager storage;
    for (const auto& [key, read, good, wrongs] : cases) {
        SCOPED_TRACE(rawValue(key));
        storage.remove(key);
        EXPECT_EQ(read(storage), Read::absent) << "nothing stored";
        storage.set(key, good);
        EXPECT_EQ(read(storage), Read::expected);
        for (const auto& wrong : wrongs) {
            storage.set(key, wrong);
            EXPECT_EQ(read(storage), Read::absent) << PlistValue::typeName(wrong.type());
        }
    }
    storage.set(StorageKey::schInt, 60);  // where a Double is read, a whole number counts
    EXPECT_EQ(storage.getScheduledTime(), 60.0);
}
#undef READ

TEST_F(StorageManagerTest, LastAppOpenAdTimeIsThePresentWhenNothingUsableIsStored) {
    auto clock = std::make_shared<platform::ManualClock>(1'234.5);
    platform::setCurrentPlatform(platform::headless::makeHeadlessPlatform({clock, nullptr}).platform);
    StorageManager storage;
    EXPECT_EQ(storage.getLastAppOpedAdSavedTime(), 1'234.5);
    clock->advance(10);
    for (const PlistValue& unusable : {PlistValue("yesterday"), PlistValue(true), PlistValue(Date{5})}) {
        storage.set(StorageKey::appOpenSavedAt, unusable);
        EXPECT_EQ(storage.getLastAppOpedAdSavedTime(), 1'244.5);
    }
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
