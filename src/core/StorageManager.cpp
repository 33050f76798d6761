#include <tessrakite/core/StorageManager.hpp>

#include <tessrakite/platform/Clock.hpp>
#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/Platform.hpp>

namespace tessrakite {
namespace {

constexpr bool keysFollowDeclarationOrder() {
    for (std::size_t i = 0; i < allStorageKeys.size(); ++i)
        if (static_cast<std::size_t>(allStorageKeys[i]) != i || rawValue(allStorageKeys[i]).substr(0, 3) != "tx_")
            return false;
    return allStorageKeys.back() == StorageKey::consent;
}
static_assert(keysFollowDeclarationOrder());

using StringList = std::vector<std::string>;
using StringMap = std::map<std::string, std::string>;

std::optional<std::string> asString(const PlistValue& v) {
    if (const auto* s = v.asString()) return *s;
    return std::nullopt;
}

std::optional<double> asDouble(const PlistValue& v) {
    if (const auto* d = v.asReal()) return *d;
    if (const auto* i = v.asInteger()) return static_cast<double>(*i);
    return std::nullopt;
}

std::optional<StringList> asStringList(const PlistValue& v) {
    const auto* array = v.asArray();
    if (!array) return std::nullopt;
    StringList out;
    out.reserve(array->size());
    for (const auto& e : *array) {
        auto s = asString(e);
        if (!s) return std::nullopt;
        out.push_back(std::move(*s));
    }
    return out;
}

std::optional<StringMap> asStringMap(const PlistValue& v) {
    const auto* dict = v.asDictionary();
    if (!dict) return std::nullopt;
    StringMap out;
    for (const auto& [k, e] : *dict) {
        auto s = asString(e);
        if (!s) return std::nullopt;
        out.emplace(k, std::move(*s));
    }
    return out;
}

// A dictionary whose every value converts with `convert`; absent if any does not.
template <class Value>
std::optional<std::map<std::string, Value>> asMapOf(const std::optional<PlistValue>& v,
                                                    std::optional<Value> (*convert)(const PlistValue&)) {
    if (!v) return std::nullopt;
    const auto* dict = v->asDictionary();
    if (!dict) return std::nullopt;
    std::map<std::string, Value> out;
    for (const auto& [k, e] : *dict) {
        auto converted = convert(e);
        if (!converted) return std::nullopt;
        out.emplace(k, std::move(*converted));
    }
    return out;
}

}  // namespace

StorageManager::StorageManager() {
    std::string suite = suiteName();
    defaultStorage = platform::userDefaults(suite);
    if (!defaultStorage) fatalError("StorageManager: cannot open the app group suite " + suite);
}

std::optional<std::string> StorageManager::hostBundleIdentifier(const platform::Bundle& mainBundle) {
    auto url = mainBundle.bundleURL();
    if (!url.has_filename()) url = url.parent_path();  // "X.appex/"
    if (url.extension() == ".appex") {
        // App.app/PlugIns/X.appex: the application is two folders up.
        if (auto application = platform::Bundle::open(url.parent_path().parent_path()))
            return application->bundleIdentifier();
        Console::print("AppGroupsHelper: Error, could not obtain main bundle from extension!");
    }
    return mainBundle.bundleIdentifier();
}

const std::string& StorageManager::bundleId() {
    // Never destroyed: a request's completion may open the store while the process exits.
    static const std::string* id = [] {
        auto identifier = hostBundleIdentifier(*platform::Bundle::main());
        if (!identifier) fatalError("StorageManager: the host bundle has no bundle identifier");
        return new std::string(std::move(*identifier));
    }();
    return *id;
}

std::string StorageManager::suiteName() { return "group." + bundleId() + ".tessraQuill"; }

// ---- typed reads ----

std::optional<bool> StorageManager::wasDisabled() const { return getBool(StorageKey::wd); }
std::optional<std::string> StorageManager::getToken() const { return getStringFromStorage(StorageKey::tok); }
std::optional<std::string> StorageManager::getUnsToken() const { return getStringFromStorage(StorageKey::unscToken); }
std::optional<std::string> StorageManager::getE() const { return getStringFromStorage(StorageKey::eEndpoint); }
std::optional<std::string> StorageManager::getScheduledId() const { return getStringFromStorage(StorageKey::schId); }
std::optional<double> StorageManager::getScheduledTime() const { return getDouble(StorageKey::schInt); }

double StorageManager::getLastAppOpedAdSavedTime() const {
    if (auto saved = getDouble(StorageKey::appOpenSavedAt)) return *saved;
    auto platform = platform::currentPlatform();
    if (platform && platform->clock) return platform->clock->now();
    return platform::SystemClock().now();
}

std::optional<std::map<std::string, std::vector<std::string>>> StorageManager::getCoversionsFromStorage() const {
    return getTagsFromStorage(StorageKey::t);
}

std::optional<std::map<std::string, std::map<std::string, std::string>>> StorageManager::getUrlsFromStorage() const {
    return asMapOf(object(StorageKey::url), asStringMap);
}

std::optional<std::map<std::string, std::vector<std::string>>> StorageManager::getTagsFromStorage(
    StorageKey forKey) const {
    return asMapOf(object(forKey), asStringList);
}

std::optional<std::int64_t> StorageManager::getIntFromStorage(StorageKey forKey) const {
    return defaultStorage->integer(rawValue(forKey));
}

std::optional<std::string> StorageManager::getStringFromStorage(StorageKey forKey) const {
    return defaultStorage->string(rawValue(forKey));
}

std::optional<std::map<std::string, std::string>> StorageManager::getArayOfStringDictsFromStorage(
    StorageKey forKey) const {
    return asMapOf(object(forKey), asString);
}

std::optional<std::map<std::string, double>> StorageManager::getDictFromStorage(StorageKey forKey) const {
    return asMapOf(object(forKey), asDouble);
}

// ---- conveniences ----

std::optional<PlistValue> StorageManager::object(StorageKey key) const { return defaultStorage->object(rawValue(key)); }
void StorageManager::increment(StorageKey key) const {
    update(key, [](std::optional<PlistValue> current) {
        const std::int64_t value = current && current->asInteger() ? *current->asInteger() : 0;
        return std::optional<PlistValue>(PlistValue(value + 1));
    });
}

std::optional<bool> StorageManager::getBool(StorageKey key) const { return defaultStorage->boolValue(rawValue(key)); }
std::optional<double> StorageManager::getDouble(StorageKey key) const {
    return defaultStorage->doubleValue(rawValue(key));
}

void StorageManager::set(StorageKey key, const PlistValue& value) const {
    defaultStorage->set(rawValue(key), value);
    defaultStorage->synchronize();
}

void StorageManager::remove(StorageKey key) const {
    defaultStorage->removeObject(rawValue(key));
    defaultStorage->synchronize();
}

void StorageManager::update(StorageKey key, const platform::UserDefaults::Updater& fn) const {
    defaultStorage->update(rawValue(key), fn);
}

}  // namespace tessrakite
