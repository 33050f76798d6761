#include <tessrakite/core/TessraConfig.hpp>

namespace tessrakite {

TessraConfig::TessraConfig(std::string apiKey, std::optional<bool> crash, bool analytics, std::optional<bool> push,
                           std::optional<bool> geofence, std::optional<bool> beacon, std::optional<bool> custom,
                           std::optional<bool> location, bool schedule, bool mavo, bool consent)
    : schedule_(schedule),
      mavo_(mavo),
      consent_(consent),
      _apiKey(std::move(apiKey)),
      _crash(crash),
      _analytics(analytics),
      _push(push),
      _geofence(geofence),
      _beacon(beacon),
      _custom(custom),
      _location(location) {
    persistSwitches();
}

void TessraConfig::persistSwitches() {
    auto& defaults = *storeManager.defaultStorage;
    // Order matters to readers in other processes only in that each write is its own
    // commit; keep the documented order anyway.
    auto write = [&](StorageKey key, bool value) {
        defaults.set(rawValue(key), PlistValue(value));
        defaults.synchronize();
    };
    if (_crash) write(StorageKey::crash, *_crash);
    write(StorageKey::analytics, _analytics);
    if (_push) write(StorageKey::push, *_push);
    if (_geofence) write(StorageKey::geofence, *_geofence);
    if (_beacon) write(StorageKey::beacon, *_beacon);
    if (_custom) write(StorageKey::custom, *_custom);
    if (_location) write(StorageKey::location, *_location);
}

void TessraConfig::enableServices() { persistSwitches(); }

void TessraConfig::disableServices() {
    auto& defaults = *storeManager.defaultStorage;
    for (auto key : {StorageKey::crash, StorageKey::analytics, StorageKey::push, StorageKey::geofence,
                     StorageKey::beacon, StorageKey::custom, StorageKey::location}) {
        defaults.set(rawValue(key), PlistValue(false));
        defaults.synchronize();
    }
}

}  // namespace tessrakite
