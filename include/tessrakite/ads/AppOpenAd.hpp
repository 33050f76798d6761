#pragma once

#include <memory>
#include <optional>
#include <string>

#include <tessrakite/Export.hpp>
#include <tessrakite/ads/AppOpenAdController.hpp>
#include <tessrakite/ads/AppOpenAdDelegate.hpp>
#include <tessrakite/ads/CustomizedAdObject.hpp>
#include <tessrakite/ads/MavoObject.hpp>
#include <tessrakite/platform/Image.hpp>
#include <tessrakite/platform/ViewController.hpp>

namespace tessrakite {

/// A full-screen ad shown when the app comes to the foreground. It loads one creative
/// ahead of time, keeps it for at most four hours, and shows it on request; after each
/// showing it loads the next. Create it with std::make_shared (requests in flight hold it
/// weakly) and use it on the main queue only.
///
///   auto ad = std::make_shared<AppOpenAd>();
///   ad->delegate = myDelegate;
///   ad->loadAppOpenAd("App_Open");
///   ...
///   ad->tryDisplayAd(currentScreen);  // shows the ad, or starts loading one
class TESSRA_EXPORT AppOpenAd : public std::enable_shared_from_this<AppOpenAd> {
public:
    /// A ready ad is shown for this long after its image arrived, boundary included.
    static constexpr double kMaxAgeSeconds = 14400;

    std::string placementId;
    std::weak_ptr<AppOpenAdDelegate> delegate;
    std::shared_ptr<platform::Image> mavoImage;
    std::shared_ptr<AppOpenAdController> appOpenController;
    bool isPresented = false;
    std::optional<MavoObject> mavoObject;
    bool isLoading = false;
    bool isObjetReady = false;

    /// Starts a load for `placementId` unless one is running (or ads are off): tells the
    /// delegate addWillPresentFullScreenContent, then asks the feed for a screen-sized ad.
    void loadAppOpenAd(const std::string& placementId);
    /// Shows the ready ad modally from `from`, or starts a load when none is ready.
    void tryDisplayAd(const std::shared_ptr<platform::ViewController>& from);
    /// The ready ad, when its image arrived at most four hours ago.
    std::optional<CustomizedAdObject> checkForAd() const;

private:
    void onFeedAnswer(std::optional<MavoObject> ad, std::optional<std::string> error);
    void onImage(std::shared_ptr<platform::Image> image, const std::string& error);
    void onDismissed();
};

}  // namespace tessrakite
