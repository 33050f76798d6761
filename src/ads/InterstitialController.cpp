#include <tessrakite/ads/InterstitialController.hpp>

#include <tessrakite/ads/InterstitialAD.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/gif/ImageViewAnimation.hpp>
#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/Platform.hpp>
#include <tessrakite/platform/Url.hpp>

#include "AdSupport.hpp"

namespace tessrakite {

std::shared_ptr<InterstitialController> InterstitialController::create(std::shared_ptr<InterstitialAD> ad,
                                                                       std::string adId) {
    auto controller = std::make_shared<InterstitialController>(Token{}, std::move(ad), std::move(adId));
    controller->load();
    controller->build();
    return controller;
}

InterstitialController::InterstitialController(Token, std::shared_ptr<InterstitialAD> ad, std::string adId)
    : adId(std::move(adId)), interstitialAd(std::move(ad)) {
    auto device = platform::currentPlatform()->device;
    orientation = device ? device->orientation() : platform::DeviceOrientation::unknown;
    // Made now, filled when the feed answers: the screen adds it right away.
    iti = std::make_shared<ITIView>();
}

InterstitialController::~InterstitialController() {
    if (resignObserver_)
        if (auto center = platform::currentPlatform()->notificationCenter) center->removeObserver(*resignObserver_);
}

double InterstitialController::screenWidth() {
    if (!screen_) {
        const auto bounds = ads_detail::mainScreenBounds();
        screen_ = platform::Size{bounds.width, bounds.height};
    }
    return screen_->width;
}

double InterstitialController::screenHeight() {
    screenWidth();
    return screen_->height;
}

std::shared_ptr<platform::ImageView> InterstitialController::imageView() {
    if (!imageView_) {
        imageView_ = std::make_shared<platform::ImageView>();
        imageView_->frame = {0, 0, screenWidth(), screenHeight()};
        imageView_->backgroundColor = platform::Color::black();
        imageView_->isUserInteractionEnabled = true;
    }
    return imageView_;
}

std::shared_ptr<CloseButton> InterstitialController::closeButton() {
    if (!closeButton_) closeButton_ = std::make_shared<CloseButton>();
    return closeButton_;
}

void InterstitialController::load() {
    if (!ads_detail::adsEnabled()) return;
    const SizesForAdd sizes{ads_detail::wholePoints(screenWidth()), ads_detail::wholePoints(screenHeight()),
                            ads_detail::wholePoints(screenWidth()), ads_detail::wholePoints(screenHeight())};
    std::weak_ptr<InterstitialController> weakSelf = weak_from_this();
    TessraQuill::tessraRequest().loadAd(
        sizes, adId.value_or(""), [weakSelf](std::optional<MavoObject> ad, std::optional<TessraRequest::AdError>) {
            // A failure is deliberately silent: readiness is the host's business.
            if (!ad) return;
            ads_detail::fireTracker(*ad, ads_detail::AdEvent::impression);
            // The screen is only touched, and released, on the main queue.
            platform::currentPlatform()->mainQueue().async([weakSelf, ad = std::move(*ad)] {
                if (auto self = weakSelf.lock()) self->iti->fill(self->orientation, ad);
            });
        });
}

void InterstitialController::build() {
    auto root = view();
    auto image = imageView();
    root->addSubview(image);
    root->addSubview(iti);
    root->addSubview(closeButton());
    iti->frame = {0, 0, screenWidth(), screenHeight()};
    setUpCLoseButtonPosition();
    std::weak_ptr<InterstitialController> weakSelf = weak_from_this();
    auto tap = std::make_shared<platform::TapGestureRecognizer>([weakSelf] {
        if (auto self = weakSelf.lock()) self->openAd();
    });
    image->addGestureRecognizer(tap);
    if (auto center = platform::currentPlatform()->notificationCenter)
        resignObserver_ = center->addObserver(platform::AppNotification::willResignActive, [weakSelf] {
            if (auto self = weakSelf.lock()) self->willLeaveApplication();
        });
    // One recogniser belongs to one view: this moves it from the image to the content,
    // which covers the image anyway.
    iti->addGestureRecognizer(tap);
}

void InterstitialController::viewDidLoad() {
    std::weak_ptr<InterstitialController> weakSelf = weak_from_this();
    closeButton()->addAction(platform::ControlEvent::touchUpInside, [weakSelf] {
        if (auto self = weakSelf.lock()) self->closeAd();
    });
}

void InterstitialController::viewWillAppear(bool animated) {
    ViewController::viewWillAppear(animated);
    // The headless status bar has nothing to refresh; the preference is what is asked.
    statusBarHidden = true;
}

void InterstitialController::setUpCLoseButtonPosition() {
    auto button = closeButton();
    auto root = view();
    platform::LayoutConstraint::activate(
        {button->topAnchor().constraint(root->topAnchor(), 16), button->leftAnchor().constraint(root->leftAnchor(), 16)});
    button->sizeToFit();
    button->cornerRadius = 5;
}

unsigned InterstitialController::supportedInterfaceOrientations() const {
    using O = platform::DeviceOrientation;
    namespace Mask = platform::InterfaceOrientationMask;
    switch (orientation) {
        case O::portrait:
        case O::portraitUpsideDown:
            return Mask::portrait;
        case O::faceUp:
        case O::faceDown: {
            // The size is read once; a const query takes it from the screen if still unread.
            const auto size = screen_ ? *screen_ : [] {
                const auto b = ads_detail::mainScreenBounds();
                return platform::Size{b.width, b.height};
            }();
            return size.width < size.height ? Mask::portrait : Mask::landscape;
        }
        default:
            return Mask::landscape;
    }
}

InterstitialAD& InterstitialController::ad() {
    if (!interstitialAd) fatalError("InterstitialController: a callback fired with no InterstitialAD to report");
    return *interstitialAd;
}

void InterstitialController::openAd() {
    auto keep = shared_from_this();
    willPresentInterstitialCLSR(ad());
    if (auto url = Url::parse(ads_detail::adDemoPage())) platform::currentPlatform()->application->open(*url, nullptr);
    Console::print("Open Ad");
}

void InterstitialController::closeAd() {
    // The callback below makes the ad drop this screen; stay alive until the end.
    auto keep = shared_from_this();
    auto image = imageView();
    image->image = nullptr;
    gif::stopAnimating(*image);
    interstitialClosedCLSR(ad());
    Console::print("CLOSE INTERSTITIAL AD");
    dismiss(true);
}

void InterstitialController::willLeaveApplication() {
    auto keep = shared_from_this();
    willLeaveApplicationInterstitialCLSR(ad());
}

void InterstitialController::safariViewControllerDidFinish() {
    auto keep = shared_from_this();
    willDismissInterstitialCLSR(ad());
}

}  // namespace tessrakite
