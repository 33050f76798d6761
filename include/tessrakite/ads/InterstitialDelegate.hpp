#pragma once

#include <tessrakite/Export.hpp>
#include <tessrakite/core/TessraRequest.hpp>

namespace tessrakite {

class InterstitialAD;

/// Hears what happens to an InterstitialAD. Held weakly: keep it alive. Called on the main queue.
class TESSRA_EXPORT InterstitialDelegate {
public:
    virtual ~InterstitialDelegate() = default;
    virtual void interstitialDidReceiveAd(InterstitialAD& ad) { (void)ad; }
    virtual void interstitialView(InterstitialAD& ad, const TessraRequest::AdError& didFailToReceiveAdWithError) {
        (void)ad;
        (void)didFailToReceiveAdWithError;
    }
    /// The user tapped the ad; the demo page is being opened.
    virtual void interstitialWillPresentScreen(InterstitialAD& ad) { (void)ad; }
    /// The in-app browser finished; the ad has dropped its screen.
    virtual void interstitialWillDismissScreen(InterstitialAD& ad) { (void)ad; }
    /// The application is about to resign active while the screen exists.
    virtual void interstitialWillLeaveApplication(InterstitialAD& ad) { (void)ad; }
    /// The close button was pressed; the ad has dropped its screen, which is dismissed next.
    virtual void interstitialClosed(InterstitialAD& ad) { (void)ad; }
};

}  // namespace tessrakite
