// What the two payload entry points make of a push's user info, and what they print.

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include <tessrakite/core/TessraQuill.hpp>

#include "TestEnv.hpp"

namespace tessrakite {
namespace {

PlistDictionary payload(const char* json) {
    auto value = PlistValue::fromJSON(nlohmann::json::parse(json));
    return *value.asDictionary();
}

platform::UNNotificationRequest requestWith(PlistDictionary userInfo, std::string identifier = "req-1") {
    platform::UNNotificationRequest request;
    request.identifier = std::move(identifier);
    request.content.userInfo = std::move(userInfo);
    return request;
}

const char* const kDirect = R"({"aps": {"alert": {"title": "Sale", "t": ["https://t.example/imp"],
    "n": {"body": "Half price", "tag": "sale", "tid": "task-9", "el": 3,
          "actions": [{"action": "open", "title": "Open", "url": "app://sale"}],
          "data": {"url": "https://shop.example/sale", "t": ["https://t.example/conv"]}}},
    "mutable-content": 1, "apns-priority": 10}})";

const char* const kCampaign = R"({"p": [{"t": "First", "i": ["https://t.example/1"], "o": {"body": "one", "tid": "a"}},
    {"t": "Second", "o": {"body": "two", "silent": true}},
    {"o": {"body": "three", "vibrate": [100, 50, 100]}}], "t": ["https://t.example/campaign"]})";

enum class Shape { direct, campaign, none };

Shape shapeOf(const std::optional<std::variant<PushObj, PCampaignObject>>& parsed) {
    if (!parsed) return Shape::none;
    return std::holds_alternative<PushObj>(*parsed) ? Shape::direct : Shape::campaign;
}

TEST(ParsePushObj, PrefersTheDirectShapeThenTriesTheCampaignAndPrintsEachFailure) {
    struct Case {
        const char* name;
        const char* json;
        Shape shape;
        std::vector<std::string> lines;
    };
    const std::vector<Case> cases = {
        {"direct push", kDirect, Shape::direct, {}},
        {"campaign", kCampaign, Shape::campaign, {"PUSH OBJECT FAILED"}},
        {"both shapes: the direct push wins",
         R"({"aps": {"alert": {"title": "T"}}, "p": [{"o": {}}]})", Shape::direct, {}},
        {"alert without title falls back to the campaign",
         R"({"aps": {"alert": {"body": "no title"}}, "p": [{"o": {"body": "b"}}]})", Shape::campaign,
         {"PUSH OBJECT FAILED"}},
        {"entry of p without o fails the whole campaign",
         R"({"p": [{"o": {"body": "fine"}}, {"t": "no o"}]})", Shape::none,
         {"PUSH OBJECT FAILED", "PUSH PCampaignObj OBJECT FAILED"}},
        {"neither shape", "{}", Shape::none, {"PUSH OBJECT FAILED", "PUSH PCampaignObj OBJECT FAILED"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        test::ConsoleCapture console;
        auto parsed = TessraQuill::parsePushObj(payload(c.json));
        EXPECT_EQ(shapeOf(parsed), c.shape);
        EXPECT_EQ(console.lines(), c.lines);
    }
}

TEST(ParsePushObj, IntegerFieldsTakeNumbersWithAnIntegralValueAndRefuseFractions) {
    struct Case {
        const char* el;
        std::optional<std::int64_t> decoded;  // nothing: the push fails
    };
    const std::vector<Case> cases = {{"3", 3},  {"3.0", 3}, {"3e0", 3}, {"-0.0", 0}, {"3.5", std::nullopt},
                                     {"\"3\"", std::nullopt}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.el);
        test::ConsoleCapture console;
        const auto json = std::string(R"({"aps": {"alert": {"title": "T", "n": {"el": )") + c.el + "}}}}";
        auto parsed = TessraQuill::parsePushObj(payload(json.c_str()));
        if (c.decoded) {
            ASSERT_EQ(shapeOf(parsed), Shape::direct);
            EXPECT_EQ(std::get<PushObj>(parsed.value()).aps.notificationBody.n->el, c.decoded);
            EXPECT_EQ(console.lines(), std::vector<std::string>{});
        } else {
            EXPECT_EQ(shapeOf(parsed), Shape::none);
            EXPECT_EQ(console.lines(), (std::vector<std::string>{"PUSH OBJECT FAILED", "PUSH PCampaignObj OBJECT FAILED"}));
        }
    }
}

TEST(ParsePushObj, PriorityAndMutableContentThatAreNotIntegersArePrintedAndLeftAbsent) {
    struct Case {
        const char* name;
        const char* aps;
        std::optional<std::int64_t> priority;
        std::optional<std::int64_t> mutableContent;
        std::vector<std::string> lines;
    };
    const std::vector<Case> cases = {
        {"integers", R"("apns-priority": 10, "mutable-content": 1)", 10, 1, {}},
        {"priority as text", R"("apns-priority": "10", "mutable-content": 1)", std::nullopt, 1,
         {"typeMismatch at apns-priority: Expected to decode Int64 but found a string instead."}},
        {"fraction and boolean", R"("apns-priority": 10.5, "mutable-content": true)", std::nullopt, std::nullopt,
         {"typeMismatch at apns-priority: Expected to decode Int64 but found a number instead.",
          "typeMismatch at mutable-content: Expected to decode Int64 but found a boolean instead."}},
        {"absent and null", R"("mutable-content": null)", std::nullopt, std::nullopt, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        test::ConsoleCapture console;
        auto json = std::string(R"({"aps": {"alert": {"title": "T"}, )") + c.aps + "}}";
        auto parsed = TessraQuill::parsePushObj(payload(json.c_str()));
        ASSERT_EQ(shapeOf(parsed), Shape::direct);
        const auto& aps = std::get<PushObj>(*parsed).aps;
        EXPECT_EQ(aps.apnsPriority, c.priority);
        EXPECT_EQ(aps.mutableContent, c.mutableContent);
        EXPECT_EQ(console.lines(), c.lines);
    }
}

// A value without a JSON form gives nothing, silently; text that is not UTF-8 gives nothing
// with each entry point's serialisation line.
TEST(PushPayload, AValueThatCannotBeSerialisedGivesNothingFromBothEntryPoints) {
    const std::string notUtf8 = " The data couldn't be written: a string is not valid UTF-8.";
    const std::vector<std::pair<PlistValue, std::vector<std::string>>> cases = {
        {PlistValue(Date{1700000000}), {}},
        {PlistValue(std::nan("")), {}},
        {PlistValue(PlistArray{PlistValue(PlistDictionary{{"when", PlistValue(Date{0})}})}), {}},
        {PlistValue(std::string("\xff\xfe")), {"JSON serialization failed" + notUtf8, "JSON serialization failed " + notUtf8}},
    };
    for (const auto& [value, lines] : cases) {
        SCOPED_TRACE(PlistValue::typeName(value.type()));
        auto userInfo = payload(kDirect);
        userInfo["extra"] = value;
        test::ConsoleCapture console;
        EXPECT_FALSE(TessraQuill::parsePushObj(userInfo).has_value());
        EXPECT_EQ(TessraQuill::getNotificationContent({}, requestWith(userInfo)), nullptr);
        EXPECT_EQ(console.lines(), lines);
    }
}

TEST(GetNotificationContent, CampaignEntriesWinOverTheDirectPushAndFailuresPrintWhereTheRecordBroke) {
    const std::string noAps = "Push Object failed  keyNotFound: No value associated with key \"aps\".";
    struct Case {
        const char* name;
        const char* json;
        std::vector<std::optional<std::string>> titles;
        std::vector<std::string> lines;
    };
    const std::vector<Case> cases = {
        {"three entries in order", kCampaign, {"First", "Second", std::nullopt}, {noAps}},
        {"direct push only", kDirect, {"Sale"},
         {"Push Campaign object failed  keyNotFound: No value associated with key \"p\"."}},
        {"both shapes: the campaign wins", R"({"aps": {"alert": {"title": "Direct"}}, "p": [{"t": "Entry", "o": {}}]})",
         {"Entry"}, {}},
        {"broken campaign falls back to the direct push",
         R"({"aps": {"alert": {"title": "Direct"}}, "p": [{"t": "no o"}]})", {"Direct"},
         {"Push Campaign object failed  keyNotFound at p[0]: No value associated with key \"o\"."}},
        {"neither shape gives an empty list", R"({"p": [{"o": {}}, {"o": {"actions": [{"action": "buy"}]}}]})", {},
         {noAps, "Push Campaign object failed  keyNotFound at p[1].o.actions[0]: No value associated with key \"title\"."}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        test::ConsoleCapture console;
        // The user info argument is never read: the request's is.
        auto content = TessraQuill::getNotificationContent(payload(kCampaign), requestWith(payload(c.json), "abc-123"));
        ASSERT_NE(content, nullptr);
        std::vector<std::optional<std::string>> titles;
        for (const auto& message : content->notification) {
            titles.push_back(message.title);
            EXPECT_EQ(message.notifId, "abc-123");
        }
        EXPECT_EQ(titles, c.titles);
        EXPECT_EQ(console.lines(), c.lines);
    }
}

TEST(TessraReceivedObject, FillsTheFlatRecordFromADirectPushOrACampaignEntry) {
    auto direct = TessraQuill::parsePushObj(payload(kDirect));
    ASSERT_EQ(shapeOf(direct), Shape::direct);
    TessraReceivedObject message(std::get<PushObj>(*direct).aps, "id-1");
    EXPECT_EQ(message.title, "Sale");
    EXPECT_EQ(message.impTracker, std::vector<std::string>{"https://t.example/imp"});
    EXPECT_EQ(message.actions, (std::vector<Action>{{"open", "Open", "app://sale"}}));
    EXPECT_EQ(message.data, (Conversion{"https://shop.example/sale", std::vector<std::string>{"https://t.example/conv"}}));

    // A campaign entry: the title from "t", the trackers from "i".
    auto campaign = TessraQuill::parsePushObj(payload(kCampaign));
    ASSERT_EQ(shapeOf(campaign), Shape::campaign);
    TessraReceivedObject first(std::get<PCampaignObject>(*campaign).p.at(0), "id");
    EXPECT_EQ(first.title, "First");
    EXPECT_EQ(first.impTracker, std::vector<std::string>{"https://t.example/1"});
    EXPECT_EQ(first.taskId, "a");
}

}  // namespace
}  // namespace tessrakite
