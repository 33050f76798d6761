#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/View.hpp>

typedef struct _cairo cairo_t;

namespace tessrakite::platform {

/// Lays the view's subtree out and draws it, at one pixel per point, into a PNG of the
/// view's size: backgrounds, borders, rounded corners, images by content mode, text.
/// Hidden views are skipped. A window draws the screens it shows. The error's
/// description on failure.
TESSRA_EXPORT std::optional<std::string> renderPNG(View& view, const std::filesystem::path& path);

/// Lays `view` out and draws its subtree into `cr` as renderPNG does, its top-left corner at
/// the context's origin: for a platform that shows views live (the desktop's windows).
TESSRA_EXPORT void drawView(cairo_t* cr, View& view);

/// A digest of what drawing `view` would show: frames, visibility, alpha, colours,
/// borders, texts and which image each image view or button holds. A live surface redraws
/// only when it changes; taking it costs a small fraction of a redraw.
TESSRA_EXPORT std::uint64_t drawnState(const View& view);

/// The tree as hosts see it: {type, frame {x, y, width, height}, hidden, alpha, then where
/// they apply identifier, controller, text, image {width, height}, and children}.
TESSRA_EXPORT nlohmann::ordered_json toJSON(const View& view);

}  // namespace tessrakite::platform
