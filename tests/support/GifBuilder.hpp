#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include <tessrakite/platform/PlistValue.hpp>

namespace tessrakite::test {

/// One frame of a hand-made GIF: a rectangle of colour indices and its control block.
struct GifFramePlan {
    int left = 0, top = 0, width = 0, height = 0;
    std::vector<std::uint8_t> indices;  // width * height, rows top to bottom
    int delayCs = 10;
    int disposal = 0;  // 0 unspecified, 1 keep, 2 background, 3 previous
    int transparent = -1;
    bool interlaced = false;

    /// A rectangle of one colour.
    static GifFramePlan filled(int left, int top, int width, int height, std::uint8_t index);
};

using Rgb = std::array<std::uint8_t, 3>;

/// GIF89a bytes written with giflib's encoder; `palette` is the global colour table
/// (a power of two entries, 2 to 256).
Data makeGif(int width, int height, const std::vector<Rgb>& palette, std::optional<int> loopCount,
             const std::vector<GifFramePlan>& frames);

}  // namespace tessrakite::test
