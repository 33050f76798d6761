#pragma once

#include <string>

#include <tessrakite/Export.hpp>
#include <tessrakite/ads/MavoObject.hpp>

namespace tessrakite {

class TessraAdLoader;

/// Hears how a TessraAdLoader's request ended. Held weakly: keep it alive.
class TESSRA_EXPORT TessraAdLoaderDelegate {
public:
    virtual ~TessraAdLoaderDelegate() = default;
    /// No ad; the text is always "Error". Called on the URL session's thread.
    virtual void adLoader(TessraAdLoader& loader, const std::string& didFailToReceiveAdWithError) {
        (void)loader;
        (void)didFailToReceiveAdWithError;
    }
    /// An ad arrived. Called on the main queue.
    virtual void adLoaderDidFinishLoading(TessraAdLoader& loader, const MavoObject& didReceive) {
        (void)loader;
        (void)didReceive;
    }
};

}  // namespace tessrakite
