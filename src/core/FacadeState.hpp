#pragma once
// The facade's process-wide state. Internal: the facade's statics read and write it
// under its mutex; nothing here is part of the public API.

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <tessrakite/core/SessionHelper.hpp>
#include <tessrakite/core/StorageManager.hpp>
#include <tessrakite/core/TessraConfig.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/core/TessraQuillDelegate.hpp>
#include <tessrakite/core/TessraRequest.hpp>
#include <tessrakite/platform/Console.hpp>

namespace tessrakite::detail {

struct FacadeState {
    std::mutex mutex;
    std::unique_ptr<StorageManager> storage;
    std::shared_ptr<TessraConfig> config;
    std::map<std::string, std::string> trackingDict;
    std::weak_ptr<TessraQuillDelegate> delegate;
    std::shared_ptr<SessionHelper> sessionHelper;
    bool initialized = false;
    std::int64_t sendTrackCounter = 5;
    std::string referrerPage;
    std::string currentPage;
    bool shouldPresentCustomPromt = false;
    std::map<std::string, std::string> utm;
    bool utmLoaded = false;
    std::map<std::string, double> beaconSpamDict;
    std::shared_ptr<TessraBeaconManager> tessraBecon;
    std::string contentExtNotif = "tx_contentExt";
    TessraQuill::ExtraClsr extraClsr;
};

FacadeState& facade();

/// Forgets all process-wide state, as a new process would start. For tests only.
TESSRA_EXPORT void resetFacadeForTesting();

inline constexpr const char* kInitializeBanner =
    "     ****************************\n     * Please initialize Tessra *\n     ****************************";

/// True when start-up finished; otherwise prints the initialise banner.
bool checkInitialized();

inline std::string storageKey(StorageKey key) { return std::string(rawValue(key)); }

/// A Boolean switch from the shared store; absent or another type reads as false.
bool storedSwitch(const StorageManager& storage, StorageKey key);

/// Runs report building and store writes in order on the platform's utility queue, so
/// host calls return at once.
void onUtilityQueue(std::function<void()> work);

/// Calls the extra completion, if any, outside the facade's lock.
void callExtraClsr(std::optional<std::int64_t> status, std::optional<std::string> text,
                   std::optional<platform::UrlError> error);

}  // namespace tessrakite::detail
