#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <tessrakite/Export.hpp>
#include <tessrakite/location/Beacons.hpp>
#include <tessrakite/platform/LocationManager.hpp>

namespace tessrakite {

/// Watches the two fixed beacon regions ("iBKS105-61", "iBKS105-94"): a local notification
/// on entry, exit and a region found inside, and a per-UUID suppression table in the shared
/// store ("tx_beacon_interval"). Region events arrive on the thread that created it.
/// Releasing it prints its description followed by " DEINITED".
class TESSRA_EXPORT TessraBeaconManager {
public:
    /// Makes the platform's location manager, asks for "always" authorisation, then
    /// monitors, ranges and asks the state of each fixed region in turn.
    TessraBeaconManager();
    ~TessraBeaconManager();
    TessraBeaconManager(const TessraBeaconManager&) = delete;
    TessraBeaconManager& operator=(const TessraBeaconManager&) = delete;

    /// Posts a notification titled "Beacon" with `message` as its body, one second later,
    /// under "notification.id." followed by this manager's counter (from 1).
    void gimmePush(const std::string& message);
    /// Suppresses `uuid` for five seconds from now and stores the whole table.
    void beaconDictHelper(const std::string& uuid);
    /// The number the next notification gets.
    std::int64_t notifCounter() const;
    /// "<TessraBeaconManager: 0xADDR>".
    std::string description() const;

    std::shared_ptr<platform::LocationManager> locationManager;
    // Kept for the host's sake; the manager itself never fills them.
    std::vector<platform::CLBeacon> beaconsInPreviousCallback;
    std::optional<Beacons> beaconsObjects;

    struct Core;

private:
    void startTrackingBeaconRegion();

    // The delegate state: the location manager holds it weakly, and an event already on
    // its way keeps it alive while it runs, even if this object goes meanwhile.
    std::shared_ptr<Core> core_;
};

}  // namespace tessrakite
