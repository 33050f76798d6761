#pragma once

#include <memory>
#include <optional>
#include <string>

#include <tessrakite/Export.hpp>
#include <tessrakite/core/StorageManager.hpp>

namespace tessrakite {

/// The features a host wants. Creating one persists every switch that was given a value,
/// because the notification extensions and later launches read the switches from the
/// shared store, never from this object.
class TESSRA_EXPORT TessraConfig {
public:
    TessraConfig(std::string apiKey, std::optional<bool> crash, bool analytics, std::optional<bool> push,
                 std::optional<bool> geofence, std::optional<bool> beacon, std::optional<bool> custom,
                 std::optional<bool> location, bool schedule, bool mavo, bool consent);

    const std::string& apiKey() const { return _apiKey; }
    // An optional switch the host never set reads as false.
    bool crash() const { return _crash.value_or(false); }
    bool analytics() const { return _analytics; }
    bool push() const { return _push.value_or(false); }
    bool geofence() const { return _geofence.value_or(false); }
    bool beacon() const { return _beacon.value_or(false); }
    bool custom() const { return _custom.value_or(false); }
    bool location() const { return _location.value_or(false); }
    bool schedule() const { return schedule_; }
    bool mavo() const { return mavo_; }
    bool consent() const { return consent_; }

    /// Writes this config's switches again, as the initialiser did.
    void enableServices();
    /// Writes false for crash, analytics, push, geofence, beacon, custom and location.
    void disableServices();

    StorageManager storeManager;

private:
    void persistSwitches();

    bool schedule_;
    bool mavo_;
    bool consent_;
    std::string _apiKey;
    std::optional<bool> _crash;
    bool _analytics;
    std::optional<bool> _push;
    std::optional<bool> _geofence;
    std::optional<bool> _beacon;
    std::optional<bool> _custom;
    std::optional<bool> _location;
};

}  // namespace tessrakite
