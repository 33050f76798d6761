// The values tessra-defaults takes on its command line and prints.

#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "DefaultsValue.hpp"

namespace {

using tessra_defaults::BadValue;
using tessra_defaults::describe;
using tessra_defaults::parseValue;
using tessra_defaults::typedJson;
using tessrakite::PlistArray;
using tessrakite::PlistDictionary;
using tessrakite::PlistValue;

TEST(DefaultsValueTest, ParsesEachTypeFromItsText) {
    struct Case {
        const char* type;
        std::string text;
        PlistValue expected;
    };
    const Case cases[] = {
        {"bool", "true", PlistValue(true)},
        {"bool", "NO", PlistValue(false)},
        {"bool", "1", PlistValue(true)},
        {"int", "42", PlistValue(42)},
        {"int", "-7", PlistValue(-7)},
        {"int", "+3", PlistValue(3)},
        {"int", "9223372036854775807", PlistValue(std::numeric_limits<std::int64_t>::max())},
        {"double", "2.5", PlistValue(2.5)},
        {"double", "-1e3", PlistValue(-1000.0)},
        {"double", "3", PlistValue(3.0)},
        {"string", "", PlistValue(std::string())},
        {"string", "two words", PlistValue("two words")},
        {"string", "42", PlistValue("42")},
        {"array", "[1, \"x\", null, [true]]",
         PlistValue(PlistArray{PlistValue(1), PlistValue("x"), PlistValue(), PlistValue(PlistArray{PlistValue(true)})})},
        {"dict", "{\"utm_source\": \"mail\", \"n\": 1.5}",
         PlistValue(PlistDictionary{{"utm_source", PlistValue("mail")}, {"n", PlistValue(1.5)}})},
        {"dict", "{}", PlistValue(PlistDictionary{})},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.type) + " " + c.text);
        EXPECT_EQ(parseValue(c.type, c.text), c.expected);
        EXPECT_EQ(parseValue(c.type, c.text).type(), c.expected.type());
    }
}

TEST(DefaultsValueTest, RefusesTextsThatDoNotFitTheirType) {
    const std::pair<const char*, std::string> cases[] = {
        {"bool", "maybe"},
        {"bool", ""},
        {"int", ""},
        {"int", "4.2"},
        {"int", "12abc"},
        {"int", "9223372036854775808"},
        {"int", "+"},
        {"double", "abc"},
        {"double", "nan"},
        {"double", "inf"},
        {"double", "1e999"},
        {"double", ""},
        {"array", "{\"a\": 1}"},
        {"array", "[1,"},
        {"dict", "[1]"},
        {"dict", "not json"},
        {"array", std::string(257, '[') + std::string(257, ']')},
        {"float", "1"},
        {"", "1"},
    };
    for (const auto& [type, text] : cases) {
        SCOPED_TRACE(std::string(type) + " " + text.substr(0, 20));
        EXPECT_THROW(parseValue(type, text), BadValue);
    }
    // As deep as the store keeps is still fine, and brackets inside strings do not count.
    EXPECT_NO_THROW(parseValue("array", std::string(256, '[') + std::string(256, ']')));
    EXPECT_NO_THROW(parseValue("array", "[\"" + std::string(300, '[') + "\"]"));
}

TEST(DefaultsValueTest, DescribesValuesForPeople) {
    const std::pair<PlistValue, std::string> cases[] = {
        {PlistValue(2), "2"},
        {PlistValue(true), "true"},
        {PlistValue(2.5), "2.5"},
        {PlistValue(3.0), "3.0"},
        {PlistValue(std::numeric_limits<double>::quiet_NaN()), "nan"},
        {PlistValue("a \"quoted\"\nline"), "\"a \\\"quoted\\\"\\nline\""},
        {PlistValue(tessrakite::Data{0x00, 0xff, 0x10}), "<00ff10>"},
        {PlistValue(tessrakite::Date{0}), "1970-01-01 00:00:00 +0000"},
        {PlistValue(tessrakite::Date{1e300}), "1e+300 s"},
        {PlistValue(PlistArray{PlistValue(1), PlistValue("x")}), "[1, \"x\"]"},
        {PlistValue(PlistDictionary{{"b", PlistValue(false)}, {"a", PlistValue()}}), "{\"a\": null, \"b\": false}"},
    };
    for (const auto& [value, text] : cases) EXPECT_EQ(describe(value), text);
}

TEST(DefaultsValueTest, TypedJsonNamesTheTypeAndGivesDataAsHex) {
    EXPECT_EQ(typedJson(PlistValue(2)).dump(), R"({"type":"int","value":2})");
    EXPECT_EQ(typedJson(PlistValue(tessrakite::Data{0xab})).dump(), R"({"type":"data","value":"ab"})");
    EXPECT_EQ(typedJson(PlistValue(tessrakite::Date{12.5})).dump(), R"({"type":"date","value":12.5})");
    EXPECT_EQ(typedJson(PlistValue(PlistDictionary{{"k", PlistValue(PlistArray{PlistValue("v")})}})).dump(),
              R"({"type":"dict","value":{"k":["v"]}})");
}

}  // namespace
