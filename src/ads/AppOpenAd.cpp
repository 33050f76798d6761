#include <tessrakite/ads/AppOpenAd.hpp>

#include <exception>
#include <utility>
#include <variant>

#include <tessrakite/core/StorageKey.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/core/TessraRequest.hpp>
#include <tessrakite/gif/GifDecoder.hpp>
#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/Platform.hpp>

#include "AdSupport.hpp"

namespace tessrakite {

namespace {

using ads_detail::AdEvent;

// As the feed request: one shared session, a bounded wait per request.
constexpr double kImageTimeoutSeconds = 10;

// A still JPEG or PNG, or the first frame of a GIF creative.
std::shared_ptr<platform::Image> decodeCreative(const Data& bytes) {
    if (auto image = platform::Image::decode(bytes)) return image;
    auto gif = GifDecoder::open(std::make_shared<const Data>(bytes));
    if (!gif) return nullptr;
    auto frame = gif->next();
    return frame ? frame->image : nullptr;
}

using ImageCompletion = std::function<void(std::shared_ptr<platform::Image>, std::string error)>;

// Fetches and decodes the creative; `done` runs on the main queue.
void downloadImage(const std::optional<std::string>& address, ImageCompletion done) {
    auto platform = platform::currentPlatform();
    auto onMain = [platform, done](std::shared_ptr<platform::Image> image, std::string error) {
        platform->mainQueue().async([done, image = std::move(image), error = std::move(error)] { done(image, error); });
    };
    auto url = address ? Url::parse(*address) : std::nullopt;
    if (!url) return onMain(nullptr, address ? "not a URL: " + *address : std::string("the ad has no image"));
    platform::UrlRequest request(*url);
    request.timeoutInterval = kImageTimeoutSeconds;
    platform->urlSession->dataTask(std::move(request), [platform, onMain](const platform::UrlResult& result) {
        if (result.error) return onMain(nullptr, result.error->localizedDescription());
        const long status = result.response ? result.response->statusCode : 0;
        if (status != 200 || !result.data || result.data->empty())
            return onMain(nullptr, "HTTP status " + std::to_string(status) + " without an image");
        // Decoding takes milliseconds: not on the session's one thread.
        platform->utilityQueue->async([data = *result.data, onMain] {
            auto image = decodeCreative(data);
            onMain(image, image ? std::string() : std::string("the bytes are not a JPEG, PNG or GIF image"));
        });
    });
}

}  // namespace

void AppOpenAd::loadAppOpenAd(const std::string& placementId_) {
    try {
        placementId = placementId_;
        if (isLoading) return;
        if (!ads_detail::adsEnabled()) return;
        std::weak_ptr<AppOpenAd> weakSelf = weak_from_this();
        if (weakSelf.expired()) {
            Console::print("AppOpenAd: create the ad with std::make_shared; this one cannot receive ads");
            return;
        }
        isLoading = true;
        if (auto listener = delegate.lock()) listener->addWillPresentFullScreenContent();
        const auto bounds = ads_detail::mainScreenBounds();
        const auto width = ads_detail::wholePoints(bounds.width);
        const auto height = ads_detail::wholePoints(bounds.height);
        TessraQuill::tessraRequest().loadAd(
            {width, height, width, height}, placementId,
            [weakSelf](std::optional<MavoObject> ad, std::optional<TessraRequest::AdError> error) {
                // Every field of the ad belongs to the main queue.
                std::optional<std::string> why;
                if (error) why = ads_detail::describe(*error);
                platform::currentPlatform()->mainQueue().async(
                    [weakSelf, ad = std::move(ad), why = std::move(why)]() mutable {
                        if (auto self = weakSelf.lock()) self->onFeedAnswer(std::move(ad), std::move(why));
                    });
            });
    } catch (const std::exception& e) {
        Console::print(std::string("AppOpenAd: loadAppOpenAd failed: ") + e.what());
    }
}

void AppOpenAd::onFeedAnswer(std::optional<MavoObject> ad, std::optional<std::string> error) {
    if (error || !ad) {
        Console::print("AppOpenAd: no ad: " + error.value_or("the feed sent no record"));
        isLoading = false;
        isObjetReady = false;
        return;
    }
    mavoObject = std::move(ad);
    ads_detail::fireTracker(*mavoObject, AdEvent::impression);
    const Md* md = ads_detail::firstMd(*mavoObject);
    std::weak_ptr<AppOpenAd> weakSelf = weak_from_this();
    downloadImage(md ? md->img : std::nullopt, [weakSelf](std::shared_ptr<platform::Image> image, std::string why) {
        if (auto self = weakSelf.lock()) self->onImage(std::move(image), why);
    });
}

void AppOpenAd::onImage(std::shared_ptr<platform::Image> image, const std::string& error) {
    isLoading = false;
    if (!image) {
        Console::print("AppOpenAd: the ad's image could not be loaded: " + error);
        isObjetReady = false;
        if (auto listener = delegate.lock()) listener->didFailToLoadAd();
        return;
    }
    isObjetReady = true;
    mavoImage = std::move(image);
    try {
        // StorageManager::set synchronises the store at once.
        TessraQuill::storageManager().set(StorageKey::appOpenSavedAt,
                                          PlistValue(platform::currentPlatform()->clock->now()));
    } catch (const std::exception& e) {
        Console::print(std::string("AppOpenAd: the load time could not be saved: ") + e.what());
    }
}

std::optional<CustomizedAdObject> AppOpenAd::checkForAd() const {
    if (!isObjetReady) return std::nullopt;
    try {
        const double saved = TessraQuill::storageManager().getLastAppOpedAdSavedTime();
        if (platform::currentPlatform()->clock->now() - saved <= kMaxAgeSeconds)
            return CustomizedAdObject{mavoImage, mavoObject};
    } catch (const std::exception& e) {
        Console::print(std::string("AppOpenAd: checkForAd failed: ") + e.what());
    }
    return std::nullopt;
}

void AppOpenAd::tryDisplayAd(const std::shared_ptr<platform::ViewController>& from) {
    if (isPresented) return;
    if (auto ad = checkForAd()) {
        if (!from) {
            Console::print("AppOpenAd: tryDisplayAd needs a screen to present from");
            return;
        }
        auto controller = std::make_shared<AppOpenAdController>();
        controller->customizedAdObject = std::move(ad);
        // The ad owns its controller: the callbacks hold the ad weakly, or neither would
        // ever be released while the ad screen is up.
        std::weak_ptr<AppOpenAd> weakSelf = weak_from_this();
        controller->willPresentAd = [weakSelf] {
            if (auto self = weakSelf.lock())
                if (auto listener = self->delegate.lock()) listener->addWillPresentFullScreenContent();
        };
        controller->didDismissAd = [weakSelf] {
            if (auto self = weakSelf.lock()) self->onDismissed();
        };
        appOpenController = controller;
        from->present(controller, true);
        // A screen that cannot present says why on the console; the ad stays ready.
        if (from->presentedViewController() == controller) {
            isPresented = true;
        } else {
            appOpenController.reset();
        }
        return;
    }
    if (!isLoading) loadAppOpenAd(placementId);
}

void AppOpenAd::onDismissed() {
    if (auto listener = delegate.lock()) listener->adDidDismissFullScreenContent();
    // The controller is still unwinding the call that got here: release it afterwards.
    platform::currentPlatform()->mainQueue().async([controller = std::move(appOpenController)] {});
    appOpenController.reset();
    mavoImage.reset();
    mavoObject.reset();
    loadAppOpenAd(placementId);
    isPresented = false;
    isObjetReady = false;
}

}  // namespace tessrakite
