// Administrative pushes: what the app's completion receives, what is dropped in silence,
// and the malformed pushes that stop the process.

#include <gtest/gtest.h>

#include <optional>

#include <nlohmann/json.hpp>

#include <tessrakite/core/StorageKey.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/location/Beacons.hpp>
#include <tessrakite/location/Geofences.hpp>

#include "SdkFixture.hpp"

namespace tessrakite::test {
namespace {

using Json = nlohmann::ordered_json;

PlistDictionary dictionary(const char* json) { return *PlistValue::fromJSON(Json::parse(json)).asDictionary(); }

struct Handed {
    int calls = 0;
    Json geofences;  // null when absent
    Json beacons;
};

class AdministrativePushTest : public SdkFixture {
protected:
    void SetUp() override {
        SdkFixture::SetUp();
        storage().set(StorageKey::push, PlistValue(true));
    }

    Handed receive(const char* userInfo) {
        Handed handed;
        TessraQuill::didReciveAdministrativeNotificationWith(
            dictionary(userInfo), [&](std::optional<Geofences> g, std::optional<Beacons> b) {
                ++handed.calls;
                if (g) handed.geofences = *g;
                if (b) handed.beacons = *b;
            });
        return handed;
    }
};

TEST_F(AdministrativePushTest, HandsTheAlertsGeofencesOrElseItsBeaconsToTheApp) {
    struct Case {
        const char* name;
        const char* userInfo;
        const char* geofences;  // nullptr: absent
        const char* beacons;
    };
    const Case cases[] = {
        {"an empty gl wins over a full bl",
         R"({"aps": {"alert": {"gl": [], "bl": [{"id": "b1", "ib": "x"}]}}})", R"({"gl": []})", nullptr},
        {"geofences keep their order",
         R"({"aps": {"alert": {"gl": [{"c": ["41.0", "29.0"], "e": 150, "id": "g1"}, {"c": [], "e": "in", "er": true, "id": "g2"}]}}})",
         R"({"gl": [{"c": ["41.0", "29.0"], "r": 150, "id": "g1"}, {"c": [], "e": "in", "er": true, "id": "g2"}]})",
         nullptr},
        {"beacons alone", R"({"aps": {"alert": {"bl": [{"id": "b1", "ib": "x", "major": 3}]}}})", nullptr,
         R"({"bl": [{"id": "b1", "ib": "x", "major": 3}]})"},
        {"a gl that is no list of dictionaries leaves the beacons",
         R"({"aps": {"alert": {"gl": ["g1"], "bl": [{"id": "b1", "ib": "x"}]}}})", nullptr,
         R"({"bl": [{"id": "b1", "ib": "x"}]})"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto handed = receive(c.userInfo);
        EXPECT_EQ(handed.calls, 1);
        EXPECT_EQ(handed.geofences, c.geofences ? Json::parse(c.geofences) : Json());
        EXPECT_EQ(handed.beacons, c.beacons ? Json::parse(c.beacons) : Json());
    }
}

TEST_F(AdministrativePushTest, MalformedAlertsAndPushOffAreDroppedWithoutAWord) {
    const char* drops[] = {
        R"({"aps": "text"})",
        R"({"aps": {}})",
        R"({"aps": {"alert": "text"}})",
        R"({"aps": {"alert": {"title": "no lists"}}})",
        R"({"aps": {"alert": {"gl": [1], "bl": {"id": "b1"}}}})",
    };
    for (const auto* userInfo : drops) EXPECT_EQ(receive(userInfo).calls, 0) << userInfo;

    storage().set(StorageKey::push, PlistValue(false));
    EXPECT_EQ(receive(R"({"aps": {"alert": {"gl": []}}})").calls, 0);
    // Push off reads no further: not even a missing "aps" stops the process.
    EXPECT_EQ(receive("{}").calls, 0);
    EXPECT_TRUE(console->lines().empty());
}

TEST(GeofenceFromPush, ReadsTheRadiusFromEAndNeverFromR) {
    struct Case {
        const char* with;
        const char* expected;
    };
    const Case cases[] = {
        {R"({"c": ["1", "2"], "e": 150, "id": "g"})", R"({"c": ["1", "2"], "r": 150, "id": "g"})"},
        {R"({"c": ["1", "2"], "r": 150, "id": "g"})", R"({"c": ["1", "2"], "id": "g"})"},
        {R"({"c": [], "e": "edge", "er": false, "lr": true, "id": "g"})",
         R"({"c": [], "e": "edge", "er": false, "lr": true, "id": "g"})"},
        {R"({"c": [], "e": 1.5, "er": 1, "lr": "yes", "id": "g"})", R"({"c": [], "id": "g"})"},
    };
    for (const auto& c : cases) EXPECT_EQ(Json(Gl::init(dictionary(c.with))), Json::parse(c.expected)) << c.with;
}

TEST(BeaconFromPush, MistypedOptionalsReadAsAbsent) {
    EXPECT_EQ(Json(B::init(dictionary(R"({"id": "b", "ib": "i", "major": "1", "minor": 2.5, "distance": true})"))),
              Json::parse(R"({"id": "b", "ib": "i"})"));
}

TEST_F(AdministrativePushTest, MalformedPushesStopTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char* fatal[] = {
        "{}",
        R"({"alert": {"gl": []}})",
        R"({"aps": {"alert": {"gl": [{"id": "g"}]}}})",
        R"({"aps": {"alert": {"gl": [{"c": "1,2", "id": "g"}]}}})",
        R"({"aps": {"alert": {"gl": [{"c": ["1", 2], "id": "g"}]}}})",
        R"({"aps": {"alert": {"gl": [{"c": []}]}}})",
        R"({"aps": {"alert": {"gl": [{"c": [], "id": 7}]}}})",
        R"({"aps": {"alert": {"bl": [{"ib": "i"}]}}})",
        R"({"aps": {"alert": {"bl": [{"id": "b", "ib": 3}]}}})",
    };
    for (const auto* userInfo : fatal) EXPECT_DEATH(receive(userInfo), "Fatal error: .*administrative push") << userInfo;
}

}  // namespace
}  // namespace tessrakite::test
