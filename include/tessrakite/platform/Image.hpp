#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/PlistValue.hpp>

namespace tessrakite::platform {

/// A decoded picture (the phone's UIImage): 8-bit RGBA pixels, rows top to bottom.
class TESSRA_EXPORT Image {
public:
    /// Decodes JPEG or PNG bytes; nothing when the bytes are not such an image or the
    /// picture is larger than `maxPixels`.
    static std::shared_ptr<Image> decode(const Data& bytes, std::uint64_t maxPixels = kDefaultMaxPixels);

    int width() const { return width_; }
    int height() const { return height_; }
    const std::uint8_t* rgba() const { return pixels_.get(); }

    /// Writes the PNG representation, row by row from these pixels (no second copy of
    /// them); the error's description on failure.
    std::optional<std::string> writePNG(const std::filesystem::path& file) const;

    /// 16 megapixels (64 MB of pixels): room for a 4000 x 4000 photo, while a tiny file
    /// whose header claims a giant picture cannot make an extension allocate more.
    static constexpr std::uint64_t kDefaultMaxPixels = 16ull * 1024 * 1024;

    Image(int width, int height, std::shared_ptr<std::uint8_t> pixels);

private:
    int width_ = 0;
    int height_ = 0;
    std::shared_ptr<std::uint8_t> pixels_;
};

}  // namespace tessrakite::platform
