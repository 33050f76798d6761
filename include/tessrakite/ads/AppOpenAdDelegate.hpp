#pragma once

#include <tessrakite/Export.hpp>

namespace tessrakite {

/// Hears what an AppOpenAd does. Held weakly: keep it alive. Called on the main queue.
class TESSRA_EXPORT AppOpenAdDelegate {
public:
    virtual ~AppOpenAdDelegate() = default;
    /// The creative's image could not be fetched; no ad is ready.
    virtual void didFailToLoadAd() {}
    /// At the start of every load and as the ad screen is about to show.
    virtual void addWillPresentFullScreenContent() {}
    /// The ad screen was closed; the next ad is already loading.
    virtual void adDidDismissFullScreenContent() {}
};

}  // namespace tessrakite
