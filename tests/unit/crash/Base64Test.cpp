#include <gtest/gtest.h>

#include <optional>
#include <string>

#include <tessrakite/crash/Base64.hpp>

namespace tessrakite {
namespace {

TEST(CrashBase64, EncodesWithPaddingAndWithoutLineBreaks) {
    struct Case {
        Data bytes;
        std::optional<std::string> text;
    };
    const Case cases[] = {
        {{0x4D}, "TQ=="},
        {{0x4D, 0x61}, "TWE="},
        {{0x4D, 0x61, 0x6E}, "TWFu"},
        {{0x4D, 0x61, 0x6E, 0x4D}, "TWFuTQ=="},
        {{0xFB, 0xFF, 0xBF}, "+/+/"},
        {{}, std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(base64StringWithData(c.bytes), c.text);
    EXPECT_EQ(base64StringWithData(Data(300, 0xAB)).value_or("\n").find('\n'), std::string::npos) << "long input gets no line breaks";
}

TEST(CrashBase64, DecodingRules) {
    struct Case {
        const char* name;
        std::string text;
        std::optional<Data> bytes;
    };
    const Case cases[] = {
        {"a space and a line feed inside", "TW Fu\n", Data{0x4D, 0x61, 0x6E}},
        {"every skipped character", "\tT\nW\fF\ru ", Data{0x4D, 0x61, 0x6E}},
        {"one padded byte", "TQ==", Data{0x4D}},
        {"two padded bytes", "TWE=", Data{0x4D, 0x61}},
        {"padding may be left out", "TWE", Data{0x4D, 0x61}},
        {"\"=\" ends the input", "TQ==TWFu", Data{0x4D}},
        {"an illegal character", "TW*u", std::nullopt},
        {"a URL-safe character", "TW-u", std::nullopt},
        {"a non-ASCII character", "TW\xC3\xA9u", std::nullopt},
        {"a lone leftover character", "TWFuT", std::nullopt},
        {"empty input", "", Data{}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(dataWithBase64String(c.text), c.bytes);
    }
}

TEST(CrashBase64, StringHelpersRoundTripThroughEncodings) {
    EXPECT_EQ(encodeBase64("Man"), "TWFu");
    EXPECT_EQ(encodeBase64(""), std::nullopt);
    EXPECT_EQ(decodeBase64("TWFu"), "Man");

    // "é" is two bytes in UTF-8 and one in Latin-1; ASCII cannot hold it.
    EXPECT_EQ(encodeBase64("\xC3\xA9"), "w6k=");
    EXPECT_EQ(encodeBase64UsingEncoding("\xC3\xA9", StringEncoding::isoLatin1), "6Q==");
    EXPECT_EQ(encodeBase64UsingEncoding("\xC3\xA9", StringEncoding::ascii), std::nullopt);
    EXPECT_EQ(decodeBase64UsingEncoding("6Q==", StringEncoding::isoLatin1), "\xC3\xA9");
    EXPECT_EQ(decodeBase64UsingEncoding("6Q==", StringEncoding::ascii), std::nullopt);
    EXPECT_EQ(decodeBase64("6Q=="), std::nullopt) << "a lone 0xE9 byte is not UTF-8";
}

}  // namespace
}  // namespace tessrakite
