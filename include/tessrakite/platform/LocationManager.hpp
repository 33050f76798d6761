#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tessrakite/Export.hpp>

namespace tessrakite::platform {

/// A 128-bit UUID, as beacons advertise it.
class TESSRA_EXPORT UUID {
public:
    /// The canonical form only: 8-4-4-4-12 hexadecimal digits, either case. Nothing for
    /// anything else.
    static std::optional<UUID> parse(std::string_view text);
    /// Upper-case canonical form ("00000000-0000-0000-0000-000000000330").
    std::string uuidString() const;
    friend bool operator==(const UUID&, const UUID&) = default;

private:
    std::array<std::uint8_t, 16> bytes_{};
};

/// A monitored region, known by its identifier. The plain type stands for any region that
/// is not a beacon region (a geofence).
class TESSRA_EXPORT CLRegion {
public:
    explicit CLRegion(std::string identifier) : identifier_(std::move(identifier)) {}
    virtual ~CLRegion() = default;
    const std::string& identifier() const { return identifier_; }

private:
    std::string identifier_;
};

/// The beacons of one proximity UUID (any major and minor).
class TESSRA_EXPORT CLBeaconRegion final : public CLRegion {
public:
    CLBeaconRegion(UUID proximityUUID, std::string identifier)
        : CLRegion(std::move(identifier)), proximityUUID_(proximityUUID) {}
    const UUID& proximityUUID() const { return proximityUUID_; }

private:
    UUID proximityUUID_;
};

struct TESSRA_EXPORT CLBeacon {
    UUID proximityUUID;
    std::int64_t major = 0;
    std::int64_t minor = 0;
};

/// Raw values as the platform numbers them.
enum class CLRegionState : int { unknown = 0, inside = 1, outside = 2 };

class LocationManager;

/// A location manager's callbacks; every member has an empty default. Events arrive on the
/// thread (queue) that created the manager.
class TESSRA_EXPORT LocationManagerDelegate {
public:
    virtual ~LocationManagerDelegate() = default;
    virtual void locationManagerDidEnterRegion(LocationManager& manager, const CLRegion& region) {
        (void)manager;
        (void)region;
    }
    virtual void locationManagerDidExitRegion(LocationManager& manager, const CLRegion& region) {
        (void)manager;
        (void)region;
    }
    virtual void locationManagerDidDetermineState(LocationManager& manager, CLRegionState state,
                                                  const CLRegion& region) {
        (void)manager;
        (void)state;
        (void)region;
    }
    virtual void locationManagerDidRangeBeacons(LocationManager& manager, const std::vector<CLBeacon>& beacons,
                                                const CLBeaconRegion& region) {
        (void)manager;
        (void)beacons;
        (void)region;
    }
};

/// Region monitoring and beacon ranging (the platform's location manager). The delegate is
/// held weakly.
class TESSRA_EXPORT LocationManager {
public:
    virtual ~LocationManager() = default;
    virtual void setDelegate(std::weak_ptr<LocationManagerDelegate> delegate) = 0;
    virtual void requestAlwaysAuthorization() = 0;
    virtual void startMonitoring(std::shared_ptr<const CLRegion> region) = 0;
    virtual void startRangingBeacons(std::shared_ptr<const CLBeaconRegion> region) = 0;
    /// The answer comes as a didDetermineState callback.
    virtual void requestState(std::shared_ptr<const CLRegion> region) = 0;
};

/// Makes location managers. The manager made on a thread delivers its events there.
class TESSRA_EXPORT LocationServices {
public:
    virtual ~LocationServices() = default;
    virtual std::shared_ptr<LocationManager> makeLocationManager() = 0;
};

}  // namespace tessrakite::platform
