#include <tessrakite/core/TessraBuilder.hpp>

#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/Console.hpp>

namespace tessrakite {

TessraBuilder::TessraBuilder() = default;

TessraBuilder::TessraBuilder(std::optional<std::string> apiKey) {
    if (apiKey) {
        _apiKey = std::move(*apiKey);
        return;
    }
    auto key = platform::Bundle::main()->string("TessraQuillApiKey");
    if (!key) fatalError("TessraQuillApiKey is missing from the main bundle's Info.plist");
    _apiKey = std::move(*key);
}

TessraBuilder& TessraBuilder::crash() {
    _crash = true;
    return *this;
}
TessraBuilder& TessraBuilder::push() {
    _push = true;
    return *this;
}
TessraBuilder& TessraBuilder::mavo() {
    _mavo = true;
    return *this;
}
TessraBuilder& TessraBuilder::customNotificationHandling() {
    _custom = true;
    return *this;
}
TessraBuilder& TessraBuilder::analytics(bool enabled) {
    _analytics = enabled;
    return *this;
}
TessraBuilder& TessraBuilder::geofence(bool enabled) {
    _geofence = enabled;
    return *this;
}
TessraBuilder& TessraBuilder::beacon(bool enabled) {
    _beacon = enabled;
    return *this;
}
TessraBuilder& TessraBuilder::locationTracking(bool enabled) {
    _location = enabled;
    return *this;
}

TessraBuilder& TessraBuilder::scheduleNotifications(double interval) {
    _schedulerEnabled = true;
    StorageManager storage;
    storage.defaultStorage->set(rawValue(StorageKey::schInt), PlistValue(interval));
    storage.defaultStorage->synchronize();
    return *this;
}

std::shared_ptr<TessraConfig> TessraBuilder::build() {
    if (!_schedulerEnabled) {
        StorageManager storage;
        if (storage.getScheduledId()) TessraQuill::cancelScheduledNotifications();
    }
    return std::make_shared<TessraConfig>(_apiKey, _crash, _analytics, _push, _geofence, _beacon, _custom, _location,
                                          _schedulerEnabled, _mavo, _consent);
}

}  // namespace tessrakite
