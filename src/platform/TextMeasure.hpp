#pragma once

#include <cstdint>
#include <string>

#include <tessrakite/platform/Device.hpp>

namespace tessrakite::platform {

/// The size the text takes in the system font at `fontSize`, wrapped to `maxWidth` when it
/// is positive and `numberOfLines` is not 1, at most `numberOfLines` lines (0: any). The
/// renderer draws text with the same layout, so measured and drawn text agree.
Size measureText(const std::string& text, double fontSize, double maxWidth, std::int64_t numberOfLines);

}  // namespace tessrakite::platform
