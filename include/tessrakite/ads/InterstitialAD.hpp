#pragma once

#include <memory>
#include <string>

#include <tessrakite/Export.hpp>
#include <tessrakite/ads/InterstitialController.hpp>
#include <tessrakite/ads/InterstitialDelegate.hpp>

namespace tessrakite {

/// A full-screen ad. It loads as soon as it is created; the host sets the screen's
/// `isReady` and then calls showAd(). Main queue only.
///
///   auto ad = InterstitialAD::create("Mobile_Interstitial");
///   ad->setInterstitialDelegate(myDelegate);
///   ...
///   ad->interstitialController->isReady = true;
///   ad->showAd();
///
/// The ad and its screen hold each other until the screen is closed or its browser
/// finishes; then the ad drops the screen, and a new InterstitialAD is needed.
class TESSRA_EXPORT InterstitialAD : public std::enable_shared_from_this<InterstitialAD> {
public:
    static std::shared_ptr<InterstitialAD> create(std::string adId);
    /// Prints "DEINITED " and the description.
    ~InterstitialAD();
    InterstitialAD(const InterstitialAD&) = delete;
    InterstitialAD& operator=(const InterstitialAD&) = delete;

    /// Presents the screen over the key window's root screen, over full screen, when there
    /// is one and it is ready; otherwise nothing.
    void showAd();

    std::shared_ptr<InterstitialDelegate> interstitialDelegate() const { return interstitialDelegate_.lock(); }
    void setInterstitialDelegate(std::weak_ptr<InterstitialDelegate> delegate) {
        interstitialDelegate_ = std::move(delegate);
    }

    /// "<InterstitialAD: 0xADDR>".
    std::string description() const;

    std::shared_ptr<InterstitialController> interstitialController;
    std::string adId;

    struct Token {};
    InterstitialAD(Token, std::string adId);

private:
    std::weak_ptr<InterstitialDelegate> interstitialDelegate_;
};

}  // namespace tessrakite
