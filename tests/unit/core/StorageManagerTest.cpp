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

TEST(StorageKeyTest, RawValuesAreThePersistedKeyNamesInDeclarationOrder) {
    EXPECT_EQ(allStorageKeys.size(), 48u);
    const std::vector<std::pair<StorageKey, std::string_view>> samples = {
        {StorageKey::reg, "tx_reg"},
        {StorageKey::eEndpoint, "tx_eEndpoint"},
        {StorageKey::pushReg, "tx_push_reg"},
        {StorageKey::openCounter, "tx_openCounter"},
        {StorageKey::schInt, "tx_sch_int"},
        {StorageKey::sessionNum, "tx_session_num"},
        {StorageKey::visitedPCount, "tx_visitedPCount"},
        {StorageKey::uniqSessionFirstTime, "tx_uniq_session_first_time"},
        {StorageKey::appOpenSavedAt, "tx_app_open_saved_at"},
        {StorageKey::appOpnImgPth, "tx_app_opn_img_pth"},
        {StorageKey::consent, "tx_consent"},
    };
    for (const auto& [key, raw] : samples) EXPECT_EQ(rawValue(key), raw);
    EXPECT_EQ(allStorageKeys[11], StorageKey::badge);
    EXPECT_EQ(allStorageKeys[40], StorageKey::appOpenSavedAt);

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
    const fs::path app = home.path() / "Host.app";
    test::makeBundle(app, {{"CFBundleIdentifier", "com.example.host"}});
    const fs::path ext = test::makeBundle(app / "PlugIns" / "Service.appex", {{"CFBundleIdentifier", "com.example.host.svc"}});
    test::makeBundle(home.path() / "Bare.app", {});

    struct Case {
        const char* name;
        std::shared_ptr<platform::Bundle> mainBundle;
        std::optional<std::string> identifier;
        bool fallbackLine;
    };
    const std::vector<Case> cases = {
        {"application", platform::Bundle::open(app), "com.example.host", false},
        {"extension inside App.app/PlugIns", platform::Bundle::open(ext), "com.example.host", false},
        {"extension whose application is missing",
         std::make_shared<platform::Bundle>(home.path() / "Gone.app" / "PlugIns" / "Lost.appex",
                                            PlistDictionary{{"CFBundleIdentifier", "com.example.lost"}}),
         "com.example.lost", true},
        {"application without identifier", platform::Bundle::open(home.path() / "Bare.app"), std::nullopt, false},
    };
    for (const auto& c : cases) {
        ConsoleCapture console;
        ASSERT_TRUE(c.mainBundle) << c.name;
        EXPECT_EQ(StorageManager::hostBundleIdentifier(*c.mainBundle), c.identifier) << c.name;
        EXPECT_EQ(console.count("AppGroupsHelper: Error, could not obtain main bundle from extension!"),
                  c.fallbackLine ? 1u : 0u)
            << c.name;
        EXPECT_EQ(console.lines().size(), c.fallbackLine ? 1u : 0u) << c.name;
    }
}

TEST_F(StorageManagerTest, ABoolUnderTheSessionCounterReadsAsNoCount) {
    StorageManager storage;
    storage.set(StorageKey::sessionNum, true);
    EXPECT_FALSE(storage.getIntFromStorage(StorageKey::sessionNum));
    storage.set(StorageKey::sessionNum, 4);
    EXPECT_EQ(storage.getIntFromStorage(StorageKey::sessionNum), 4);
}

using StringLists = std::map<std::string, std::vector<std::string>>;
using StringMap = std::map<std::string, std::string>;

enum class Read { absent, expected, other };

// One row per typed read: a value of the right type, which the read must give back, and
// values of other types (at any depth) that must read as absent.
struct ReadCase {
    const char* name;
    StorageKey key;
    std::function<Read(const StorageManager&)> read;
    PlistValue good;
    std::vector<PlistValue> wrong;
};

std::vector<ReadCase> readCases() {
    const PlistValue list = PlistArray{"a", "b"};
    const std::vector<PlistValue> notStrings = {true, 1, 1.5, Data{1}, Date{1}, PlistArray{"x"}, PlistDictionary{}};
    const std::vector<PlistValue> notListMaps = {
        "x", PlistArray{list}, PlistDictionary{{"k", "a"}}, PlistDictionary{{"k", PlistArray{"a", 1}}},
        PlistDictionary{{"k", list}, {"j", PlistArray{true}}}};
    auto optionalEquals = [](auto read, auto expected) {
        return [read, expected](const StorageManager& s) {
            auto value = read(s);
            return !value ? Read::absent : *value == expected ? Read::expected : Read::other;
        };
    };
    auto strings = [&](const char* name, StorageKey key, auto read) {
        return ReadCase{name, key, optionalEquals(read, std::string("v")), "v", notStrings};
    };
    auto lists = [&](const char* name, StorageKey key, auto read) {
        return ReadCase{name, key, optionalEquals(read, StringLists{{"k", {"a", "b"}}}), PlistDictionary{{"k", list}},
                        notListMaps};
    };
    return {
        {"wasDisabled", StorageKey::wd, optionalEquals([](const StorageManager& s) { return s.wasDisabled(); }, true),
         true, {1, 0, "true", 1.0, PlistArray{true}}},
        strings("getToken", StorageKey::tok, [](const StorageManager& s) { return s.getToken(); }),
        strings("getUnsToken", StorageKey::unscToken, [](const StorageManager& s) { return s.getUnsToken(); }),
        strings("getE", StorageKey::eEndpoint, [](const StorageManager& s) { return s.getE(); }),
        strings("getScheduledId", StorageKey::schId, [](const StorageManager& s) { return s.getScheduledId(); }),
        strings("getStringFromStorage", StorageKey::configUrl,
                [](const StorageManager& s) { return s.getStringFromStorage(StorageKey::configUrl); }),
        {"getScheduledTime", StorageKey::schInt,
         optionalEquals([](const StorageManager& s) { return s.getScheduledTime(); }, 2.5), 2.5,
         {true, "2.5", Date{2.5}, PlistArray{2.5}}},
        {"getIntFromStorage", StorageKey::visitedPCount,
         optionalEquals([](const StorageManager& s) { return s.getIntFromStorage(StorageKey::visitedPCount); },
                        std::int64_t{3}),
         3, {true, false, 3.0, "3", PlistArray{3}}},
        lists("getCoversionsFromStorage", StorageKey::t, [](const StorageManager& s) { return s.getCoversionsFromStorage(); }),
        lists("getTagsFromStorage", StorageKey::tags,
              [](const StorageManager& s) { return s.getTagsFromStorage(StorageKey::tags); }),
        {"getUrlsFromStorage", StorageKey::url,
         optionalEquals([](const StorageManager& s) { return s.getUrlsFromStorage(); },
                        std::map<std::string, StringMap>{{"n1", {{"u", "https://x"}}}}),
         PlistDictionary{{"n1", PlistDictionary{{"u", "https://x"}}}},
         {"x", PlistArray{}, PlistDictionary{{"n1", "u"}}, PlistDictionary{{"n1", PlistDictionary{{"u", 1}}}},
          PlistDictionary{{"n1", PlistArray{"u"}}}}},
        {"getArayOfStringDictsFromStorage", StorageKey::utm,
         optionalEquals([](const StorageManager& s) { return s.getArayOfStringDictsFromStorage(StorageKey::utm); },
                        StringMap{{"utm_source", "push"}}),
         PlistDictionary{{"utm_source", "push"}},
         {"push", PlistArray{"push"}, PlistDictionary{{"utm_source", 1}}, PlistDictionary{{"a", "b"}, {"c", true}}}},
        {"getDictFromStorage", StorageKey::exPaDict,
         optionalEquals([](const StorageManager& s) { return s.getDictFromStorage(StorageKey::exPaDict); },
                        std::map<std::string, double>{{"a", 1.5}, {"b", 2.0}}),
         PlistDictionary{{"a", 1.5}, {"b", 2}},
         {1.5, PlistArray{1.5}, PlistDictionary{{"a", "1.5"}}, PlistDictionary{{"a", true}},
          PlistDictionary{{"a", 1.5}, {"b", PlistArray{}}}}},
    };
}

TEST_F(StorageManagerTest, EachTypedReadGivesItsValueAndNothingForAnyOtherType) {
    StorageManager storage;
    for (const auto& c : readCases()) {
        storage.remove(c.key);
        EXPECT_EQ(c.read(storage), Read::absent) << c.name << " with nothing stored";
        storage.set(c.key, c.good);
        EXPECT_EQ(c.read(storage), Read::expected) << c.name;
        for (const auto& wrong : c.wrong) {
            storage.set(c.key, wrong);
            EXPECT_EQ(storage.object(c.key), wrong);
            EXPECT_EQ(c.read(storage), Read::absent) << c.name << " with a " << PlistValue::typeName(wrong.type());
        }
    }
    // Where a Double is read, a whole number counts.
    storage.set(StorageKey::schInt, 60);
    EXPECT_EQ(storage.getScheduledTime(), 60.0);
}

TEST_F(StorageManagerTest, LastAppOpenAdTimeIsThePresentWhenNothingUsableIsStored) {
    auto clock = std::make_shared<platform::ManualClock>(1'234.5);
    platform::setCurrentPlatform(platform::headless::makeHeadlessPlatform({clock, nullptr}).platform);
    StorageManager storage;

    EXPECT_EQ(storage.getLastAppOpedAdSavedTime(), 1'234.5);
    clock->advance(10);
    EXPECT_EQ(storage.getLastAppOpedAdSavedTime(), 1'244.5);
    for (const PlistValue& unusable : {PlistValue("yesterday"), PlistValue(true), PlistValue(Date{5})}) {
        storage.set(StorageKey::appOpenSavedAt, unusable);
        EXPECT_EQ(storage.getLastAppOpedAdSavedTime(), 1'244.5);
    }
    storage.set(StorageKey::appOpenSavedAt, 99.25);
    EXPECT_EQ(storage.getLastAppOpedAdSavedTime(), 99.25);

    platform::setCurrentPlatform(nullptr);
}

TEST_F(StorageManagerTest, WritersSetUpdateAndRemove) {
    StorageManager storage;
    auto increment = [](std::optional<PlistValue> v) -> std::optional<PlistValue> {
        const auto* n = v ? v->asInteger() : nullptr;
        return PlistValue(static_cast<long long>((n ? *n : 0) + 1));
    };
    storage.update(StorageKey::badge, increment);
    storage.update(StorageKey::badge, increment);
    EXPECT_EQ(storage.getIntFromStorage(StorageKey::badge), 2);

    storage.set(StorageKey::push, true);
    EXPECT_EQ(storage.getBool(StorageKey::push), true);
    storage.remove(StorageKey::push);
    EXPECT_FALSE(storage.getBool(StorageKey::push));
    EXPECT_FALSE(storage.object(StorageKey::push));
}

// Fatal stops re-run the test in a fresh process, so the once-only identifier is computed
// there from the bundle the test installs.
class StorageManagerDeathTest : public ::testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// The bundles live in memory only and nothing is written: a dying child leaves no files.
TEST_F(StorageManagerDeathTest, HostBundleWithoutIdentifierIsFatal) {
    EXPECT_DEATH(
        {
            platform::Bundle::setMain(std::make_shared<platform::Bundle>("/nowhere/NoId.app", PlistDictionary{}));
            StorageManager storage;
        },
        "Fatal error: ");
}

TEST_F(StorageManagerDeathTest, SuiteThatCannotBeOpenedIsFatal) {
    EXPECT_DEATH(
        {
            platform::Bundle::setMain(std::make_shared<platform::Bundle>(
                "/nowhere/Sample.app", PlistDictionary{{"CFBundleIdentifier", kAppId}}));
            ::setenv("TESSRA_HOME", "/dev/null/home", 1);  // no folder can be made there
            StorageManager storage;
        },
        "Fatal error: ");
}

}  // namespace
}  // namespace tessrakite
