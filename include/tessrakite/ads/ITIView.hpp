#pragma once

#include <functional>
#include <memory>
#include <string>

#include <tessrakite/Export.hpp>
#include <tessrakite/ads/MavoObject.hpp>
#include <tessrakite/platform/View.hpp>

namespace tessrakite {

/// The interstitial's content: the creative image and its title, stacked in portrait
/// (image on the top half) and side by side otherwise (image on the left half).
/// Views belong to the main queue.
class TESSRA_EXPORT ITIView : public platform::View {
public:
    /// An empty view, filled later by fill(): the interstitial adds it to its screen before
    /// the feed answers.
    ITIView() = default;
    /// Builds and fills the view at once.
    ITIView(platform::DeviceOrientation orientation, const MavoObject& data);

    /// Adds the text and image views, lays them out for `orientation` and fills them
    /// from `data`. Call once.
    void fill(platform::DeviceOrientation orientation, const MavoObject& data);
    /// The title of the first item as text (empty when absent), then its image.
    void setupITI(const MavoObject& with);
    /// Downloads the image at `from` (10-second timeout) into imageView on the main
    /// queue, then calls `completion` there; the image view is held weakly meanwhile. A text that is no URL loads nothing; a
    /// transport error is printed followed by "ERROREEERR".
    void loadImage(const std::string& from, std::function<void()> completion = nullptr);

    /// Made on first use.
    std::shared_ptr<platform::ImageView> imageView();
    std::shared_ptr<platform::TextView> textView();

private:
    std::shared_ptr<platform::ImageView> imageView_;
    std::shared_ptr<platform::TextView> textView_;
};

}  // namespace tessrakite
