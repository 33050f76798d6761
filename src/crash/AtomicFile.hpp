#pragma once

#include <filesystem>
#include <string_view>

namespace tessrakite::crash {

/// Writes `content` to a temporary file next to `path` and renames it over `path`, so
/// readers see the old file or the new one, never a part. False on failure.
bool writeFileAtomically(const std::filesystem::path& path, std::string_view content);

}  // namespace tessrakite::crash
