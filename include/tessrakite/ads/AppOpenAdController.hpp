#pragma once

#include <functional>
#include <memory>
#include <optional>

#include <tessrakite/Export.hpp>
#include <tessrakite/ads/AppOpenAdView.hpp>
#include <tessrakite/ads/CustomizedAdObject.hpp>
#include <tessrakite/platform/ViewController.hpp>

namespace tessrakite {

/// The full-screen screen of an app-open ad. Its view is `appOpenAdView`. Once on screen it
/// fires the creative's view tracker (cpv_t); a tap on the image or title fires the click
/// tracker (cpc_t) and opens the landing page; "Continue" dismisses it and then calls
/// `didDismissAd`. Main queue only.
class TESSRA_EXPORT AppOpenAdController : public platform::ViewController {
public:
    AppOpenAdController();

    std::shared_ptr<AppOpenAdView> appOpenAdView;
    std::function<void()> didDismissAd = [] {};
    std::function<void()> willPresentAd = [] {};
    std::optional<CustomizedAdObject> customizedAdObject;

    void loadView() override;
    void viewWillAppear(bool animated) override;
    void viewDidAppear(bool animated) override;

    /// The user tapped the ad: click tracker (or "No click tracker"), then the landing page
    /// (`md.url` with every "${l2}" replaced by `md.l2`).
    void didTapOpenAd();
    /// The continue button: dismisses this screen, then calls `didDismissAd`.
    void didTapContinue();
};

}  // namespace tessrakite
