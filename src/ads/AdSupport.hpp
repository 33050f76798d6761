#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <tessrakite/ads/MavoObject.hpp>
#include <tessrakite/core/TessraRequest.hpp>
#include <tessrakite/platform/Device.hpp>

// What every feed-based ad format shares: the feature gate, the screen size in whole
// points, and the choice of tracker by event.
namespace tessrakite::ads_detail {

/// Ads load only after start-up finished with a config that asks for them.
bool adsEnabled();

/// A screen size as a checked conversion gives it: a size with no Int64 value is a fatal
/// stop, not a wrapped number in the feed URL.
std::int64_t wholePoints(double value);

/// The main screen's bounds now (empty when the platform has no screen).
platform::Rect mainScreenBounds();

/// An ad request's error as the console shows it.
std::string describe(const TessraRequest::AdError& error);

enum class AdEvent { impression, view, click };

/// The first `md` of the first item, when there is one.
const Md* firstMd(const MavoObject& ad);

/// The first URL of the event's tracker list (cpm_t, cpv_t, cpc_t) of the first item's
/// `md`; nothing when any step is missing.
std::optional<std::string> trackerFor(const MavoObject& ad, AdEvent event);

/// Fires the event's tracker with `md.l2` as the suffix; its result goes to `completion`
/// (ignored when none). Sends nothing, and never calls `completion`, when there is no
/// tracker or no suffix.
void fireTracker(const MavoObject& ad, AdEvent event, TessraRequest::TrackerCompletion completion = nullptr);

/// The fixed demo page a tap on a full-screen ad opens: TESSRA_AD_DEMO_PAGE from the
/// environment when set and not empty, else the value fixed at build time.
std::string adDemoPage();

}  // namespace tessrakite::ads_detail
