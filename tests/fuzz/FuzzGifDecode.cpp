// Arbitrary bytes as a downloaded GIF for an ad. A finding is a crash, a sanitizer report,
// an exception, or a frame that breaks its canvas's bounds.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <tessrakite/gif/GifDecoder.hpp>

#include "FuzzCheck.hpp"

namespace {

using fuzz::check;

// Small enough that a screen descriptor claiming a huge canvas is refused instead of
// exhausting the fuzzer's memory, as the real limit does for a real app.
constexpr std::uint64_t kMaxPixels = 1024 * 1024;
// Each frame copies the whole canvas; a few dozen frames reach every code path.
constexpr std::size_t kMaxFrames = 64;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto decoder = tessrakite::GifDecoder::open(std::make_shared<const tessrakite::Data>(data, data + size), kMaxPixels);
    if (!decoder) return 0;
    check(decoder->width() > 0 && decoder->height() > 0, "an empty canvas");
    const std::uint64_t pixels = static_cast<std::uint64_t>(decoder->width()) * static_cast<std::uint64_t>(decoder->height());
    check(pixels <= kMaxPixels, "a canvas past the pixel limit");
    while (decoder->framesRead() < kMaxFrames) {
        auto frame = decoder->next();
        if (!frame) break;
        check(frame->image && frame->image->width() == decoder->width() && frame->image->height() == decoder->height(),
              "a frame of another size than its canvas");
        check(frame->delay >= 0.02, "a delay under two centiseconds");
        // Every pixel is there: the last byte is readable (ASan checks the bound).
        volatile std::uint8_t touch = frame->image->rgba()[pixels * 4 - 1];
        (void)touch;
    }
    return 0;
}
