#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include <tessrakite/Export.hpp>
#include <tessrakite/ads/MavoObject.hpp>
#include <tessrakite/ads/NativeAdSize.hpp>
#include <tessrakite/ads/TessraAdLoaderDelegate.hpp>
#include <tessrakite/core/TessraRequest.hpp>
#include <tessrakite/platform/ViewController.hpp>

namespace tessrakite {

/// Fetches a native ad from the ad feed. Create it with std::make_shared: a request in
/// flight holds the loader weakly, and drops its result when the loader is gone.
///
///   auto loader = std::make_shared<TessraAdLoader>(screen, NativeAdSize::medium);
///   loader->setDelegate(myDelegate);
///   loader->loadAd([](std::optional<MavoObject> ad, std::optional<TessraRequest::AdError>) { ... });
class TESSRA_EXPORT TessraAdLoader : public std::enable_shared_from_this<TessraAdLoader> {
public:
    /// The ad size is the main screen's size whatever `nativeSize` says.
    TessraAdLoader(std::shared_ptr<platform::ViewController> rootVC, NativeAdSize nativeSize);

    /// Asks the feed for an ad (nothing at all unless the SDK is initialised and its config
    /// has `mavo` on). A failure reaches only the delegate; on success the delegate hears
    /// first, then the impression tracker fires, then `completion` runs, on the main queue.
    void loadAd(TessraRequest::AdCompletion completion);

    std::shared_ptr<TessraAdLoaderDelegate> delegate() const;
    void setDelegate(std::weak_ptr<TessraAdLoaderDelegate> delegate);

    std::shared_ptr<platform::ViewController> rootViewController;  // the screen the host shows the ad on
    std::int64_t adWidth = 0;
    std::int64_t adHeight = 0;

private:
    mutable std::mutex mutex_;  // the delegate is read on the URL session's thread
    std::weak_ptr<TessraAdLoaderDelegate> delegate_;
};

}  // namespace tessrakite
