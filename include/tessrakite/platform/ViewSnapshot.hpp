#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/View.hpp>

namespace tessrakite::platform {

/// Lays the view's subtree out and draws it, at one pixel per point, into a PNG of the
/// view's size: backgrounds, borders, rounded corners, images by content mode, text.
/// Hidden views are skipped. A window draws the screens it shows. The error's
/// description on failure.
TESSRA_EXPORT std::optional<std::string> renderPNG(View& view, const std::filesystem::path& path);

/// The tree as hosts see it: {type, frame {x, y, width, height}, hidden, alpha, then where
/// they apply identifier, controller, text, image {width, height}, and children}.
TESSRA_EXPORT nlohmann::ordered_json toJSON(const View& view);

}  // namespace tessrakite::platform
