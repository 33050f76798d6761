// Arbitrary bytes as a downloaded notification image. A finding is a crash, a sanitizer
// report, an exception, or a picture that breaks its own bounds.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <tessrakite/platform/Image.hpp>

#include "FuzzCheck.hpp"

namespace {

using fuzz::check;

// Small enough that a header claiming a huge picture is refused instead of exhausting
// the fuzzer's memory, as the real limit does for a real extension.
constexpr std::uint64_t kMaxPixels = 4u * 1024 * 1024;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const tessrakite::Data bytes(data, data + size);
    auto image = tessrakite::platform::Image::decode(bytes, kMaxPixels);
    if (!image) return 0;
    check(image->width() > 0 && image->height() > 0, "an empty picture");
    check(static_cast<std::uint64_t>(image->width()) * static_cast<std::uint64_t>(image->height()) <= kMaxPixels,
          "a picture past the pixel limit");
    // Every pixel is there: the last byte is readable (ASan checks the bound).
    const std::size_t last = static_cast<std::size_t>(image->width()) * static_cast<std::size_t>(image->height()) * 4 - 1;
    volatile std::uint8_t touch = image->rgba()[last];
    (void)touch;
    return 0;
}
