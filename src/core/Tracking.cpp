// The event tracking queue: facts collected in memory and posted as one report.
#include <tessrakite/core/TessraQuill.hpp>

#include <tessrakite/platform/Platform.hpp>

#include "core/FacadeState.hpp"
#include "core/Text.hpp"

namespace tessrakite {

using detail::facade;
using StringMap = std::map<std::string, std::string>;

namespace {

constexpr const char* kPushBanner =
    "**********************************************\n"
    "* Please enable push to use tracking events. *\n"
    "**********************************************";

StringMap lastAccepted() {
    return TessraQuill::storageManager().getArayOfStringDictsFromStorage(StorageKey::exPaDict).value_or(StringMap{});
}

void storeAccepted(const StringMap& map) {
    PlistDictionary dict;
    for (const auto& [k, v] : map) dict.emplace(k, PlistValue(v));
    auto& defaults = *TessraQuill::storageManager().defaultStorage;
    defaults.set(rawValue(StorageKey::exPaDict), PlistValue(std::move(dict)));
    defaults.synchronize();
}

/// The session record of a tracking report; start-up always writes all four values, so a
/// missing one means the store was tampered with.
CS requiredSession() {
    auto& storage = TessraQuill::storageManager();
    auto ns = storage.getIntFromStorage(StorageKey::sessionNum);
    auto sid = storage.getStringFromStorage(StorageKey::sessionId);
    auto scn = storage.getIntFromStorage(StorageKey::visitedPCount);
    auto cid = storage.getStringFromStorage(StorageKey::uniqSessionId);
    if (!ns || !sid || !scn || !cid) fatalError("The session record is missing from the shared store");
    return CS{*ns, *sid, *scn, *cid};
}

ActivityBody trackingBody(const StringMap& map, CS cs) {
    ActivityBody body(ActivityCode::open, "track", std::move(cs));
    body.e = nlohmann::ordered_json::object();
    for (const auto& [k, v] : map) body.e[k] = v;
    return body;
}

void sendTrackWorker() {
    if (!detail::checkInitialized()) return;
    if (!detail::storedSwitch(TessraQuill::storageManager(), StorageKey::push)) {
        Console::print(kPushBanner);
        return;
    }
    StringMap pending;
    {
        std::lock_guard lock(facade().mutex);
        if (facade().sendTrackCounter > 9) {
            facade().sendTrackCounter = 0;
            return;
        }
        pending = facade().trackingDict;
    }
    if (pending.empty() || lastAccepted() == pending) return;

    auto body = trackingBody(pending, requiredSession());
    TessraQuill::tessraRequest().sendTessraActivity(body, [pending](const auto& response, const auto& error) {
        if (response) {
            if (response->statusCode == 201) {
                detail::callExtraClsr(201, "Success", std::nullopt);
                storeAccepted(pending);
            } else {
                detail::callExtraClsr(response->statusCode, "Failed", std::nullopt);
            }
            return;
        }
        {
            std::lock_guard lock(facade().mutex);
            ++facade().sendTrackCounter;
        }
        platform::currentPlatform()->mainQueue().asyncAfter(0.5, [error] {
            std::int64_t seen;
            {
                std::lock_guard lock(facade().mutex);
                seen = facade().sendTrackCounter;
            }
            sendTrackWorker();
            // The rerun that finds the budget spent ends the retries: tell the host why.
            if (seen == 10) detail::callExtraClsr(std::nullopt, std::nullopt, error);
        });
    });
}

}  // namespace

void TessraQuill::track(const PlistDictionary& values) {
    if (!detail::checkInitialized()) return;
    if (!config() || !detail::storedSwitch(storageManager(), StorageKey::analytics)) return;
    std::lock_guard lock(facade().mutex);
    for (const auto& [key, value] : values) facade().trackingDict[key] = detail::textualRendering(value);
}

StringMap TessraQuill::getTrack() {
    std::lock_guard lock(facade().mutex);
    return facade().trackingDict;
}

std::string TessraQuill::getTrackFor(const std::string& key) {
    if (!detail::checkInitialized()) return "Tessra not initialized";
    std::lock_guard lock(facade().mutex);
    auto it = facade().trackingDict.find(key);
    if (it == facade().trackingDict.end()) return "Error! Key: " + key + " does not exist";
    return it->second;
}

void TessraQuill::removeTrack() {
    if (!detail::checkInitialized()) return;
    storeAccepted({});
}

void TessraQuill::removeTrackFor(const std::string& key) {
    if (!detail::checkInitialized()) return;
    auto map = lastAccepted();
    map.erase(key);
    storeAccepted(map);
    Console::print("Value for key: " + key + " successfully removed");
}

void TessraQuill::sendTrack(ExtraClsr completion) {
    setExtraClsr(std::move(completion));
    sendTrackWorker();
}

void TessraQuill::sendCustomTestTrack(const PlistDictionary& values, ExtraClsr completion) {
    StringMap map;
    for (const auto& [key, value] : values) map[key] = detail::textualRendering(value);
    auto body = trackingBody(map, CS::fromStorage(storageManager()));
    tessraRequest().sendTessraActivity(body, [completion](const auto& response, const auto& error) {
        if (!completion) return;
        if (response)
            completion(response->statusCode, response->statusCode == 201 ? "Success" : "Failed", std::nullopt);
        else
            completion(std::nullopt, std::nullopt, error);
    });
}

}  // namespace tessrakite
