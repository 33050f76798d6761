#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include <tessrakite/core/DecodingError.hpp>
#include <tessrakite/core/EncodingError.hpp>
#include <tessrakite/core/JSONAny.hpp>
#include <tessrakite/core/JSONNull.hpp>
#include <tessrakite/platform/PlistValue.hpp>

namespace tessrakite {
namespace {

using Json = nlohmann::ordered_json;

const char* heldName(const JSONAny& any) {
    if (any.get<bool>()) return "bool";
    if (any.get<std::int64_t>()) return "int64";
    if (any.get<double>()) return "double";
    if (any.get<std::string>()) return "string";
    if (any.get<JSONNull>()) return "null";
    if (any.get<JSONAny::Array>()) return "array";
    if (any.get<JSONAny::Dictionary>()) return "dictionary";
    return "other";
}

TEST(JSONAny, ScalarTakesTheFirstTypeThatFitsBooleanIntegerDoubleStringNull) {
    const std::pair<const char*, const char*> cases[] = {
        {"-42", "int64"},
        {"9223372036854775808", "double"},  // past Int64: only the double step fits
        {"1.5", "double"},
        {"3.0", "int64"},  // an integral value: the integer step fits first
        {"1e19", "double"},  // integral but past Int64
        {"true", "bool"},
        {"null", "null"},
    };
    for (const auto& [text, held] : cases) EXPECT_STREQ(heldName(JSONAny::decode(Json::parse(text))), held) << text;
    EXPECT_EQ(*JSONAny::decode(Json::parse("1e2")).get<std::int64_t>(), 100);
}

TEST(JSONAny, ContainersKeepTheirElementsTypesAndEncodeBackUnchanged) {
    for (const char* text : {"[]", "[true, 1, 1.5, \"s\", null, [], {}]", R"({"a": [1, {"b": null}], "c": {"d": false}})"}) {
        auto json = Json::parse(text);
        EXPECT_EQ(JSONAny::decode(json).encode(), json) << text;
    }
    Json record = {{"any", JSONAny(JSONAny::Array{std::string("x"), JSONNull{}})}};
    EXPECT_EQ(record.dump(), R"({"any":["x",null]})");
    EXPECT_STREQ(heldName(record.at("any").get<JSONAny>()), "array");
}

TEST(JSONAny, HeldValueWithoutJSONTypeFailsToEncodeWithItsPath) {
    struct Case {
        JSONAny any;
        std::vector<std::string> path;
        std::string text;
    };
    const Case cases[] = {
        {JSONAny(JSONAny::Array{std::int64_t{1}, Date{0}}), {"[1]"}, "Cannot encode JSONAny"},
        {JSONAny(7), {}, "Cannot encode JSONAny"},  // an int that is not 64-bit
        {JSONAny(std::nan("")), {}, "Cannot encode a non-finite double in JSON"},
    };
    for (const auto& [any, path, text] : cases) {
        try {
            any.encode();
            ADD_FAILURE() << "encoded " << text;
        } catch (const EncodingError& e) {
            EXPECT_EQ(e.kind(), EncodingError::Kind::invalidValue);
            EXPECT_EQ(e.debugDescription(), text);
            EXPECT_EQ(e.codingPath(), path);
        }
    }
}

TEST(JSONAny, ValueWithoutJSONTypeFailsToDecodeAndJSONNullDecodesOnlyNull) {
    EXPECT_THROW(JSONAny::decode(Json::array({1, Json::binary({1})})), DecodingError);
    EXPECT_NO_THROW(Json(nullptr).get<JSONNull>());
    for (const char* text : {"0", "false", "{}"}) EXPECT_THROW(Json::parse(text).get<JSONNull>(), DecodingError) << text;
}

}  // namespace
}  // namespace tessrakite
