#pragma once

#include <optional>
#include <string>

#include <tessrakite/ads/MavoObject.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/core/TessraRequest.hpp>

namespace tessrakite::ads {

/// Ads load only after start-up finished with a config that asks for them.
inline bool adsEnabled() {
    if (!TessraQuill::initialized()) return false;
    auto config = TessraQuill::config();
    return config && config->mavo();
}

/// Which of the creative's tracker lists an event fires.
enum class AdEvent { impression, view, click };

/// Fires the first URL of the event's tracker list with the creative's `l2` as suffix;
/// without items, `md` or that list, nothing is sent and `completion` never runs.
inline void sendAdTracker(const std::optional<MavoObject>& ad, AdEvent event,
                          TessraRequest::TrackerCompletion completion = nullptr) {
    std::optional<std::string> tracker, suffix;
    if (ad && ad->items && !ad->items->empty() && ad->items->front().md) {
        const Md& md = *ad->items->front().md;
        const auto& list = event == AdEvent::impression ? md.cpmT : event == AdEvent::view ? md.cpvT : md.cpcT;
        if (list && !list->empty()) tracker = list->front();
        suffix = md.l2;
    }
    if (!completion) completion = [](bool, std::optional<platform::UrlError>) {};
    TessraQuill::tessraRequest().sendTracker(tracker, suffix, std::move(completion));
}

}  // namespace tessrakite::ads
