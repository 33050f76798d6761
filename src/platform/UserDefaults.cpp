#include <tessrakite/platform/UserDefaults.hpp>

#include <map>
#include <mutex>
#include <vector>

#include <unistd.h>

#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/FileRoots.hpp>

#include "platform/SqliteUserDefaults.hpp"

namespace tessrakite::platform {

// ---- typed reads: no conversions between types, except integer to double ----

std::optional<bool> UserDefaults::boolValue(std::string_view key) {
    auto v = object(key);
    if (!v || !v->asBool()) return std::nullopt;
    return *v->asBool();
}

std::optional<std::int64_t> UserDefaults::integer(std::string_view key) {
    auto v = object(key);
    if (!v || !v->asInteger()) return std::nullopt;
    return *v->asInteger();
}

std::optional<double> UserDefaults::doubleValue(std::string_view key) {
    auto v = object(key);
    if (!v) return std::nullopt;
    if (const auto* d = v->asReal()) return *d;
    // As on the platform store, a whole number reads as a double; a Bool never does.
    if (const auto* i = v->asInteger()) return static_cast<double>(*i);
    return std::nullopt;
}

std::optional<std::string> UserDefaults::string(std::string_view key) {
    auto v = object(key);
    if (!v || !v->asString()) return std::nullopt;
    return *v->asString();
}

std::optional<Data> UserDefaults::data(std::string_view key) {
    auto v = object(key);
    if (!v || !v->asData()) return std::nullopt;
    return *v->asData();
}

std::optional<PlistArray> UserDefaults::array(std::string_view key) {
    auto v = object(key);
    if (!v || !v->asArray()) return std::nullopt;
    return std::move(*v->asArray());
}

std::optional<PlistDictionary> UserDefaults::dictionary(std::string_view key) {
    auto v = object(key);
    if (!v || !v->asDictionary()) return std::nullopt;
    return std::move(*v->asDictionary());
}

// ---- one store per database file and process ----

namespace {

std::shared_ptr<UserDefaults> sharedStore(const std::filesystem::path& file) {
    // Never destroyed: a network completion may still write while the process exits.
    static auto& mutex = *new std::mutex;
    static auto& stores = *new std::map<std::filesystem::path, std::shared_ptr<UserDefaults>>;
    static pid_t owner = ::getpid();

    std::lock_guard lock(mutex);
    if (::getpid() != owner) {
        // A forked child must neither use nor close its parent's connections (closing
        // could checkpoint or delete the parent's WAL): leave them be and open anew.
        static auto* inherited = new std::vector<std::shared_ptr<UserDefaults>>();
        for (auto& [path, store] : stores) inherited->push_back(std::move(store));
        stores.clear();
        owner = ::getpid();
    }
    if (auto it = stores.find(file); it != stores.end()) return it->second;
    std::shared_ptr<UserDefaults> store = SqliteUserDefaults::open(file);
    if (store) stores.emplace(file, store);
    return store;
}

bool isPlainName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

}  // namespace

std::shared_ptr<UserDefaults> userDefaults(const std::string& suiteName) {
    try {
        if (!isPlainName(suiteName)) return nullptr;
        return sharedStore(FileRoots::appGroupContainer(suiteName) / "defaults.sqlite");
    } catch (...) {
        return nullptr;
    }
}

std::shared_ptr<UserDefaults> standardUserDefaults() {
    try {
        auto bundle = Bundle::main();
        // A bundle without an identifier still gets a folder of its own, named after it.
        std::string id = bundle->bundleIdentifier().value_or(bundle->bundleURL().filename().string());
        if (!isPlainName(id)) return nullptr;
        return sharedStore(FileRoots::appFolder(id) / "defaults.sqlite");
    } catch (...) {
        return nullptr;
    }
}

}  // namespace tessrakite::platform
