// The values tessra-defaults takes on its command line and prints.

#include <limits>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "DefaultsValue.hpp"

namespace {

using tessra_defaults::BadValue;
using tessra_defaults::parseValue;
using tessrakite::PlistArray;
using tessrakite::PlistDictionary;
using tessrakite::PlistValue;

TEST(DefaultsValueTest, ParsesTextsThatFitTheirTypeAndRefusesTheOthers) {
    struct Case {
        const char* type;
        std::string text;
        std::optional<PlistValue> expected;  // nothing: refused
    };
    const std::string deepest = std::string(256, '[') + std::string(256, ']');
    PlistValue deepestValue{PlistArray{}};
    for (int depth = 1; depth < 256; ++depth) deepestValue = PlistValue(PlistArray{deepestValue});
    const Case cases[] = {
        {"bool", "true", PlistValue(true)}, {"bool", "NO", PlistValue(false)}, {"bool", "1", PlistValue(true)},
        {"int", "-7", PlistValue(-7)}, {"int", "+3", PlistValue(3)},
        {"int", "9223372036854775807", PlistValue(std::numeric_limits<std::int64_t>::max())},
        {"double", "-1e3", PlistValue(-1000.0)}, {"double", "3", PlistValue(3.0)},
        {"string", "", PlistValue(std::string())}, {"string", "42", PlistValue("42")},
        {"array", "[1, \"x\", null, [true]]",
         PlistValue(PlistArray{PlistValue(1), PlistValue("x"), PlistValue(), PlistValue(PlistArray{PlistValue(true)})})},
        {"dict", "{\"utm_source\": \"mail\", \"n\": 1.5}",
         PlistValue(PlistDictionary{{"utm_source", PlistValue("mail")}, {"n", PlistValue(1.5)}})},
        // As deep as the store keeps is fine, and brackets inside strings do not count.
        {"array", deepest, deepestValue},
        {"array", "[\"" + std::string(300, '[') + "\"]", PlistValue(PlistArray{PlistValue(std::string(300, '['))})},
        {"bool", "maybe", {}}, {"bool", "", {}}, {"int", "", {}}, {"int", "4.2", {}}, {"int", "12abc", {}},
        {"int", "9223372036854775808", {}}, {"int", "+", {}}, {"double", "abc", {}}, {"double", "nan", {}},
        {"double", "inf", {}}, {"double", "1e999", {}}, {"array", "{\"a\": 1}", {}}, {"array", "[1,", {}},
        {"dict", "[1]", {}}, {"dict", "not json", {}}, {"array", "[" + deepest + "]", {}}, {"float", "1", {}},
        {"", "1", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.type) + " " + c.text.substr(0, 20));
        if (c.expected) EXPECT_EQ(parseValue(c.type, c.text), *c.expected);
        else EXPECT_THROW(parseValue(c.type, c.text), BadValue);
    }
}

TEST(DefaultsValueTest, DescribesValuesForPeopleAndAsTypedJson) {
    const std::pair<PlistValue, std::string> described[] = {
        {PlistValue(2), "2"},
        {PlistValue(true), "true"},
        {PlistValue(3.0), "3.0"},
        {PlistValue(std::numeric_limits<double>::quiet_NaN()), "nan"},
        {PlistValue("a \"quoted\"\nline"), "\"a \\\"quoted\\\"\\nline\""},
        {PlistValue(tessrakite::Data{0x00, 0xff, 0x10}), "<00ff10>"},
        {PlistValue(tessrakite::Date{0}), "1970-01-01 00:00:00 +0000"},
        {PlistValue(tessrakite::Date{1e300}), "1e+300 s"},
        {PlistValue(PlistDictionary{{"b", PlistValue(false)}, {"a", PlistValue(PlistArray{PlistValue("x")})}}),
         "{\"a\": [\"x\"], \"b\": false}"},
    };
    for (const auto& [value, text] : described) EXPECT_EQ(tessra_defaults::describe(value), text);
    const std::pair<PlistValue, std::string> typed[] = {
        {PlistValue(2), R"({"type":"int","value":2})"},
        {PlistValue(tessrakite::Data{0xab}), R"({"type":"data","value":"ab"})"},
        {PlistValue(tessrakite::Date{12.5}), R"({"type":"date","value":12.5})"},
        {PlistValue(PlistDictionary{{"k", PlistValue(PlistArray{PlistValue("v")})}}),
         R"({"type":"dict","value":{"k":["v"]}})"},
    };
    for (const auto& [value, text] : typed) EXPECT_EQ(tessra_defaults::typedJson(value).dump(), text);
}

}  // namespace
