// Input nested far deeper than any real document: every path decodes it to nothing, with
// its usual console line, instead of running out of stack.

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <tessrakite/core/DecodingError.hpp>
#include <tessrakite/core/JSONAny.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/core/TessraRequest.hpp>

#include "SdkFixture.hpp"

namespace tessrakite {
namespace {

constexpr int kDepth = 100'000;
const std::string kTooDeep = "The data is nested deeper than 256 levels.";

std::string deepJSON() { return std::string(kDepth, '[') + std::string(kDepth, ']'); }

// Built level by level with moves: a copy of such a tree would itself recurse.
PlistValue deepValue() {
    PlistValue value{PlistArray{}};
    for (int level = 1; level < kDepth; ++level) {
        PlistArray outer;
        outer.push_back(std::move(value));
        value = PlistValue(std::move(outer));
    }
    return value;
}

PlistDictionary deepUserInfo() {
    PlistDictionary userInfo;
    userInfo.emplace("aps", PlistValue::fromJSON(nlohmann::json::parse(R"({"alert": {"title": "T"}})")));
    userInfo.emplace("deep", deepValue());
    return userInfo;
}

class DeepNesting : public test::SdkFixture {};

TEST_F(DeepNesting, EveryPathDecodesItToNothingWithItsUsualLine) {
    struct Case {
        const char* name;
        std::function<bool()> decodesToNothing;
        std::vector<std::string> lines;
    };
    const std::vector<Case> cases = {
        {"configuration document",
         [&] {
             serveConfig(test::Answer::json(R"({"push_config": {"enabled": true, "prompts": )" + deepJSON() + "}}"));
             start();
             std::atomic<bool> completed = false, configured = true;
             TessraRequest().getConfig(kApiKey, [&](std::shared_ptr<TessraConfig> config) {
                 completed = true;
                 configured = config != nullptr;
             });
             pump();
             return completed && !configured;
         },
         {"Error took place  " + kTooDeep}},
        {"parsePushObj",
         [] { return !TessraQuill::parsePushObj(deepUserInfo()).has_value(); },
         {"JSON serialization failed " + kTooDeep}},
        {"getNotificationContent",
         [] {
             platform::UNNotificationRequest request;
             request.identifier = "deep";
             request.content.userInfo = deepUserInfo();
             return TessraQuill::getNotificationContent({}, request) == nullptr;
         },
         {"JSON serialization failed  " + kTooDeep}},
        {"stored value",
         [&] {
             storage().defaultStorage->set("deep", deepValue());
             return !storage().defaultStorage->object("deep").has_value();
         },
         {"UserDefaults: cannot save \"deep\": " + kTooDeep}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        console->clear();
        EXPECT_TRUE(c.decodesToNothing());
        for (const auto& line : c.lines) EXPECT_TRUE(console->contains(line)) << line;
    }
    EXPECT_THROW((void)PlistValue::fromJSON(nlohmann::json::parse(deepJSON())), std::invalid_argument);
    EXPECT_THROW((void)deepValue().toJSON(), std::invalid_argument);
    EXPECT_THROW((void)JSONAny::decode(nlohmann::ordered_json::parse(deepJSON())), DecodingError);
}

}  // namespace
}  // namespace tessrakite
