#include "AdSupport.hpp"

#include <cmath>
#include <cstdlib>
#include <optional>

#include <tessrakite/BuildConfig.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/core/TessraRequest.hpp>
#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/Platform.hpp>

namespace tessrakite::ads {

bool adsEnabled() {
    if (!TessraQuill::initialized()) return false;
    auto config = TessraQuill::config();
    return config && config->mavo();
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

void fireTracker(const MavoObject& ad, TrackerEvent event) {
    std::optional<std::string> tracker, suffix;
    if (ad.items && !ad.items->empty() && ad.items->front().md) {
        const Md& md = *ad.items->front().md;
        const auto& list = event == TrackerEvent::impression ? md.cpmT : event == TrackerEvent::view ? md.cpvT : md.cpcT;
        if (list && !list->empty()) tracker = list->front();
        suffix = md.l2;
    }
    TessraQuill::tessraRequest().sendTracker(tracker, suffix, [](bool, std::optional<platform::UrlError>) {});
}

std::string adDemoPage() {
    const char* value = std::getenv("TESSRA_AD_DEMO_PAGE");
    return value && *value ? std::string(value) : std::string(TESSRA_DEFAULT_AD_DEMO_PAGE);
}

}  // namespace tessrakite::ads
