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
    // One transaction for all of them: one commit, and an extension reading the switches
    // never sees half of a configuration.
    storeManager.defaultStorage->update({}, [this](platform::UserDefaults::Values& values) {
        auto write = [&](StorageKey key, bool value) { values.insert_or_assign(std::string(rawValue(key)), PlistValue(value)); };
        if (_crash) write(StorageKey::crash, *_crash);
        write(StorageKey::analytics, _analytics);
        if (_push) write(StorageKey::push, *_push);
        if (_geofence) write(StorageKey::geofence, *_geofence);
        if (_beacon) write(StorageKey::beacon, *_beacon);
        if (_custom) write(StorageKey::custom, *_custom);
        if (_location) write(StorageKey::location, *_location);
    });
    storeManager.defaultStorage->synchronize();
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
