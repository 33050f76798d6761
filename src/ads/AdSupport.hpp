#pragma once

#include <cstdint>
#include <string>

#include <tessrakite/ads/MavoObject.hpp>
#include <tessrakite/platform/Device.hpp>

// What every feed-based ad format shares: the gate, the screen in whole points, and the
// tracker each event fires.
namespace tessrakite::ads {

/// Ads load only after start-up finished with a config that asks for them.
bool adsEnabled();

/// A screen size in whole points, converted as a checked conversion does: a size that has
/// no Int64 value is a fatal stop, not a wrapped number in the feed URL.
std::int64_t wholePoints(double value);

/// The main screen's bounds; empty when the platform has no screen.
platform::Rect mainScreenBounds();

enum class TrackerEvent { impression, view, click };

/// Fires the first URL of the event's tracker list of the first item's `md`, with its `l2`
/// as the suffix; sends nothing when the ad has no such tracker. The result is ignored.
void fireTracker(const MavoObject& ad, TrackerEvent event);

/// The fixed demo page a tap on a full-screen ad opens: TESSRA_AD_DEMO_PAGE from the
/// environment when set and not empty, else the value fixed at build time.
std::string adDemoPage();

}  // namespace tessrakite::ads
