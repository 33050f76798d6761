#include <tessrakite/location/TessraBeaconManager.hpp>

#include <cstdio>
#include <limits>
#include <map>
#include <mutex>

#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/Platform.hpp>

#include "core/FacadeState.hpp"

namespace tessrakite {

namespace {

struct FixedRegion {
    const char* identifier;
    const char* uuid;
};
// Watched in this order.
constexpr FixedRegion kRegions[] = {{"iBKS105-61", "00000000-0000-0000-0000-000000000330"},
                                    {"iBKS105-94", "00000000-0000-0000-0000-000000000340"}};

constexpr double kSuppression = 5.0;  // seconds per proximity UUID

double now() { return platform::currentPlatform()->clock->now(); }

/// Writes the whole table under "tx_beacon_interval" (the store synchronises each write).
void storeTable(const std::map<std::string, double>& table) {
    PlistDictionary stored;
    for (const auto& [uuid, until] : table) stored.emplace(uuid, PlistValue(until));
    TessraQuill::storageManager().set(StorageKey::beaconInterval, PlistValue(std::move(stored)));
}

/// Sets one entry of the facade's table and returns a copy of the whole table.
std::map<std::string, double> setEntry(const std::string& uuid, double until) {
    auto& f = detail::facade();
    std::lock_guard lock(f.mutex);
    f.beaconSpamDict[uuid] = until;
    return f.beaconSpamDict;
}

}  // namespace

struct TessraBeaconManager::Core final : platform::LocationManagerDelegate {
    mutable std::mutex mutex;
    std::int64_t notifCounter = 1;

    void gimmePush(const std::string& message) {
        platform::UNMutableNotificationContent content;
        content.title = "Beacon";
        content.body = message;
        // The number is taken and the counter moved on in one step, so two callers never
        // share an identifier; the overflow stops the process after the post, as counting
        // past the last number would.
        std::int64_t number;
        bool overflowed;
        {
            std::lock_guard lock(mutex);
            number = notifCounter;
            overflowed = notifCounter == std::numeric_limits<std::int64_t>::max();
            if (!overflowed) ++notifCounter;
        }
        platform::currentPlatform()->userNotificationCenter->add(
            {"notification.id." + std::to_string(number), content, platform::UNTimeIntervalNotificationTrigger{1.0, false}},
            nullptr);
        if (overflowed) fatalError("TessraBeaconManager: the notification counter overflowed");
    }

    static void beaconDictHelper(const std::string& uuid) { storeTable(setEntry(uuid, now() + kSuppression)); }

    void locationManagerDidEnterRegion(platform::LocationManager&, const platform::CLRegion& region) override {
        if (dynamic_cast<const platform::CLBeaconRegion*>(&region)) guarded([&] { gimmePush("ENTERED, " + region.identifier()); });
    }

    void locationManagerDidExitRegion(platform::LocationManager&, const platform::CLRegion& region) override {
        if (dynamic_cast<const platform::CLBeaconRegion*>(&region)) guarded([&] { gimmePush("Exit , " + region.identifier()); });
    }

    void locationManagerDidDetermineState(platform::LocationManager& manager, platform::CLRegionState state,
                                          const platform::CLRegion& region) override {
        const auto* beaconRegion = dynamic_cast<const platform::CLBeaconRegion*>(&region);
        if (!beaconRegion || state != platform::CLRegionState::inside) return;
        guarded([&] {
            manager.startRangingBeacons(std::make_shared<platform::CLBeaconRegion>(*beaconRegion));
            gimmePush("INSIDE, " + region.identifier());
        });
    }

    void locationManagerDidRangeBeacons(platform::LocationManager&, const std::vector<platform::CLBeacon>& beacons,
                                        const platform::CLBeaconRegion&) override {
        guarded([&] { applySuppression(beacons); });
    }

    // The ranged beacons only move the suppression table; nothing is posted or sent.
    static void applySuppression(const std::vector<platform::CLBeacon>& beacons) {
        auto& f = detail::facade();
        auto stored = TessraQuill::storageManager().getDictFromStorage(StorageKey::beaconInterval);
        if (!stored) {
            // A fresh install: the first callback only creates the stored table.
            std::map<std::string, double> table;
            {
                std::lock_guard lock(f.mutex);
                table = f.beaconSpamDict;
            }
            storeTable(table);
            return;
        }
        {
            std::lock_guard lock(f.mutex);
            f.beaconSpamDict = *stored;
        }
        for (const auto& beacon : beacons) {
            const auto key = beacon.proximityUUID.uuidString();
            const double time = now();
            std::optional<double> until;
            {
                std::lock_guard lock(f.mutex);
                if (auto it = f.beaconSpamDict.find(key); it != f.beaconSpamDict.end()) until = it->second;
            }
            if (until && *until >= time) return;  // still suppressed: the rest of the list waits too
            if (until)
                beaconDictHelper(key);
            else
                storeTable(setEntry(key, time + kSuppression));
        }
    }

    // Region events run from the platform's queue: nothing may escape to it.
    template <class Work>
    static void guarded(Work work) {
        try {
            work();
        } catch (const std::exception& e) {
            Console::print(std::string("TessraBeaconManager: a region event failed: ") + e.what());
        }
    }
};

TessraBeaconManager::TessraBeaconManager() : core_(std::make_shared<Core>()) {
    locationManager = platform::currentPlatform()->location->makeLocationManager();
    locationManager->setDelegate(core_);
    locationManager->requestAlwaysAuthorization();
    startTrackingBeaconRegion();
}

TessraBeaconManager::~TessraBeaconManager() { Console::print(description() + " DEINITED"); }

void TessraBeaconManager::startTrackingBeaconRegion() {
    for (const auto& fixed : kRegions) {
        auto uuid = platform::UUID::parse(fixed.uuid);
        if (!uuid) fatalError(std::string("TessraBeaconManager: \"") + fixed.uuid + "\" is not a UUID");
        auto region = std::make_shared<platform::CLBeaconRegion>(*uuid, fixed.identifier);
        locationManager->startMonitoring(region);
        locationManager->startRangingBeacons(region);
        locationManager->requestState(region);
    }
}

void TessraBeaconManager::gimmePush(const std::string& message) { core_->gimmePush(message); }

void TessraBeaconManager::beaconDictHelper(const std::string& uuid) { Core::beaconDictHelper(uuid); }

std::int64_t TessraBeaconManager::notifCounter() const {
    std::lock_guard lock(core_->mutex);
    return core_->notifCounter;
}

std::string TessraBeaconManager::description() const {
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
    return std::string("<TessraBeaconManager: ") + address + ">";
}

}  // namespace tessrakite
