#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <tessrakite/Export.hpp>
#include <tessrakite/core/StorageKey.hpp>
#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/PlistValue.hpp>
#include <tessrakite/platform/UserDefaults.hpp>

namespace tessrakite {

/// Typed access to the store that the application and its extensions share: the app
/// group suite "group." + host bundle identifier + ".tessraQuill". Instances are cheap;
/// they all use the one store of the process. Reads give nothing for a missing key or a
/// value of another type, at any depth (a list holding a number where strings belong
/// reads as absent). Where a Double is read, a whole number also counts.
class TESSRA_EXPORT StorageManager {
public:
    /// Opens the suite; a suite that cannot be opened, or a host bundle without an
    /// identifier, is a fatal error.
    StorageManager();

    std::shared_ptr<platform::UserDefaults> defaultStorage;

    /// The host application's bundle identifier, computed once per process. From inside
    /// an extension (App.app/PlugIns/X.appex) it is the containing application's.
    static const std::string& bundleId();
    /// What bundleId computes, for a given main bundle; nothing when the bundle found has
    /// no identifier. Prints the fallback line when an extension's application is missing.
    static std::optional<std::string> hostBundleIdentifier(const platform::Bundle& mainBundle);
    /// "group." + bundleId() + ".tessraQuill".
    static std::string suiteName();

    // ---- typed reads ----
    std::optional<bool> wasDisabled() const;
    std::optional<std::string> getToken() const;
    std::optional<std::string> getUnsToken() const;
    std::optional<std::string> getE() const;
    std::optional<std::string> getScheduledId() const;
    std::optional<double> getScheduledTime() const;
    /// When nothing is stored, the present time (seconds since 1970).
    double getLastAppOpedAdSavedTime() const;
    std::optional<std::map<std::string, std::vector<std::string>>> getCoversionsFromStorage() const;
    std::optional<std::map<std::string, std::map<std::string, std::string>>> getUrlsFromStorage() const;
    std::optional<std::map<std::string, std::vector<std::string>>> getTagsFromStorage(StorageKey forKey) const;
    std::optional<std::int64_t> getIntFromStorage(StorageKey forKey) const;
    std::optional<std::string> getStringFromStorage(StorageKey forKey) const;
    std::optional<std::map<std::string, std::string>> getArayOfStringDictsFromStorage(StorageKey forKey) const;
    std::optional<std::map<std::string, double>> getDictFromStorage(StorageKey forKey) const;

    // ---- conveniences over defaultStorage ----
    std::optional<PlistValue> object(StorageKey key) const;
    std::optional<bool> getBool(StorageKey key) const;
    std::optional<double> getDouble(StorageKey key) const;
    /// Writes and synchronizes; null removes the key.
    void set(StorageKey key, const PlistValue& value) const;
    void remove(StorageKey key) const;
    /// Read-modify-write of one key, safe against the other processes of the app group.
    void update(StorageKey key, const platform::UserDefaults::Updater& fn) const;
    /// Adds one to a stored Int in one transaction; absent (or another type) counts as 0.
    void increment(StorageKey key) const;
};

}  // namespace tessrakite
