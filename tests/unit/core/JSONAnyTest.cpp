#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <unordered_set>
#include <vector>

#include <tessrakite/core/DecodingError.hpp>
#include <tessrakite/core/EncodingError.hpp>
#include <tessrakite/core/JSONAny.hpp>
#include <tessrakite/core/JSONCodingKey.hpp>
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
    struct Case {
        const char* text;
        const char* held;
    };
    const Case cases[] = {
        {"1", "int64"},
        {"-42", "int64"},
        {"9223372036854775807", "int64"},
        {"9223372036854775808", "double"},  // past Int64: only the double step fits
        {"1.5", "double"},
        {"3.0", "int64"},  // an integral value: the integer step fits first
        {"1e2", "int64"},
        {"1e19", "double"},  // integral but past Int64
        {"true", "bool"},
        {"false", "bool"},
        {"\"1\"", "string"},
        {"null", "null"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_STREQ(heldName(JSONAny::decode(Json::parse(c.text))), c.held);
    }
    EXPECT_EQ(*JSONAny::decode(Json::parse("1")).get<std::int64_t>(), 1);
    EXPECT_EQ(*JSONAny::decode(Json::parse("1e2")).get<std::int64_t>(), 100);
    EXPECT_EQ(*JSONAny::decode(Json::parse("1.5")).get<double>(), 1.5);
    EXPECT_EQ(*JSONAny::decode(Json::parse("true")).get<bool>(), true);
}

TEST(JSONAny, ContainersDecodeElementByElementAndEncodeBackUnchanged) {
    struct Case {
        const char* text;
        const char* held;
        std::size_t size;
    };
    const Case cases[] = {
        {"{}", "dictionary", 0},
        {"[]", "array", 0},
        {"[null]", "array", 1},
        {"[true, 1, 1.5, \"s\", null, [], {}]", "array", 7},
        {R"({"a": [1, {"b": null}], "c": {"d": false}})", "dictionary", 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        auto json = Json::parse(c.text);
        auto any = JSONAny::decode(json);
        EXPECT_STREQ(heldName(any), c.held);
        if (auto* a = any.get<JSONAny::Array>()) {
            EXPECT_EQ(a->size(), c.size);
        }
        if (auto* d = any.get<JSONAny::Dictionary>()) {
            EXPECT_EQ(d->size(), c.size);
        }
        EXPECT_EQ(any.encode(), json);
    }
    auto nullInArray = JSONAny::decode(Json::parse("[null]"));
    ASSERT_NE(std::any_cast<JSONNull>(&nullInArray.get<JSONAny::Array>()->at(0)), nullptr);
    EXPECT_EQ(nullInArray.encode().dump(), "[null]");
}

TEST(JSONAny, ElementsKeepTheirTypesInsideContainers) {
    auto any = JSONAny::decode(Json::parse(R"([true, 1, 1.5])"));
    const auto& array = *any.get<JSONAny::Array>();
    EXPECT_NE(std::any_cast<bool>(&array[0]), nullptr);
    EXPECT_NE(std::any_cast<std::int64_t>(&array[1]), nullptr);
    EXPECT_NE(std::any_cast<double>(&array[2]), nullptr);
}

TEST(JSONAny, ValueWithoutJSONTypeFailsToDecodeWithItsPath) {
    struct Case {
        Json json;
        std::vector<std::string> path;
    };
    const Case cases[] = {
        {Json::binary({1, 2}), {}},
        {Json::array({1, Json::binary({1})}), {"[1]"}},
        {Json::object({{"k", Json::array({Json::binary({1})})}}), {"k", "[0]"}},
    };
    for (const auto& c : cases) {
        try {
            JSONAny::decode(c.json);
            ADD_FAILURE() << "decoded";
        } catch (const DecodingError& e) {
            EXPECT_EQ(e.kind(), DecodingError::Kind::typeMismatch);
            EXPECT_EQ(e.debugDescription(), "Cannot decode JSONAny");
            EXPECT_EQ(e.codingPath(), c.path);
        }
    }
}

TEST(JSONAny, HeldValueOfAnotherTypeFailsToEncodeWithItsPath) {
    struct Case {
        const char* name;
        JSONAny any;
        std::vector<std::string> path;
        std::string text;
    };
    const Case cases[] = {
        {"a date", JSONAny(Date{1700000000}), {}, "Cannot encode JSONAny"},
        {"data", JSONAny(Data{1, 2}), {}, "Cannot encode JSONAny"},
        {"a date in an array", JSONAny(JSONAny::Array{std::int64_t{1}, Date{0}}), {"[1]"}, "Cannot encode JSONAny"},
        {"a date in a dictionary", JSONAny(JSONAny::Dictionary{{"when", Date{0}}}), {"when"}, "Cannot encode JSONAny"},
        {"an int that is not 64-bit", JSONAny(7), {}, "Cannot encode JSONAny"},
        {"NaN", JSONAny(std::nan("")), {}, "Cannot encode a non-finite double in JSON"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        try {
            c.any.encode();
            ADD_FAILURE() << "encoded";
        } catch (const EncodingError& e) {
            EXPECT_EQ(e.kind(), EncodingError::Kind::invalidValue);
            EXPECT_EQ(e.debugDescription(), c.text);
            EXPECT_EQ(e.codingPath(), c.path);
        }
    }
}

TEST(JSONAny, CodesInsideRecordsThroughNlohmannConversions) {
    Json json = {{"any", JSONAny(JSONAny::Array{std::string("x"), JSONNull{}})}};
    EXPECT_EQ(json.dump(), R"({"any":["x",null]})");
    auto back = json.at("any").get<JSONAny>();
    EXPECT_STREQ(heldName(back), "array");
}

TEST(JSONNull, DecodesOnlyNullAndIsOneValue) {
    EXPECT_NO_THROW(Json(nullptr).get<JSONNull>());
    for (const char* text : {"0", "false", "\"\"", "[]", "{}"}) {
        SCOPED_TRACE(text);
        try {
            Json::parse(text).get<JSONNull>();
            ADD_FAILURE() << "decoded";
        } catch (const DecodingError& e) {
            EXPECT_EQ(e.kind(), DecodingError::Kind::typeMismatch);
            EXPECT_EQ(e.debugDescription(), "Wrong type for JSONNull");
        }
    }
    EXPECT_EQ(Json(JSONNull{}).dump(), "null");
    EXPECT_EQ(JSONNull{}, JSONNull{});
    EXPECT_EQ(std::hash<JSONNull>{}(JSONNull{}), 0u);
    EXPECT_EQ((std::unordered_set<JSONNull>{JSONNull{}, JSONNull{}}.size()), 1u);
}

TEST(JSONCodingKey, AnyStringMakesAKeyAndNoIntegerDoes) {
    for (const char* text : {"", "el", "a key with blanks", "\xC3\xA9"}) {
        auto key = JSONCodingKey::withStringValue(text);
        ASSERT_TRUE(key.has_value());
        EXPECT_EQ(key->stringValue(), text);
        EXPECT_EQ(key->intValue(), std::nullopt);
    }
    for (std::int64_t i : {std::int64_t{0}, std::int64_t{1}, std::int64_t{-1}})
        EXPECT_EQ(JSONCodingKey::withIntValue(i), std::nullopt);
}

}  // namespace
}  // namespace tessrakite
