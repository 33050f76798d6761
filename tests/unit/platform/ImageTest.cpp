#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>

#include <tessrakite/core/StorageManager.hpp>
#include <tessrakite/platform/FileRoots.hpp>
#include <tessrakite/platform/Image.hpp>
#include <tessrakite/platform/UserNotificationCenter.hpp>

#include "TestEnv.hpp"

#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STB_IMAGE_WRITE_STATIC
#include <stb/stb_image_write.h>

namespace tessrakite {
namespace {

using platform::Image;

constexpr int kWidth = 16;
constexpr int kHeight = 8;

// Left half red, right half blue; alpha falls from left to right when there is one.
std::vector<std::uint8_t> picture(int channels) {
    std::vector<std::uint8_t> pixels;
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            const bool left = x < kWidth / 2;
            pixels.insert(pixels.end(), {std::uint8_t(left ? 220 : 20), 20, std::uint8_t(left ? 20 : 220)});
            if (channels == 4) pixels.push_back(static_cast<std::uint8_t>(255 - x * 10));
        }
    return pixels;
}

void append(void* context, void* data, int size) {
    auto* out = static_cast<Data*>(context);
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    out->insert(out->end(), bytes, bytes + size);
}

Data png(int channels) {
    Data out;
    auto pixels = picture(channels);
    stbi_write_png_to_func(append, &out, kWidth, kHeight, channels, pixels.data(), kWidth * channels);
    return out;
}

Data jpeg() {
    Data out;
    auto pixels = picture(3);
    stbi_write_jpg_to_func(append, &out, kWidth, kHeight, 3, pixels.data(), 100);
    return out;
}

Data bytesOf(const std::string& text) { return Data(text.begin(), text.end()); }

Data readFile(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return Data(std::istreambuf_iterator<char>(in), {});
}

TEST(Image, DecodesJpegAndPngToRgbaWithinThePixelLimit) {
    struct Case {
        const char* name;
        Data bytes;
        int tolerance;  // JPEG is lossy
        std::uint8_t alpha;
    };
    const Case cases[] = {
        {"png with alpha", png(4), 0, 255 - 12 * 10},
        {"png without alpha", png(3), 0, 255},
        {"jpeg", jpeg(), 10, 255},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto image = Image::decode(c.bytes, kWidth * kHeight);  // exactly at the limit
        ASSERT_TRUE(image);
        EXPECT_EQ(image->width(), kWidth);
        EXPECT_EQ(image->height(), kHeight);
        const std::uint8_t* pixel = image->rgba() + (4 * kWidth + 12) * 4;  // row 4, column 12: blue
        EXPECT_NEAR(pixel[0], 20, c.tolerance);
        EXPECT_NEAR(pixel[1], 20, c.tolerance);
        EXPECT_NEAR(pixel[2], 220, c.tolerance);
        EXPECT_EQ(pixel[3], c.alpha);
    }
}

TEST(Image, RefusesWhatIsNotAJpegOrPngOrIsTooLarge) {
    const Data whole = png(4);
    const std::string gif("GIF89a\x01\x00\x01\x00\x80\x00\x00\xff\xff\xff\x00\x00\x00"
                          "!\xf9\x04\x01\x00\x00\x00\x00,\x00\x00\x00\x00\x01\x00\x01\x00\x00\x02\x02D\x01\x00;",
                          43);
    struct Case {
        const char* name;
        Data bytes;
        std::uint64_t maxPixels;
    };
    const Case cases[] = {
        {"empty", {}, Image::kDefaultMaxPixels},
        {"garbage", Data(64, 0xA5), Image::kDefaultMaxPixels},
        {"html", bytesOf("<!DOCTYPE html><html><body>Not found</body></html>"), Image::kDefaultMaxPixels},
        {"truncated png", Data(whole.begin(), whole.begin() + static_cast<long>(whole.size() / 2)),
         Image::kDefaultMaxPixels},
        {"gif", bytesOf(gif), Image::kDefaultMaxPixels},
        {"one pixel over the limit", whole, kWidth * kHeight - 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_FALSE(Image::decode(c.bytes, c.maxPixels));
    }
}

TEST(Image, WritesAPngThatDecodesToTheSamePixels) {
    test::ScopedHome home;
    auto image = Image::decode(png(4));
    ASSERT_TRUE(image);
    const auto file = home.path() / "out.png";
    EXPECT_EQ(image->writePNG(file), std::nullopt);

    auto back = Image::decode(readFile(file));
    ASSERT_TRUE(back);
    ASSERT_EQ(back->width(), kWidth);
    ASSERT_EQ(back->height(), kHeight);
    EXPECT_EQ(std::memcmp(back->rgba(), image->rgba(), kWidth * kHeight * 4), 0);
    // The temporary file was renamed into place, not left beside it.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(home.path()), {}), 1);
}

TEST(Attachment, LandsAsIdentifierPngInTheProcessFolderUnderTemporary) {
    test::ScopedHome home;
    test::installMainBundle(home.path());
    auto image = Image::decode(png(4));
    ASSERT_TRUE(image);
    const PlistDictionary options{{"thumbnailHidden", true}};

    auto first = platform::UNNotificationAttachment::create("first", *image, options);
    auto second = platform::UNNotificationAttachment::create("second", *image, {});
    ASSERT_TRUE(first);
    ASSERT_TRUE(second);

    const std::filesystem::path file(first->url);
    const auto folder = file.parent_path();
    EXPECT_EQ(folder.parent_path(), platform::FileRoots::temporary(StorageManager::bundleId()));
    EXPECT_TRUE(std::regex_match(folder.filename().string(),
                                 std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")));
    EXPECT_EQ(file.filename(), "first.png");
    EXPECT_EQ(first->identifier, "first");
    EXPECT_EQ(first->options, options);
    EXPECT_EQ(std::filesystem::path(second->url), folder / "second.png");  // one folder per process

    auto written = Image::decode(readFile(file));
    ASSERT_TRUE(written);
    EXPECT_EQ(std::memcmp(written->rgba(), image->rgba(), kWidth * kHeight * 4), 0);
}

TEST(Attachment, ThatCannotBeWrittenPrintsTheErrorAndGivesNothing) {
    struct Case {
        const char* name;
        bool fileWhereTemporaryBelongs;
        std::string identifier;
    };
    const Case cases[] = {
        {"temporary folder is a file", true, "pic"},
        {"identifier names a missing folder", false, "missing/pic"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        test::ScopedHome home;
        test::installMainBundle(home.path());
        if (c.fileWhereTemporaryBelongs) {
            const auto temporary = platform::FileRoots::temporary(StorageManager::bundleId());
            std::filesystem::create_directories(temporary.parent_path());
            std::ofstream(temporary) << "not a folder";
        }
        auto image = Image::decode(png(4));
        ASSERT_TRUE(image);
        test::ConsoleCapture console;

        EXPECT_FALSE(platform::UNNotificationAttachment::create(c.identifier, *image, {}));
        const auto lines = console.lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].rfind("error ", 0), 0u) << lines[0];
        EXPECT_GT(lines[0].size(), 6u);
    }
}

}  // namespace
}  // namespace tessrakite
