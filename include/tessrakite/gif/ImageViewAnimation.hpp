#pragma once

#include <memory>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/Url.hpp>
#include <tessrakite/platform/View.hpp>

namespace tessrakite::gif {

/// Plays the GIF at `url` in `imageView` through the shared manager: its frames become
/// the view's image on the main queue. Replaces what the view played before. The view is
/// held weakly; releasing it ends the playback.
TESSRA_EXPORT void startAnimating(const Url& url, const std::shared_ptr<platform::ImageView>& imageView);

/// Stops and detaches the GIF playing in `imageView`, if any; on the main queue no frame
/// reaches the view after it returns.
TESSRA_EXPORT void stopAnimating(const platform::ImageView& imageView);

}  // namespace tessrakite::gif
