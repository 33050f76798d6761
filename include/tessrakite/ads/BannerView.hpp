#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <tessrakite/Export.hpp>
#include <tessrakite/ads/MavoObject.hpp>
#include <tessrakite/core/TessraRequest.hpp>
#include <tessrakite/platform/NotificationCenter.hpp>
#include <tessrakite/platform/View.hpp>

namespace tessrakite {

class BannerView;

enum class BannerPosition { top, bottom };

/// The banner's size: every case is 320 points wide (`large` too); see
/// BannerView::bannerDimensionForPortrait for the heights.
enum class BannerSize { small, medium, large, adaptive };

/// What a banner tells its host. Called on the main queue, except the failure, which
/// arrives on the URL session's thread.
class TESSRA_EXPORT AdBannerDelegate {
public:
    virtual ~AdBannerDelegate() = default;
    virtual void adBannerDidReceiveAd(BannerView& banner) = 0;
    virtual void bannerView(BannerView& banner, const TessraRequest::AdError& didFailToReceiveAdWithError) = 0;
    virtual void adBannerWillPresentScreen(BannerView& banner) = 0;
    virtual void adBannerWillDismissScreen(BannerView& banner) = 0;
    virtual void adBannerWillLeaveApplication(BannerView& banner) = 0;
    virtual void adBannerClosed(BannerView& banner) = 0;
};

/// A strip-shaped ad the host adds to one of its screens. Create it with std::make_shared
/// (a feed request in flight holds it weakly) and add it to a view before it is laid out:
/// it centres itself horizontally on its parent's safe-area bottom, and a banner laid out
/// without a parent is a fatal stop. Main queue only.
///
///   auto banner = std::make_shared<BannerView>(BannerSize::small, "Mobile_Banner", true, delegate);
///   screen->view()->addSubview(banner);
///   banner->loadAd();
class TESSRA_EXPORT BannerView : public platform::View, public std::enable_shared_from_this<BannerView> {
public:
    /// Sizes the banner from `size` (see bannerDimensionForPortrait).
    BannerView(BannerSize size, std::string adId, bool showCloseIcon, std::weak_ptr<AdBannerDelegate> delegate);
    /// A banner with no size, ad id or delegate yet.
    explicit BannerView(platform::Rect frame);
    ~BannerView() override;

    /// Fetches one ad and shows it; a visible banner ignores it. Nothing at all unless the
    /// SDK is initialised with `mavo` on.
    void loadAd();
    /// Tells the delegate, hides the banner and clears its image.
    void closeAd();
    /// The tap: the click tracker, then the ad's landing page.
    void didTapBanner();
    /// The in-app browser the landing page opened in has finished.
    void safariViewControllerDidFinish();

    /// The size in points for `size`: 320 wide; 50, 100 or 250 high, or for `adaptive` 32,
    /// 50 or 90 by the screen height (below 700, below 900, else), which is also kept in
    /// heightForAdaptiveBanner.
    platform::Size bannerDimensionForPortrait(BannerSize size);

    /// The main screen's size, read once, at first use.
    double screenWidth();
    double screenHeight();

    /// Held weakly; read on the URL session's thread too.
    std::shared_ptr<AdBannerDelegate> delegate() const;
    void setDelegate(std::weak_ptr<AdBannerDelegate> delegate);

    void layoutSubviews() override;

    BannerPosition position = BannerPosition::bottom;
    std::shared_ptr<platform::ImageView> imageView = std::make_shared<platform::ImageView>();
    std::shared_ptr<platform::Button> closeButton = std::make_shared<platform::Button>();
    double heightForAdaptiveBanner = 0;
    std::string urlToGo;  // carried for the host; a tap opens the ad's own URL
    std::optional<BannerSize> bannerSize;
    std::string bannerID;
    std::optional<MavoObject> bannedObject;
    platform::Size bannerCGSize;
    std::string adId;
    bool showCloseIcon = false;

private:
    void observe();
    void willResignActive();
    void updateLayout();
    void setupUI();
    void show(const MavoObject& ad);

    mutable std::mutex mutex_;  // guards delegate_
    std::weak_ptr<AdBannerDelegate> delegate_;
    std::optional<double> screenWidth_, screenHeight_;
    std::vector<platform::LayoutConstraint> ownConstraints_;
    std::vector<platform::LayoutConstraint> childConstraints_;
    std::weak_ptr<platform::NotificationCenter> center_;
    std::optional<platform::NotificationCenter::ObserverToken> resignObserver_, orientationObserver_;
};

}  // namespace tessrakite
