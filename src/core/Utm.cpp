// Campaign (UTM) parameters: a persisted map of "utm_"-prefixed keys.
#include <tessrakite/core/TessraQuill.hpp>

#include "core/FacadeState.hpp"

namespace tessrakite {

using detail::facade;

namespace {
constexpr const char* kPrefix = "utm_";

std::map<std::string, std::string> persistedUtm() {
    return TessraQuill::storageManager().getArayOfStringDictsFromStorage(StorageKey::utm).value_or(
        std::map<std::string, std::string>{});
}

void remember(std::map<std::string, std::string> map) {
    std::lock_guard lock(facade().mutex);
    facade().utm = std::move(map);
    facade().utmLoaded = true;
}

// Read-modify-write in one transaction, so an extension writing the map at the same
// time loses nothing.
std::map<std::string, std::string> updateUtm(const std::function<void(PlistDictionary&)>& change) {
    std::map<std::string, std::string> result;
    auto& defaults = *TessraQuill::storageManager().defaultStorage;
    defaults.update(rawValue(StorageKey::utm), [&](std::optional<PlistValue> current) {
        PlistDictionary dict;
        if (current && current->asDictionary()) dict = *current->asDictionary();
        change(dict);
        result.clear();
        for (const auto& [k, v] : dict)
            if (v.asString()) result.emplace(k, *v.asString());
        std::optional<PlistValue> updated;
        updated.emplace(std::move(dict));
        return updated;
    });
    defaults.synchronize();
    return result;
}
}  // namespace

std::map<std::string, std::string> TessraQuill::utm() {
    {
        std::lock_guard lock(facade().mutex);
        if (facade().utmLoaded) return facade().utm;
    }
    auto map = persistedUtm();
    remember(map);
    return map;
}

void TessraQuill::setUtm(const std::string& key, const std::string& value) {
    remember(updateUtm([&](PlistDictionary& dict) { dict.insert_or_assign(kPrefix + key, PlistValue(value)); }));
}

std::string TessraQuill::getUtm(const std::string& key) {
    if (!detail::checkInitialized()) return "Tessra not initialized";
    auto map = persistedUtm();
    auto it = map.find(kPrefix + key);
    if (it != map.end()) return it->second;
    return "Error! Key: " + key + " does not exist";
}

void TessraQuill::removeUtm(const std::string& key) {
    if (!detail::checkInitialized()) return;
    remember(updateUtm([&](PlistDictionary& dict) { dict.erase(kPrefix + key); }));
}

}  // namespace tessrakite
