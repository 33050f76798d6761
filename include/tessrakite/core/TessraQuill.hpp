#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <tessrakite/Export.hpp>
#include <tessrakite/core/StorageManager.hpp>
#include <tessrakite/core/TessraConfig.hpp>
#include <tessrakite/core/TessraQuillDelegate.hpp>
#include <tessrakite/platform/PlistValue.hpp>
#include <tessrakite/platform/UrlSession.hpp>
#include <tessrakite/platform/UserNotificationCenter.hpp>

// Push payloads
#include <memory>
#include <optional>
#include <variant>
#include <tessrakite/push/NotificationObject.hpp>
#include <tessrakite/push/PCampaignObject.hpp>
#include <tessrakite/push/PushObj.hpp>

namespace tessrakite {

class TessraRequest;
namespace platform {
class ViewController;
}

/// The SDK's facade: every host entry point is a static member. Process-wide state is
/// created once, on first use, and guarded so that any thread may call.
class TESSRA_EXPORT TessraQuill {
public:
    /// (status code, status text, transport error) of a tracking send.
    using ExtraClsr = std::function<void(std::optional<std::int64_t>, std::optional<std::string>,
                                         std::optional<platform::UrlError>)>;

    // ---- Start-up ----
    /// Starts the SDK: call once, early, on the main thread. Writes this launch's session
    /// (and on a first start the default endpoints) in one store commit and returns; the
    /// configuration document is fetched in the background.
    static void initialize(std::shared_ptr<TessraConfig> config);
    static void clearInstallationData();
    static void updateScheduler();

    // ---- State ----
    static std::shared_ptr<TessraQuillDelegate> tessraDelegate();
    static void setTessraDelegate(std::weak_ptr<TessraQuillDelegate> delegate);
    static std::shared_ptr<TessraConfig> config();
    static bool initialized();
    static StorageManager& storageManager();
    static TessraRequest& tessraRequest();
    static std::string currentPage();
    static std::string referrerPage();
    static std::map<std::string, std::string> utm();
    static std::int64_t sendTrackCounter();
    static void setExtraClsr(ExtraClsr completion);

    // ---- Campaign parameters ----
    static void setUtm(const std::string& key, const std::string& value);
    static std::string getUtm(const std::string& key);
    static void removeUtm(const std::string& key);

    // ---- Activities ----
    static void installOpenActivity(const std::map<std::string, std::string>& utm);
    static void tessraSendActivity(std::int64_t code, const std::map<std::string, std::string>& utm);
    static void tessraSendGeneralActivity(std::int64_t code);
    static void tessraSendActivitySwizzle(std::int64_t code, const std::string& page);
    static void sendCustomEvent(const std::string& key, const PlistValue& value);

    // ---- Event tracking ----
    static void track(const PlistDictionary& values);
    static std::map<std::string, std::string> getTrack();
    static std::string getTrackFor(const std::string& key);
    static void removeTrack();
    static void removeTrackFor(const std::string& key);
    static void sendTrack(ExtraClsr completion);
    /// Posts `values` at once as a tracking report, leaving the pending map, the last
    /// accepted map and the retry counter alone.
    static void sendCustomTestTrack(const PlistDictionary& values, ExtraClsr completion);

    // ---- Device token ----
    /// The host passes the raw token from its remote-notification registration.
    static void registerToken(const Data& deviceToken);
    /// Two lower-case hexadecimal digits per byte.
    static std::string serializeDeviceToken(const Data& deviceToken);
    static void tessraSendUser(const std::string& token);

    // ---- Reminders ----
    /// Schedules the repeating reminder every `delay` seconds (at least 60), replacing the
    /// one before; nothing but a console line while push is off.
    static void createScheduledNotification(double delay);
    /// Removes the scheduled reminder, pending and delivered; nothing when none is stored.
    static void cancelScheduledNotifications();
    /// The reminder's title from the next scheduling on.
    static void setNotification(const std::string& text);

    // Push payloads (declared here by the push records work).

    /// Decodes a push's user info as a direct push, or failing that as a campaign; nothing
    /// when it is not a JSON object or has neither shape. A payload of both shapes is a
    /// direct push.
    static std::optional<std::variant<PushObj, PCampaignObject>> parsePushObj(const PlistDictionary& userInfo);
    /// The messages of a delivered notification, read from the request's content user info
    /// (`userInfo` is not read). A campaign wins over a direct push; every message carries
    /// the request's identifier. Nothing when the user info is not a JSON object; an empty
    /// list when it has neither shape.
    static std::shared_ptr<NotificationObject> getNotificationContent(const PlistDictionary& userInfo,
                                                                      const platform::UNNotificationRequest& request);
};

/// The screen hooks, called from a screen's appearance callbacks once installed.
TESSRA_EXPORT void viewDidLoadSwizzlingMethod(platform::ViewController& controller);
TESSRA_EXPORT void viewDidDissapearSwizzlingMethod(platform::ViewController& controller);

}  // namespace tessrakite
