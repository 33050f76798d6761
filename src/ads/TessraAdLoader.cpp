#include <tessrakite/ads/TessraAdLoader.hpp>

#include <exception>
#include <string>

#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/Platform.hpp>

#include "AdSupport.hpp"

namespace tessrakite {

namespace {

// The native loader always asks the feed for this ad identifier.
constexpr const char* kNativeAdId = "Mobile_Banner";

using ads::adsEnabled;
using ads::mainScreenBounds;
using ads::wholePoints;

}  // namespace

TessraAdLoader::TessraAdLoader(std::shared_ptr<platform::ViewController> rootVC, NativeAdSize nativeSize)
    : rootViewController(std::move(rootVC)) {
    // Every size loads a full-screen ad: the argument deliberately changes nothing.
    (void)nativeSize;
    const auto bounds = mainScreenBounds();
    adWidth = wholePoints(bounds.width);
    adHeight = wholePoints(bounds.height);
}

std::shared_ptr<TessraAdLoaderDelegate> TessraAdLoader::delegate() const {
    std::lock_guard lock(mutex_);
    return delegate_.lock();
}

void TessraAdLoader::setDelegate(std::weak_ptr<TessraAdLoaderDelegate> delegate) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
}

void TessraAdLoader::loadAd(TessraRequest::AdCompletion completion) {
    try {
        if (!adsEnabled()) return;
        std::weak_ptr<TessraAdLoader> weakSelf = weak_from_this();
        if (weakSelf.expired()) {
            Console::print("TessraAdLoader: create the loader with std::make_shared; this one cannot receive ads");
            return;
        }
        const auto bounds = mainScreenBounds();
        const SizesForAdd sizes{wholePoints(bounds.width), wholePoints(bounds.height), adWidth, adHeight};
        TessraQuill::tessraRequest().loadAd(
            sizes, kNativeAdId,
            [weakSelf, completion](std::optional<MavoObject> ad, std::optional<TessraRequest::AdError> error) {
                auto self = weakSelf.lock();
                if (!self) return;
                if (error || !ad) {
                    if (auto delegate = self->delegate()) delegate->adLoader(*self, "Error");
                    return;
                }
                platform::currentPlatform()->mainQueue().async([self, completion, ad = std::move(*ad)] {
                    if (auto delegate = self->delegate()) delegate->adLoaderDidFinishLoading(*self, ad);
                    ads::fireTracker(ad, ads::TrackerEvent::impression);
                    if (completion) completion(ad, std::nullopt);
                });
            });
    } catch (const std::exception& e) {
        Console::print(std::string("TessraAdLoader: loadAd failed: ") + e.what());
    }
}

}  // namespace tessrakite
