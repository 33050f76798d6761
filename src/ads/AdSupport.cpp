#include "AdSupport.hpp"

#include <cmath>
#include <cstdlib>
#include <variant>

#include <tessrakite/BuildConfig.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/core/TessraRequest.hpp>
#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/Platform.hpp>

namespace tessrakite::ads_detail {

bool adsEnabled() {
    if (!TessraQuill::initialized()) return false;
    auto config = TessraQuill::config();
    return config && config->mavo();
}

std::string describe(const TessraRequest::AdError& error) {
    if (const auto* url = std::get_if<platform::UrlError>(&error)) return url->localizedDescription();
    return std::get<DecodingError>(error).description();
}

std::int64_t wholePoints(double value) {
    if (!std::isfinite(value)) fatalError("Double value cannot be converted to Int because it is either infinite or NaN");
    if (value >= 9223372036854775808.0 || value < -9223372036854775808.0)
        fatalError("Double value cannot be converted to Int because the result would be out of range");
    return static_cast<std::int64_t>(value);
}

platform::Rect mainScreenBounds() {
    auto screen = platform::currentPlatform()->screen;
    return screen ? screen->bounds() : platform::Rect{};
}

const Md* firstMd(const MavoObject& ad) {
    if (!ad.items || ad.items->empty() || !ad.items->front().md) return nullptr;
    return &*ad.items->front().md;
}

std::optional<std::string> trackerFor(const MavoObject& ad, AdEvent event) {
    const Md* md = firstMd(ad);
    if (!md) return std::nullopt;
    const auto& list = event == AdEvent::impression ? md->cpmT : event == AdEvent::view ? md->cpvT : md->cpcT;
    if (!list || list->empty()) return std::nullopt;
    return list->front();
}

void fireTracker(const MavoObject& ad, AdEvent event, TessraRequest::TrackerCompletion completion) {
    const Md* md = firstMd(ad);
    if (!completion) completion = [](bool, std::optional<platform::UrlError>) {};
    TessraQuill::tessraRequest().sendTracker(trackerFor(ad, event), md ? md->l2 : std::nullopt, std::move(completion));
}

std::string adDemoPage() {
    const char* value = std::getenv("TESSRA_AD_DEMO_PAGE");
    return value && *value ? std::string(value) : std::string(TESSRA_DEFAULT_AD_DEMO_PAGE);
}

}  // namespace tessrakite::ads_detail
