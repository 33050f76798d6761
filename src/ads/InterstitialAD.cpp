#include <tessrakite/ads/InterstitialAD.hpp>

#include <cstdio>

#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/Platform.hpp>
#include <tessrakite/platform/Window.hpp>

namespace tessrakite {

std::shared_ptr<InterstitialAD> InterstitialAD::create(std::string adId) {
    auto ad = std::make_shared<InterstitialAD>(Token{}, adId);
    auto controller = InterstitialController::create(ad, std::move(adId));
    ad->interstitialController = controller;
    std::weak_ptr<InterstitialAD> weakAd = ad;
    // Each callback reaches the delegate only while both the ad and the delegate exist; a
    // screen that is going away is dropped even when nobody listens.
    auto forward = [weakAd](void (InterstitialDelegate::*call)(InterstitialAD&), bool dropsScreen) {
        return [weakAd, call, dropsScreen](InterstitialAD&) {
            auto self = weakAd.lock();
            if (!self) return;
            if (auto delegate = self->interstitialDelegate()) ((*delegate).*call)(*self);
            if (dropsScreen) self->interstitialController.reset();
        };
    };
    controller->didReceiveInterstitialCLSR = forward(&InterstitialDelegate::interstitialDidReceiveAd, false);
    controller->interstitialFailedCLSR = [weakAd](InterstitialAD&, const std::optional<TessraRequest::AdError>& error) {
        auto self = weakAd.lock();
        if (!self) return;
        auto delegate = self->interstitialDelegate();
        if (!delegate) return;
        if (!error) fatalError("InterstitialAD: a failure was reported without an error");
        delegate->interstitialView(*self, *error);
    };
    controller->willPresentInterstitialCLSR = forward(&InterstitialDelegate::interstitialWillPresentScreen, false);
    controller->willDismissInterstitialCLSR = forward(&InterstitialDelegate::interstitialWillDismissScreen, true);
    controller->willLeaveApplicationInterstitialCLSR =
        forward(&InterstitialDelegate::interstitialWillLeaveApplication, false);
    controller->interstitialClosedCLSR = forward(&InterstitialDelegate::interstitialClosed, true);
    return ad;
}

InterstitialAD::InterstitialAD(Token, std::string adId) : adId(std::move(adId)) {}

InterstitialAD::~InterstitialAD() { Console::print("DEINITED " + description()); }

std::string InterstitialAD::description() const {
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
    return std::string("<InterstitialAD: ") + address + ">";
}

void InterstitialAD::showAd() {
    if (!interstitialController || !interstitialController->isReady) return;
    auto window = platform::currentPlatform()->keyWindow;
    if (!window) fatalError("InterstitialAD.showAd: the application has no key window");
    auto root = window->rootViewController();
    if (!root) fatalError("InterstitialAD.showAd: the key window has no root view controller");
    interstitialController->modalPresentationStyle = platform::ModalPresentationStyle::overFullScreen;
    root->present(interstitialController, true);
}

}  // namespace tessrakite
