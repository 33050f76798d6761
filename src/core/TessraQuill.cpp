#include <tessrakite/core/TessraQuill.hpp>

#include <random>

#include <tessrakite/core/TessraRequest.hpp>
#include <tessrakite/location/TessraBeaconManager.hpp>
#include <tessrakite/platform/Platform.hpp>
#include <tessrakite/platform/ViewController.hpp>

#include "core/FacadeState.hpp"

namespace tessrakite {

namespace detail {

FacadeState& facade() {
    // Never destroyed: a request's completion may run while the process exits, after the
    // statics constructed later than the URL session are gone.
    static auto* state = new FacadeState;
    return *state;
}

void resetFacadeForTesting() {
    auto& f = facade();
    std::shared_ptr<SessionHelper> helper;
    std::shared_ptr<TessraBeaconManager> beacons;  // released outside the lock: it prints
    {
        std::lock_guard lock(f.mutex);
        helper = std::move(f.sessionHelper);
        f.storage.reset();
        f.config.reset();
        f.trackingDict.clear();
        f.delegate.reset();
        f.initialized = false;
        f.sendTrackCounter = 5;
        f.referrerPage.clear();
        f.currentPage.clear();
        f.shouldPresentCustomPromt = false;
        f.utm.clear();
        f.utmLoaded = false;
        f.beaconSpamDict.clear();
        beacons = std::move(f.tessraBecon);
        f.extraClsr = nullptr;
    }
    if (platform::ViewController::appearanceHooksInstalled()) platform::ViewController::exchangeAppearanceHooks({}, {});
}

bool checkInitialized() {
    {
        std::lock_guard lock(facade().mutex);
        if (facade().initialized) return true;
    }
    Console::print(kInitializeBanner);
    return false;
}

bool storedSwitch(const StorageManager& storage, StorageKey key) {
    return storage.getBool(key).value_or(false);
}

void onUtilityQueue(std::function<void()> work) {
    auto platform = platform::currentPlatform();
    if (platform->utilityQueue)
        platform->utilityQueue->async(std::move(work));
    else
        work();
}

void callExtraClsr(std::optional<std::int64_t> status, std::optional<std::string> text,
                   std::optional<platform::UrlError> error) {
    TessraQuill::ExtraClsr completion;
    {
        std::lock_guard lock(facade().mutex);
        completion = facade().extraClsr;
    }
    if (completion) completion(status, std::move(text), std::move(error));
}

}  // namespace detail

using detail::facade;

namespace {

std::string defaultConfigUrl() { return "https://" + platform::deploymentHost(platform::DeploymentHost::cdn) + "/tag"; }

// The session counters (a new session, and on the first start of an installation its
// id) and, when the installation is not registered, the default endpoints. One store
// transaction: the caller's thread pays for one commit, and another process sees all of
// start-up's keys or none of them.
void startSessionAndDefaults(StorageManager& storage) {
    std::random_device device;
    std::uniform_int_distribution<int> digit(0, 9);
    std::string random;
    for (int i = 0; i < 10; ++i) random.push_back(static_cast<char>('0' + digit(device)));
    const auto seconds = std::to_string(static_cast<std::int64_t>(platform::currentPlatform()->clock->now()));
    const auto tracking = platform::deploymentHost(platform::DeploymentHost::tracking);
    const auto configUrl = defaultConfigUrl();

    using detail::storageKey;
    const auto sessionNum = storageKey(StorageKey::sessionNum), uniqId = storageKey(StorageKey::uniqSessionId),
               reg = storageKey(StorageKey::reg);
    storage.defaultStorage->update({sessionNum, uniqId, reg}, [&](platform::UserDefaults::Values& v) {
        const auto& count = v[sessionNum];
        const std::int64_t previous = count && count->asInteger() ? *count->asInteger() : 0;
        v[sessionNum] = PlistValue(previous + 1);
        v[storageKey(StorageKey::sessionId)] = PlistValue(seconds);
        v[storageKey(StorageKey::visitedPCount)] = PlistValue(0);
        if (v[uniqId] && v[uniqId]->asString()) {
            v.erase(uniqId);
        } else {
            v[storageKey(StorageKey::uniqSessionFirstTime)] = PlistValue(seconds);
            v[uniqId] = PlistValue(seconds + "." + random);
        }
        const bool registered = v[reg] && v[reg]->asBool() && *v[reg]->asBool();
        v.erase(reg);
        if (registered) return;
        const auto activity = "https://" + tracking + "/v2/activity?type=mobile";
        v[storageKey(StorageKey::activityUrl)] = PlistValue(activity);
        v[storageKey(StorageKey::userUrl)] = PlistValue("https://" + tracking + "/v2/users?type=mobile");
        // The crash switch's key, not "tx_crash_url": its Boolean reading becomes false.
        // Kept as the backend's installations expect it.
        v[storageKey(StorageKey::crash)] = PlistValue(activity);
        v[storageKey(StorageKey::configUrl)] = PlistValue(configUrl);
    });
}

void initUtmAndSession(const std::map<std::string, std::string>& utm) {
    const auto& apiKey = utm.at("ht");
    TessraQuill::setUtm("ht", apiKey);
    auto helper = std::make_shared<SessionHelper>(3);
    helper->registerListeners();
    std::shared_ptr<SessionHelper> previous;
    {
        std::lock_guard lock(facade().mutex);
        previous = std::exchange(facade().sessionHelper, helper);
    }
    TessraQuill::installOpenActivity({{"utm_ht", apiKey}});
}

// Start-up finishes off the main queue; the manager is made on it, so that its region
// events arrive there, as an app's do.
void startBeaconManager() {
    platform::currentPlatform()->mainQueue().async([] {
        try {
            auto manager = std::make_shared<TessraBeaconManager>();
            std::shared_ptr<TessraBeaconManager> previous;
            {
                std::lock_guard lock(facade().mutex);
                previous = std::exchange(facade().tessraBecon, std::move(manager));
            }
        } catch (const std::exception& e) {
            Console::print(std::string("TessraQuill: beacon monitoring failed: ") + e.what());
        }
    });
}

void finishStartUp(const std::shared_ptr<TessraConfig>& captured, const std::shared_ptr<TessraConfig>& fetched) {
    {
        std::lock_guard lock(facade().mutex);
        // The host's own object wins; the fetched document acts through the stored switches.
        facade().config = fetched ? fetched : captured;
        facade().config = captured;
        facade().initialized = true;
    }
    initUtmAndSession({{"ht", captured->apiKey()}});
    // With push on, beacon monitoring starts when beacons are on too; crash capture starts
    // when the host registers the logger.
    const auto& storage = TessraQuill::storageManager();
    if (!detail::storedSwitch(storage, StorageKey::push)) {
        Console::print("Notification service is not enabled");
        return;
    }
    if (detail::storedSwitch(storage, StorageKey::beacon)) startBeaconManager();
}

}  // namespace

void TessraQuill::initialize(std::shared_ptr<TessraConfig> config) {
    try {
        if (!config) return;
        // Everything before the request runs here, before the call returns: the document's
        // answer, handled on another thread, must find these keys written, or the default
        // endpoints would overwrite the ones it brings.
        startSessionAndDefaults(storageManager());
        platform::ViewController::exchangeAppearanceHooks(viewDidLoadSwizzlingMethod, viewDidDissapearSwizzlingMethod);
        {
            std::lock_guard lock(facade().mutex);
            facade().config = config;
        }
        if (config->apiKey().empty()) {
            Console::print("\n***************\n Missing ApiKey! \n***************\n");
            return;
        }
        tessraRequest().getConfig(config->apiKey(), [config](std::shared_ptr<TessraConfig> fetched) {
            // Building reports and the session listener leaves the URL session's thread free.
            detail::onUtilityQueue([config, fetched] {
                try {
                    finishStartUp(config, fetched);
                } catch (const std::exception& e) {
                    Console::print(std::string("TessraQuill: start-up failed: ") + e.what());
                }
            });
        });
    } catch (const std::exception& e) {
        Console::print(std::string("TessraQuill: initialize failed: ") + e.what());
    }
}

void TessraQuill::clearInstallationData() {
    platform::currentPlatform()->application->unregisterForRemoteNotifications();
    auto& defaults = *storageManager().defaultStorage;
    defaults.set(rawValue(StorageKey::reg), PlistValue(false));
    defaults.synchronize();
}

void TessraQuill::updateScheduler() {
    try {
        auto interval = storageManager().getScheduledTime();
        if (!interval) return;
        cancelScheduledNotifications();
        createScheduledNotification(*interval);
    } catch (const std::exception& e) {
        Console::print(std::string("updateScheduler failed: ") + e.what());
    }
}

std::shared_ptr<TessraQuillDelegate> TessraQuill::tessraDelegate() {
    std::lock_guard lock(facade().mutex);
    return facade().delegate.lock();
}

void TessraQuill::setTessraDelegate(std::weak_ptr<TessraQuillDelegate> delegate) {
    std::lock_guard lock(facade().mutex);
    facade().delegate = std::move(delegate);
}

std::shared_ptr<TessraConfig> TessraQuill::config() {
    std::lock_guard lock(facade().mutex);
    return facade().config;
}

bool TessraQuill::initialized() {
    std::lock_guard lock(facade().mutex);
    return facade().initialized;
}

StorageManager& TessraQuill::storageManager() {
    std::lock_guard lock(facade().mutex);
    if (!facade().storage) facade().storage = std::make_unique<StorageManager>();
    return *facade().storage;
}

TessraRequest& TessraQuill::tessraRequest() {
    static auto* request = new TessraRequest;  // never destroyed, like the facade's state
    return *request;
}

std::string TessraQuill::currentPage() {
    std::lock_guard lock(facade().mutex);
    return facade().currentPage;
}

std::string TessraQuill::referrerPage() {
    std::lock_guard lock(facade().mutex);
    return facade().referrerPage;
}

std::int64_t TessraQuill::sendTrackCounter() {
    std::lock_guard lock(facade().mutex);
    return facade().sendTrackCounter;
}

void TessraQuill::setExtraClsr(ExtraClsr completion) {
    std::lock_guard lock(facade().mutex);
    facade().extraClsr = std::move(completion);
}

}  // namespace tessrakite
