#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <set>

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

void append(void* context, void* data, int size) {
    auto* out = static_cast<Data*>(context);
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    out->insert(out->end(), bytes, bytes + size);
}

// Left half red, right half blue; with 4 channels alpha falls from left to right.
// Written by an independent encoder: PNG, or JPEG when `jpeg`.
Data encoded(int channels, bool jpeg = false) {
    std::vector<std::uint8_t> pixels;
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            const bool left = x < kWidth / 2;
            pixels.insert(pixels.end(), {std::uint8_t(left ? 220 : 20), 20, std::uint8_t(left ? 20 : 220)});
            if (channels == 4) pixels.push_back(static_cast<std::uint8_t>(255 - x * 10));
        }
    Data out;
    if (jpeg)
        stbi_write_jpg_to_func(append, &out, kWidth, kHeight, channels, pixels.data(), 100);
    else
        stbi_write_png_to_func(append, &out, kWidth, kHeight, channels, pixels.data(), kWidth * channels);
    return out;
}

TEST(Image, DecodesJpegAndPngToRgbaWithinThePixelLimit) {
    struct Case {
        const char* name;
        Data bytes;
        int tolerance;  // JPEG is lossy
        std::uint8_t alpha;
    };
    const Case cases[] = {
        {"png with alpha", encoded(4), 0, 255 - 12 * 10},
        {"png without alpha", encoded(3), 0, 255},
        {"jpeg", encoded(3, true), 10, 255},
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
    const Data whole = encoded(4);
    const std::string gif("GIF89a\x01\x00\x01\x00\x80\x00\x00\xff\xff\xff\x00\x00\x00"
                          "!\xf9\x04\x01\x00\x00\x00\x00,\x00\x00\x00\x00\x01\x00\x01\x00\x00\x02\x02D\x01\x00;",
                          43);
    const std::pair<const char*, Data> cases[] = {
        {"empty", {}},
        {"garbage", Data(64, 0xA5)},
        {"truncated png", Data(whole.begin(), whole.begin() + static_cast<long>(whole.size() / 2))},
        {"gif", Data(gif.begin(), gif.end())},
    };
    for (const auto& [name, bytes] : cases) EXPECT_FALSE(Image::decode(bytes)) << name;
    EXPECT_FALSE(Image::decode(whole, kWidth * kHeight - 1)) << "one pixel over the limit";
}

// The attachment is the decoded picture written back as PNG: the same pixels, in one
// folder per process under the app's temporary folder, and nothing else left there.
TEST(Attachment, IsAPngOfTheSamePixelsInTheProcessFolderUnderTemporary) {
    test::ScopedHome home;
    test::installMainBundle(home.path());
    auto image = Image::decode(encoded(4));
    ASSERT_TRUE(image);
    auto first = platform::UNNotificationAttachment::create("first", *image, {});
    ASSERT_TRUE(first && platform::UNNotificationAttachment::create("second", *image, {}));

    const auto folder = std::filesystem::path(first->url).parent_path();
    EXPECT_EQ(folder.parent_path(), platform::FileRoots::temporary(StorageManager::bundleId()));
    std::set<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) files.insert(entry.path().string());
    EXPECT_EQ(files, (std::set<std::string>{folder / "first.png", folder / "second.png"}));

    const auto bytes = test::readFile(first->url);
    auto written = Image::decode(Data(bytes.begin(), bytes.end()));
    ASSERT_TRUE(written && written->width() == kWidth && written->height() == kHeight);
    EXPECT_EQ(std::memcmp(written->rgba(), image->rgba(), kWidth * kHeight * 4), 0);
}

TEST(Attachment, ThatCannotBeWrittenPrintsTheErrorAndGivesNothing) {
    for (const bool fileWhereTemporaryBelongs : {true, false}) {
        SCOPED_TRACE(fileWhereTemporaryBelongs ? "temporary folder is a file" : "identifier names a missing folder");
        test::ScopedHome home;
        test::installMainBundle(home.path());
        if (fileWhereTemporaryBelongs) {
            const auto temporary = platform::FileRoots::temporary(StorageManager::bundleId());
            std::filesystem::create_directories(temporary.parent_path());
            std::ofstream(temporary) << "not a folder";
        }
        auto image = Image::decode(encoded(4));
        ASSERT_TRUE(image);
        test::ConsoleCapture console;

        const std::string identifier = fileWhereTemporaryBelongs ? "pic" : "missing/pic";
        EXPECT_FALSE(platform::UNNotificationAttachment::create(identifier, *image, {}));
        const auto lines = console.lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].rfind("error ", 0), 0u) << lines[0];
        EXPECT_GT(lines[0].size(), 6u);
    }
}

}  // namespace
}  // namespace tessrakite
