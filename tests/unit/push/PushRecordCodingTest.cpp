// The JSON form of the payload records: key names, key order, omitted absent values.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <tessrakite/core/DecodingError.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/location/B.hpp>
#include <tessrakite/location/Gl.hpp>
#include <tessrakite/push/MultiMessagePush.hpp>
#include <tessrakite/push/PushBody.hpp>

namespace tessrakite {
namespace {

using Json = nlohmann::ordered_json;

N fullN() {
    N n;
    n.renotify = true;
    n.el = 3;
    n.ap = "ap";
    n.an = "an";
    n.tc = "tc";
    n.dc = "dc";
    n.cl = 7;
    n.tag = "tag";
    n.sound = "ding";
    n.vibrate = std::vector<std::int64_t>{1, 2};
    n.badge = "+1";
    n.image = "https://i.example/a.png";
    n.body = "body";
    n.actions = std::vector<Action>{{"open", "Open", std::nullopt}};
    n.data = Conversion{"app://x", std::nullopt};
    n.silent = false;
    n.tid = "tid";
    n.scl = true;
    return n;
}

TEST(PushRecordCoding, EncodesKeysInTheirListedOrderAndOmitsAbsentValues) {
    PushObj full;
    full.aps.notificationBody.bl = std::vector<std::string>{"b1"};
    full.aps.notificationBody.gl = std::vector<Gl>{{{"41.0,29.0"}, "e", true, false, 150, "g1"}};
    full.aps.notificationBody.title = "Title";
    full.aps.notificationBody.mavo = true;
    full.aps.notificationBody.e = "https://c.example/?id=1";
    full.aps.notificationBody.n = fullN();
    full.aps.notificationBody.v = "v";
    full.aps.notificationBody.t = std::vector<std::string>{"imp"};
    full.aps.apnsPriority = 10;
    full.aps.mutableContent = 1;

    PushObj minimal;
    minimal.aps.notificationBody.title = "Hi";

    PCampaignObject campaign;
    campaign.p = {P{std::vector<std::string>{"i1"}, N{}, "T"}, P{std::nullopt, N{}, std::nullopt}};
    campaign.t = std::vector<std::string>{"c1"};

    struct Case {
        const char* name;
        Json json;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {"full direct push", full,
         R"({"aps":{"alert":{"bl":["b1"],"gl":[{"c":["41.0,29.0"],"e":"e","er":true,"lr":false,"r":150,"id":"g1"}],)"
         R"("title":"Title","mavo":true,"e":"https://c.example/?id=1","n":{"renotify":true,"el":3,"ap":"ap","an":"an",)"
         R"("tc":"tc","dc":"dc","cl":7,"tag":"tag","sound":"ding","vibrate":[1,2],"badge":"+1",)"
         R"("image":"https://i.example/a.png","body":"body","actions":[{"action":"open","title":"Open"}],)"
         R"("data":{"url":"app://x"},"silent":false,"tid":"tid","scl":true},"v":"v","t":["imp"]},)"
         R"("apns-priority":10,"mutable-content":1}})"},
        {"minimal direct push", minimal, R"({"aps":{"alert":{"title":"Hi"}}})"},
        {"campaign", campaign, R"({"p":[{"i":["i1"],"o":{},"t":"T"},{"o":{}}],"t":["c1"]})"},
        {"conversion with trackers", Conversion{"u", std::vector<std::string>{"t1"}}, R"({"url":"u","t":["t1"]})"},
        {"beacon", B{"b", "ib", 1, std::nullopt, 3}, R"({"id":"b","ib":"ib","major":1,"distance":3})"},
        {"multi-message push", MultiMessagePush{std::vector<P>{}, true}, R"({"p":[],"isMultiple":true})"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.json.dump(), c.expected);
    }
    EXPECT_EQ(Json(full).get<PushObj>(), full);
    EXPECT_EQ(Json(campaign).get<PCampaignObject>(), campaign);
}

TEST(PushRecordCoding, MissingRequiredKeyOrWrongTypeFailsWithThePathToIt) {
    struct Case {
        const char* name;
        const char* json;
        DecodingError::Kind kind;
        std::string description;
    };
    const std::vector<Case> cases = {
        {"no aps", "{}", DecodingError::Kind::keyNotFound, "keyNotFound: No value associated with key \"aps\"."},
        {"alert not an object", R"({"aps":{"alert":"text"}})", DecodingError::Kind::typeMismatch,
         "typeMismatch at aps.alert: Expected to decode Dictionary but found a string instead."},
        {"null title", R"({"aps":{"alert":{"title":null}}})", DecodingError::Kind::valueNotFound,
         "valueNotFound at aps.alert.title: Expected String value but found null instead."},
        {"renotify as number", R"({"aps":{"alert":{"title":"T","n":{"renotify":1}}}})",
         DecodingError::Kind::typeMismatch,
         "typeMismatch at aps.alert.n.renotify: Expected to decode Bool but found a number instead."},
        {"vibrate with a fraction", R"({"aps":{"alert":{"title":"T","n":{"vibrate":[1,2.5]}}}})",
         DecodingError::Kind::typeMismatch,
         "typeMismatch at aps.alert.n.vibrate[1]: Expected to decode Int64 but found a number instead."},
        {"null inside a list", R"({"aps":{"alert":{"title":"T","t":["a",null]}}})",
         DecodingError::Kind::valueNotFound,
         "valueNotFound at aps.alert.t[1]: Expected String value but found null instead."},
        {"geofence without id", R"({"aps":{"alert":{"title":"T","gl":[{"c":["1,2"]}]}}})",
         DecodingError::Kind::keyNotFound, "keyNotFound at aps.alert.gl[0]: No value associated with key \"id\"."},
        {"conversion without url", R"({"aps":{"alert":{"title":"T","n":{"data":{"t":[]}}}}})",
         DecodingError::Kind::keyNotFound, "keyNotFound at aps.alert.n.data: No value associated with key \"url\"."},
        {"cl past Int64", R"({"aps":{"alert":{"title":"T","n":{"cl":9223372036854775808}}}})",
         DecodingError::Kind::dataCorrupted,
         "dataCorrupted at aps.alert.n.cl: Parsed JSON number 9223372036854775808 does not fit in Int64."},
        {"cl integral but past Int64", R"({"aps":{"alert":{"title":"T","n":{"cl":1e19}}}})",
         DecodingError::Kind::dataCorrupted,
         "dataCorrupted at aps.alert.n.cl: Parsed JSON number 1e+19 does not fit in Int64."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        try {
            Json::parse(c.json).get<PushObj>();
            ADD_FAILURE() << "decoded";
        } catch (const DecodingError& e) {
            EXPECT_EQ(e.kind(), c.kind);
            EXPECT_EQ(e.description(), c.description);
        }
    }
}

TEST(PushRecordCoding, UserRecordFailsWithTheSDKsOwnDecodingError) {
    // A user id that is not text: the SDK's error with its path, not the JSON library's.
    const auto json = Json::parse(R"({"ts_current":1,"app":"a","u":{"user_id":5},"cs":{},"code":200})");
    try {
        json.get<PushBody>();
        ADD_FAILURE() << "decoded";
    } catch (const DecodingError& e) {
        EXPECT_EQ(e.description(), "typeMismatch at u.user_id: Expected to decode String but found a number instead.");
    } catch (const std::exception& e) {
        ADD_FAILURE() << "not a DecodingError: " << e.what();
    }
}

TEST(PushRecordCoding, CampaignDictionaryFormDecodesToTheSameCampaign) {
    auto json = Json::parse(R"({"p":[{"i":["https://t.example/1"],"o":{"body":"b","el":3,"vibrate":[1],
        "actions":[{"action":"a","title":"A"}],"data":{"url":"app://x","t":["c"]}},"t":"T"}],"t":["x"]})");
    auto campaign = json.get<PCampaignObject>();
    auto dictionary = campaign.dictionary();
    ASSERT_TRUE(dictionary.count("p"));
    EXPECT_EQ(dictionary.at("p").asArray()->at(0).find("o")->find("el")->asInteger() != nullptr, true);

    auto parsed = TessraQuill::parsePushObj(dictionary);
    ASSERT_TRUE(parsed.has_value());
    ASSERT_TRUE(std::holds_alternative<PCampaignObject>(*parsed));
    EXPECT_EQ(std::get<PCampaignObject>(*parsed), campaign);
}

TEST(PushRecordCoding, GeofenceAndBeaconUseTheirFieldNamesAsKeys) {
    auto gl = Json::parse(R"({"id":"g","c":["1,2","3,4"],"r":150,"e":"x"})").get<Gl>();
    EXPECT_EQ(gl, (Gl{{"1,2", "3,4"}, "x", std::nullopt, std::nullopt, 150, "g"}));
    auto b = Json::parse(R"({"ib":"ib","id":"id","minor":2})").get<B>();
    EXPECT_EQ(b, (B{"id", "ib", std::nullopt, 2, std::nullopt}));
    EXPECT_THROW(Json::parse(R"({"id":"id"})").get<B>(), DecodingError);
}

}  // namespace
}  // namespace tessrakite
