#pragma once

#include <cstdint>

namespace tessrakite {

/// The sizes the ad feed request sends, in points, truncated toward zero.
struct SizesForAdd {
    std::int64_t screenWidth = 0;
    std::int64_t screenHeight = 0;
    std::int64_t adWidth = 0;
    std::int64_t adHeight = 0;

    friend bool operator==(const SizesForAdd&, const SizesForAdd&) = default;
};

}  // namespace tessrakite
