#pragma once

#include <memory>
#include <optional>
#include <string>

#include <tessrakite/Export.hpp>
#include <tessrakite/core/TessraConfig.hpp>

namespace tessrakite {

/// Fluent builder of a TessraConfig:
///   auto config = TessraBuilder(std::nullopt).push().crash().analytics(true).build();
class TESSRA_EXPORT TessraBuilder {
public:
    /// With no key, reads "TessraQuillApiKey" from the main bundle's Info.plist; a missing
    /// or non-string entry is a fatal stop.
    explicit TessraBuilder(std::optional<std::string> apiKey);
    TessraBuilder();

    TessraBuilder& crash();
    TessraBuilder& push();
    TessraBuilder& mavo();
    TessraBuilder& customNotificationHandling();
    TessraBuilder& custom() { return customNotificationHandling(); }
    TessraBuilder& analytics(bool enabled);
    TessraBuilder& geofence(bool enabled);
    TessraBuilder& beacon(bool enabled);
    TessraBuilder& locationTracking(bool enabled);
    /// Turns reminders on and stores the interval under "tx_sch_int" at once.
    TessraBuilder& scheduleNotifications(double interval);

    std::shared_ptr<TessraConfig> build();

private:
    std::string _apiKey;
    std::optional<bool> _crash;
    bool _analytics = true;
    std::optional<bool> _push;
    std::optional<bool> _geofence;
    std::optional<bool> _beacon;
    std::optional<bool> _custom;
    std::optional<bool> _location;
    bool _schedulerEnabled = false;
    bool _mavo = false;
    bool _consent = false;
};

}  // namespace tessrakite
