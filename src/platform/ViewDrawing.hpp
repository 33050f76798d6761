#pragma once

#include <cstdint>

typedef struct _cairo cairo_t;

namespace tessrakite::platform {

class View;

/// Lays `view` out and draws its subtree into `cr`, its top-left corner at the context's
/// origin, as renderPNG draws it.
void drawView(cairo_t* cr, View& view);

/// A digest of what drawing `view` would show: frames, visibility, colours, borders,
/// images and texts of the subtree. A live surface redraws only when it changes.
std::uint64_t drawnState(const View& view);

}  // namespace tessrakite::platform
