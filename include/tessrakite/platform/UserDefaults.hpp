#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/PlistValue.hpp>

namespace tessrakite::platform {

/// A key/value store of property-list values, shared by the processes of one app group.
/// Every write is committed when it returns; typed reads give nothing for a missing key
/// or a value of another type.
class TESSRA_EXPORT UserDefaults {
public:
    virtual ~UserDefaults() = default;

    virtual std::optional<PlistValue> object(std::string_view key) = 0;
    virtual void set(std::string_view key, const PlistValue& value) = 0;
    virtual void removeObject(std::string_view key) = 0;
    /// Read-modify-write of one key in one transaction, safe against other processes.
    /// `fn` gets the current value (or nothing) and returns the new one (nothing removes).
    using Updater = std::function<std::optional<PlistValue>(std::optional<PlistValue>)>;
    virtual void update(std::string_view key, const Updater& fn) = 0;
    /// Several keys in one transaction: `fn` gets the current value of each of `keys`
    /// (nothing when missing) and may change, add or erase entries; every key left in the
    /// map is then written (nothing removes it). Other processes see all of it or none.
    using Values = std::map<std::string, std::optional<PlistValue>, std::less<>>;
    using BatchUpdater = std::function<void(Values&)>;
    virtual void update(const std::vector<std::string>& keys, const BatchUpdater& fn) = 0;
    virtual PlistDictionary dictionaryRepresentation() = 0;
    /// Writes are already durable; kept for callers written against the platform store.
    virtual bool synchronize() { return true; }

    // Typed reads: nothing for a missing key or a value of another type. A Bool is never
    // an integer nor an integer a Bool; doubleValue also reads an integer (as the
    // platform store does), integer never reads a double.
    std::optional<bool> boolValue(std::string_view key);
    std::optional<std::int64_t> integer(std::string_view key);
    std::optional<double> doubleValue(std::string_view key);
    std::optional<std::string> string(std::string_view key);
    std::optional<Data> data(std::string_view key);
    std::optional<PlistArray> array(std::string_view key);
    std::optional<PlistDictionary> dictionary(std::string_view key);
};

/// Opens (once per process) the store of an app-group suite, under
/// FileRoots::appGroupContainer(suite). Nothing when it cannot be opened.
TESSRA_EXPORT std::shared_ptr<UserDefaults> userDefaults(const std::string& suiteName);
/// The process's standard defaults, under FileRoots::appFolder(main bundle id).
TESSRA_EXPORT std::shared_ptr<UserDefaults> standardUserDefaults();

}  // namespace tessrakite::platform
