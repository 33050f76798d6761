// The JSON form of the payload records: key names, key order, omitted absent values.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <tessrakite/core/DecodingError.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/location/B.hpp>
#include <tessrakite/push/MultiMessagePush.hpp>

namespace tessrakite {
namespace {

using Json = nlohmann::ordered_json;

// Every key of the direct push in its listed order: decoding then encoding gives the text back.
constexpr const char* kFullPush =
    R"({"aps":{"alert":{"bl":["b1"],"gl":[{"c":["41.0,29.0"],"e":"e","er":true,"lr":false,"r":150,"id":"g1"}],)"
    R"("title":"Title","mavo":true,"e":"https://c.example/?id=1","n":{"renotify":true,"el":3,"ap":"ap","an":"an",)"
    R"("tc":"tc","dc":"dc","cl":7,"tag":"tag","sound":"ding","vibrate":[1,2],"badge":"+1",)"
    R"("image":"https://i.example/a.png","body":"body","actions":[{"action":"open","title":"Open"}],)"
    R"("data":{"url":"app://x"},"silent":false,"tid":"tid","scl":true},"v":"v","t":["imp"]},)"
    R"("apns-priority":10,"mutable-content":1}})";

TEST(PushRecordCoding, EncodesKeysInTheirListedOrderAndOmitsAbsentValues) {
    PushObj minimal;
    minimal.aps.notificationBody.title = "Hi";
    PCampaignObject campaign;
    campaign.p = {P{std::vector<std::string>{"i1"}, N{}, "T"}, P{std::nullopt, N{}, std::nullopt}};
    campaign.t = std::vector<std::string>{"c1"};
    const std::vector<std::pair<Json, std::string>> cases = {
        {Json::parse(kFullPush).get<PushObj>(), kFullPush},
        {minimal, R"({"aps":{"alert":{"title":"Hi"}}})"},
        {campaign, R"({"p":[{"i":["i1"],"o":{},"t":"T"},{"o":{}}],"t":["c1"]})"},
        {MultiMessagePush{std::vector<P>{}, true}, R"({"p":[],"isMultiple":true})"},
    };
    for (const auto& [json, expected] : cases) EXPECT_EQ(json.dump(), expected);
    EXPECT_EQ(Json(campaign).get<PCampaignObject>(), campaign);
    EXPECT_THROW(Json::parse(R"({"id":"id"})").get<B>(), DecodingError);  // a beacon needs its "ib"
}

// The SDK's own error with its path, never the JSON library's.
TEST(PushRecordCoding, MissingRequiredKeyOrWrongTypeFailsWithThePathToIt) {
    using Kind = DecodingError::Kind;
    const std::vector<std::tuple<const char*, Kind, std::string>> cases = {
        {"{}", Kind::keyNotFound, "keyNotFound: No value associated with key \"aps\"."},
        {R"({"aps":{"alert":"text"}})", Kind::typeMismatch,
         "typeMismatch at aps.alert: Expected to decode Dictionary but found a string instead."},
        {R"({"aps":{"alert":{"title":null}}})", Kind::valueNotFound,
         "valueNotFound at aps.alert.title: Expected String value but found null instead."},
        {R"({"aps":{"alert":{"title":"T","n":{"vibrate":[1,2.5]}}}})", Kind::typeMismatch,
         "typeMismatch at aps.alert.n.vibrate[1]: Expected to decode Int64 but found a number instead."},
        {R"({"aps":{"alert":{"title":"T","gl":[{"c":["1,2"]}]}}})", Kind::keyNotFound,
         "keyNotFound at aps.alert.gl[0]: No value associated with key \"id\"."},
        {R"({"aps":{"alert":{"title":"T","n":{"cl":9223372036854775808}}}})", Kind::dataCorrupted,
         "dataCorrupted at aps.alert.n.cl: Parsed JSON number 9223372036854775808 does not fit in Int64."},
        {R"({"aps":{"alert":{"title":"T","n":{"cl":1e19}}}})", Kind::dataCorrupted,
         "dataCorrupted at aps.alert.n.cl: Parsed JSON number 1e+19 does not fit in Int64."},
    };
    for (const auto& [json, kind, description] : cases) {
        SCOPED_TRACE(json);
        try {
            (void)Json::parse(json).get<PushObj>();
            ADD_FAILURE() << "decoded";
        } catch (const DecodingError& e) {
            EXPECT_EQ(e.kind(), kind);
            EXPECT_EQ(e.description(), description);
        } catch (const std::exception& e) {
            ADD_FAILURE() << "not a DecodingError: " << e.what();
        }
    }
}

TEST(PushRecordCoding, CampaignDictionaryFormDecodesToTheSameCampaign) {
    auto campaign = Json::parse(R"({"p":[{"i":["https://t.example/1"],"o":{"body":"b","el":3,"vibrate":[1],
        "actions":[{"action":"a","title":"A"}],"data":{"url":"app://x","t":["c"]}},"t":"T"}],"t":["x"]})")
                        .get<PCampaignObject>();
    auto parsed = TessraQuill::parsePushObj(campaign.dictionary());
    ASSERT_TRUE(parsed.has_value());
    ASSERT_TRUE(std::holds_alternative<PCampaignObject>(*parsed));
    EXPECT_EQ(std::get<PCampaignObject>(*parsed), campaign);
}

}  // namespace
}  // namespace tessrakite
