#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <tessrakite/Export.hpp>
#include <tessrakite/ads/CloseButton.hpp>
#include <tessrakite/ads/ITIView.hpp>
#include <tessrakite/core/TessraRequest.hpp>
#include <tessrakite/platform/NotificationCenter.hpp>
#include <tessrakite/platform/ViewController.hpp>

namespace tessrakite {

class InterstitialAD;

/// The interstitial's full-screen screen. It asks the feed for its ad as soon as it is
/// made; the host decides when it is ready (`isReady`). Main queue only.
class TESSRA_EXPORT InterstitialController : public platform::ViewController,
                                             public std::enable_shared_from_this<InterstitialController> {
public:
    using Callback = std::function<void(InterstitialAD&)>;
    using FailureCallback = std::function<void(InterstitialAD&, const std::optional<TessraRequest::AdError>&)>;

    /// Makes the screen, starts the feed request (when ads are on) and builds the views.
    static std::shared_ptr<InterstitialController> create(std::shared_ptr<InterstitialAD> ad, std::string adId);
    ~InterstitialController() override;

    Callback didReceiveInterstitialCLSR = [](InterstitialAD&) {};
    FailureCallback interstitialFailedCLSR = [](InterstitialAD&, const std::optional<TessraRequest::AdError>&) {};
    Callback willPresentInterstitialCLSR = [](InterstitialAD&) {};
    Callback willDismissInterstitialCLSR = [](InterstitialAD&) {};
    Callback willLeaveApplicationInterstitialCLSR = [](InterstitialAD&) {};
    Callback interstitialClosedCLSR = [](InterstitialAD&) {};

    platform::DeviceOrientation orientation = platform::DeviceOrientation::unknown;  // at creation
    std::optional<std::string> adId;
    bool isReady = false;  // set by the host; showAd() presents only when true
    /// Made empty at creation and filled when the feed answers.
    std::shared_ptr<ITIView> iti;
    /// Strong on purpose: the ad lives while its screen does.
    std::shared_ptr<InterstitialAD> interstitialAd;
    bool statusBarHidden = true;

    /// Full screen, black, takes touches. Made on first use.
    std::shared_ptr<platform::ImageView> imageView();
    /// Made on first use.
    std::shared_ptr<CloseButton> closeButton();
    /// The main screen's bounds, read once on first use.
    double screenWidth();
    double screenHeight();

    /// Portrait for a portrait orientation at creation; for face up or down, portrait when
    /// the screen is narrower than tall; landscape otherwise.
    unsigned supportedInterfaceOrientations() const override;
    bool prefersStatusBarHidden() const override { return statusBarHidden; }
    void viewDidLoad() override;
    void viewWillAppear(bool animated) override;

    // ---- Actions ----
    /// A tap: tells the host, opens the demo page (not the ad's own URL, no click tracker).
    void openAd();
    /// The close button: stops the image, tells the host, prints, dismisses.
    void closeAd();
    /// The application will resign active.
    void willLeaveApplication();
    /// The in-app browser finished.
    void safariViewControllerDidFinish();

    /// Pins the close button 16 points from the top left.
    void setUpCLoseButtonPosition();

    struct Token {};
    InterstitialController(Token, std::shared_ptr<InterstitialAD> ad, std::string adId);

private:
    void load();
    void build();
    InterstitialAD& ad();
    std::optional<platform::Size> screen_;
    std::shared_ptr<platform::ImageView> imageView_;
    std::shared_ptr<CloseButton> closeButton_;
    std::optional<platform::NotificationCenter::ObserverToken> resignObserver_;
};

}  // namespace tessrakite
