// The facade's location entry points.

#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/location/Beacons.hpp>
#include <tessrakite/location/Geofences.hpp>
#include <tessrakite/location/TessraBeaconManager.hpp>
#include <tessrakite/platform/Console.hpp>

#include "core/FacadeState.hpp"
#include "location/LooseDictionary.hpp"

namespace tessrakite {

namespace {

/// The alert's geofences or beacons, or neither. Exactly one of the two at most.
std::pair<std::optional<Geofences>, std::optional<Beacons>> administrativeRecords(const PlistDictionary& userInfo) {
    auto aps = userInfo.find("aps");
    if (aps == userInfo.end()) fatalError("An administrative push has no \"aps\"");
    const auto* apsDictionary = aps->second.asDictionary();
    if (!apsDictionary) return {};
    auto alert = apsDictionary->find("alert");
    const auto* alertDictionary = alert == apsDictionary->end() ? nullptr : alert->second.asDictionary();
    if (!alertDictionary) return {};
    if (auto list = loose::dictionaryList(*alertDictionary, "gl")) {
        Geofences geofences;
        for (const auto* element : *list) geofences.gl.push_back(Gl::init(*element));
        return {std::move(geofences), std::nullopt};
    }
    if (auto list = loose::dictionaryList(*alertDictionary, "bl")) {
        Beacons beacons;
        for (const auto* element : *list) beacons.bl.push_back(B::init(*element));
        return {std::nullopt, std::move(beacons)};
    }
    return {};
}

}  // namespace

void TessraQuill::didReciveAdministrativeNotificationWith(const PlistDictionary& userInfo,
                                                          AdministrativeCompletion completion) {
    std::pair<std::optional<Geofences>, std::optional<Beacons>> records;
    try {
        if (!detail::storedSwitch(storageManager(), StorageKey::push)) return;
        records = administrativeRecords(userInfo);
    } catch (const std::exception& e) {
        Console::print(std::string("didReciveAdministrativeNotificationWith failed: ") + e.what());
        return;
    }
    if (!records.first && !records.second) return;  // dropped in silence
    // Outside the try: what the host's completion throws is the host's own.
    if (completion) completion(std::move(records.first), std::move(records.second));
}

void TessraQuill::registerGeoLocations(const std::vector<PlistDictionary>& list) { (void)list; }

void TessraQuill::sendLocationEnter(const platform::CLRegion& region) { (void)region; }

void TessraQuill::sendLocationLeft(const platform::CLRegion& region) { (void)region; }

void TessraQuill::sendiBeaconProximity(const platform::CLBeacon& beacon) {
    (void)beacon;
    try {
        // Read and left unused, as the interface has always done.
        if (config()) (void)storageManager().getBool(StorageKey::beacon);
    } catch (const std::exception& e) {
        Console::print(std::string("sendiBeaconProximity failed: ") + e.what());
    }
}

std::shared_ptr<TessraBeaconManager> TessraQuill::tessraBecon() {
    std::lock_guard lock(detail::facade().mutex);
    return detail::facade().tessraBecon;
}

std::map<std::string, double> TessraQuill::beaconSpamDict() {
    std::lock_guard lock(detail::facade().mutex);
    return detail::facade().beaconSpamDict;
}

}  // namespace tessrakite
