// What the two payload entry points make of a push's user info, and what they print.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
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
        {"action without title fails the direct push",
         R"({"aps": {"alert": {"title": "T", "n": {"actions": [{"action": "a"}]}}}})", Shape::none,
         {"PUSH OBJECT FAILED", "PUSH PCampaignObj OBJECT FAILED"}},
        {"wrong type in an optional field fails the record",
         R"({"aps": {"alert": {"title": "T", "n": {"el": "3"}}}})", Shape::none,
         {"PUSH OBJECT FAILED", "PUSH PCampaignObj OBJECT FAILED"}},
        {"null in an optional field is absent", R"({"aps": {"alert": {"title": "T", "n": {"el": null}}}})",
         Shape::direct, {}},
        {"neither shape", R"({"hello": "world"})", Shape::none,
         {"PUSH OBJECT FAILED", "PUSH PCampaignObj OBJECT FAILED"}},
        {"empty user info", "{}", Shape::none, {"PUSH OBJECT FAILED", "PUSH PCampaignObj OBJECT FAILED"}},
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
    const std::vector<Case> cases = {{"3", 3}, {"3.0", 3}, {"3e0", 3}, {"-0.0", 0}, {"3.5", std::nullopt}};
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
        {"both as text", R"("apns-priority": "5", "mutable-content": "1")", std::nullopt, std::nullopt,
         {"typeMismatch at apns-priority: Expected to decode Int64 but found a string instead.",
          "typeMismatch at mutable-content: Expected to decode Int64 but found a string instead."}},
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

TEST(PushPayload, ValueWithoutJSONFormGivesNothingFromBothEntryPointsWithoutSerialisationLine) {
    struct Case {
        const char* name;
        PlistValue value;
    };
    const std::vector<Case> cases = {
        {"date", PlistValue(Date{1700000000})},
        {"data", PlistValue(Data{0xde, 0xad})},
        {"NaN", PlistValue(std::nan(""))},
        {"infinity", PlistValue(std::numeric_limits<double>::infinity())},
        {"date deep inside", PlistValue(PlistArray{PlistValue(PlistDictionary{{"when", PlistValue(Date{0})}})})},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto userInfo = payload(kDirect);
        userInfo["extra"] = c.value;
        test::ConsoleCapture console;
        EXPECT_FALSE(TessraQuill::parsePushObj(userInfo).has_value());
        EXPECT_EQ(TessraQuill::getNotificationContent(userInfo, requestWith(userInfo)), nullptr);
        EXPECT_EQ(console.lines(), std::vector<std::string>{});
    }
}

TEST(PushPayload, TextThatIsNotUTF8CannotBeSerialisedAndIsReportedByBothEntryPoints) {
    auto userInfo = payload(kDirect);
    userInfo["bad"] = std::string("\xff\xfe");
    test::ConsoleCapture console;
    EXPECT_FALSE(TessraQuill::parsePushObj(userInfo).has_value());
    EXPECT_EQ(TessraQuill::getNotificationContent({}, requestWith(userInfo)), nullptr);
    EXPECT_EQ(console.lines(),
              (std::vector<std::string>{"JSON serialization failed The data couldn't be written: a string is not valid UTF-8.",
                                        "JSON serialization failed  The data couldn't be written: a string is not valid UTF-8."}));
}

TEST(GetNotificationContent, CampaignEntriesWinOverTheDirectPushAndShareTheRequestIdentifier) {
    struct Case {
        const char* name;
        const char* json;
        std::vector<std::optional<std::string>> titles;
        std::vector<std::string> linePrefixes;
    };
    const std::vector<Case> cases = {
        {"three entries in order", kCampaign, {"First", "Second", std::nullopt}, {"Push Object failed  "}},
        {"direct push only", kDirect, {"Sale"}, {"Push Campaign object failed  "}},
        {"both shapes: the campaign wins", R"({"aps": {"alert": {"title": "Direct"}}, "p": [{"t": "Entry", "o": {}}]})",
         {"Entry"}, {}},
        {"broken campaign falls back to the direct push",
         R"({"aps": {"alert": {"title": "Direct"}}, "p": [{"t": "no o"}]})", {"Direct"},
         {"Push Campaign object failed  "}},
        {"neither shape gives an empty list", R"({"x": 1})", {},
         {"Push Object failed  ", "Push Campaign object failed  "}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        test::ConsoleCapture console;
        auto content = TessraQuill::getNotificationContent({}, requestWith(payload(c.json), "abc-123"));
        ASSERT_NE(content, nullptr);
        std::vector<std::optional<std::string>> titles;
        for (const auto& message : content->notification) {
            titles.push_back(message.title);
            EXPECT_EQ(message.notifId, "abc-123");
        }
        EXPECT_EQ(titles, c.titles);
        auto lines = console.lines();
        ASSERT_EQ(lines.size(), c.linePrefixes.size());
        for (std::size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(lines[i].rfind(c.linePrefixes[i], 0), 0u) << lines[i];
    }
}

TEST(GetNotificationContent, ReadsTheRequestNotTheUserInfoArgument) {
    test::ConsoleCapture console;
    auto content = TessraQuill::getNotificationContent(payload(kCampaign), requestWith(payload(kDirect)));
    ASSERT_NE(content, nullptr);
    ASSERT_EQ(content->notification.size(), 1u);
    EXPECT_EQ(content->notification[0].title, "Sale");
}

TEST(GetNotificationContent, FailurePrintsWhereTheRecordBroke) {
    test::ConsoleCapture console;
    auto content = TessraQuill::getNotificationContent(
        {}, requestWith(payload(R"({"p": [{"o": {}}, {"o": {"actions": [{"action": "buy"}]}}]})")));
    ASSERT_NE(content, nullptr);
    EXPECT_TRUE(content->notification.empty());
    EXPECT_EQ(console.lines(),
              (std::vector<std::string>{
                  "Push Object failed  keyNotFound: No value associated with key \"aps\".",
                  "Push Campaign object failed  keyNotFound at p[1].o.actions[0]: No value associated with key \"title\"."}));
}

TEST(TessraReceivedObject, DirectPushFillsTheFlatRecordFromAlertAndN) {
    auto parsed = TessraQuill::parsePushObj(payload(kDirect));
    ASSERT_EQ(shapeOf(parsed), Shape::direct);
    TessraReceivedObject message(std::get<PushObj>(*parsed).aps, "id-1");
    EXPECT_EQ(message.notifId, "id-1");
    EXPECT_EQ(message.title, "Sale");
    EXPECT_EQ(message.impTracker, std::vector<std::string>{"https://t.example/imp"});
    EXPECT_EQ(message.body, "Half price");
    EXPECT_EQ(message.tag, "sale");
    EXPECT_EQ(message.taskId, "task-9");
    EXPECT_EQ(message.el, 3);
    ASSERT_TRUE(message.actions.has_value());
    EXPECT_EQ(message.actions->at(0), (Action{"open", "Open", "app://sale"}));
    EXPECT_EQ(message.data, (Conversion{"https://shop.example/sale", std::vector<std::string>{"https://t.example/conv"}}));
    EXPECT_EQ(message.sound, std::nullopt);

    // Without "n" the record still carries the id, the title and the trackers.
    auto bare = TessraQuill::parsePushObj(payload(R"({"aps": {"alert": {"title": "Bare", "t": ["u"]}}})"));
    ASSERT_EQ(shapeOf(bare), Shape::direct);
    TessraReceivedObject expected;
    expected.notifId = "id-2";
    expected.title = "Bare";
    expected.impTracker = std::vector<std::string>{"u"};
    EXPECT_EQ(TessraReceivedObject(std::get<PushObj>(*bare).aps, "id-2"), expected);
}

TEST(TessraReceivedObject, CampaignEntryFillsTitleFromTAndTrackersFromI) {
    auto parsed = TessraQuill::parsePushObj(payload(kCampaign));
    ASSERT_EQ(shapeOf(parsed), Shape::campaign);
    const auto& campaign = std::get<PCampaignObject>(*parsed);
    TessraReceivedObject first(campaign.p.at(0), "id");
    EXPECT_EQ(first.title, "First");
    EXPECT_EQ(first.impTracker, std::vector<std::string>{"https://t.example/1"});
    EXPECT_EQ(first.body, "one");
    EXPECT_EQ(first.taskId, "a");
    TessraReceivedObject third(campaign.p.at(2), "id");
    EXPECT_EQ(third.title, std::nullopt);
    EXPECT_EQ(third.vibrate, (std::vector<std::int64_t>{100, 50, 100}));
}

}  // namespace
}  // namespace tessrakite
