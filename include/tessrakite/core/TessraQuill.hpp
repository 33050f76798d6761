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
#include <tessrakite/platform/Device.hpp>
#include <tessrakite/location/Beacons.hpp>
#include <tessrakite/location/Geofences.hpp>
#include <tessrakite/platform/Image.hpp>
#include <tessrakite/platform/PlistValue.hpp>
#include <tessrakite/platform/Url.hpp>
#include <tessrakite/platform/UrlSession.hpp>
#include <tessrakite/platform/UserNotificationCenter.hpp>

// Push payloads
#include <memory>
#include <optional>
#include <variant>
#include <tessrakite/push/Action.hpp>
#include <tessrakite/push/Conversion.hpp>
#include <tessrakite/push/N.hpp>
#include <tessrakite/push/NotificationObject.hpp>
#include <tessrakite/push/PCampaignObject.hpp>
#include <tessrakite/push/PushObj.hpp>

namespace tessrakite {

class TessraRequest;
class TessraBeaconManager;
namespace platform {
class CLRegion;
struct CLBeacon;
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

    // ---- Location ----
    using AdministrativeCompletion = std::function<void(std::optional<Geofences>, std::optional<Beacons>)>;
    /// An administrative push: its alert's geofences ("gl", which wins) or beacons ("bl")
    /// go to `completion`, at most once, on the caller's thread. Nothing while push is off;
    /// a malformed alert is dropped in silence. A user info without "aps", or a geofence or
    /// beacon without its required keys, stops the process.
    static void didReciveAdministrativeNotificationWith(const PlistDictionary& userInfo,
                                                        AdministrativeCompletion completion);
    // Part of the interface; they do nothing.
    static void registerGeoLocations(const std::vector<PlistDictionary>& list);
    static void sendLocationEnter(const platform::CLRegion& region);
    static void sendLocationLeft(const platform::CLRegion& region);
    static void sendiBeaconProximity(const platform::CLBeacon& beacon);
    /// The beacon manager start-up made when push and beacons were on; nothing otherwise.
    static std::shared_ptr<TessraBeaconManager> tessraBecon();
    /// Beacon proximity UUID to the time (seconds since 1970) until which it is suppressed.
    static std::map<std::string, double> beaconSpamDict();

    // ---- Notification service (called from the app's service extension) ----
    using ContentHandler = std::function<void(platform::UNNotificationContent)>;
    /// Fills `best` from the push (campaign fetch, title, body, sound, buttons, image) and
    /// hands it to `completion`, later, from a network completion or the main queue.
    /// Returns the category identifier the message gets; nothing when the payload does not
    /// decode or push is off (then `best` is handed back unchanged).
    static std::optional<std::string> didReceiveNotification(const platform::UNNotificationRequest& request,
                                                             platform::UNMutableNotificationContent best,
                                                             ContentHandler completion);
    /// The extension's time is up: hands `best` over as it stands (nothing while push is off).
    static void notificationBuilderWillTerminate(const PlistDictionary& userInfo,
                                                 platform::UNMutableNotificationContent best,
                                                 ContentHandler completion);
    /// Badge counter kept in "tx_badge"; shown on `forNotif` when given, else on the app icon.
    static void addNotificationCount(platform::UNMutableNotificationContent* forNotif);
    static void decreseNotificationCount(platform::UNMutableNotificationContent* forNotif);
    static void setAppBadge(std::int64_t value);
    /// The size a content extension asks for: (screen width, 120) for a compact message
    /// (el 3), else (screen width, screen width × 0.8).
    static platform::Size getPreferedContentSize(const platform::UNNotification& with);
    static void downloadImage(const std::optional<Url>& from,
                              std::function<void(std::shared_ptr<platform::Image>)> success,
                              std::function<void(std::string)> failure);
    static void setSoundFor(platform::UNMutableNotificationContent& notification, const N& with);
    static void checkTagAnddeletePreviousMessagesWith(const std::optional<std::string>& tag,
                                                      const std::string& norificationId);
    static void cleanOldData(const platform::UNNotificationRequest& withNew);

    // ---- Opens and conversions ----
    /// Reports the conversion trackers of the opened notification, then opens the URL of
    /// the chosen action (`open` true) or hands it to `completion` (`open` false).
    static void pushTrackOpen(bool open, const platform::UNNotificationResponse& response,
                              std::function<void(std::optional<std::string>)> completion);
    static void saveUrl(const std::optional<Action>& with, const std::string& notificationId);
    static void saveConversions(const std::optional<Conversion>& with, const std::string& notificationId);
    static void deletePreviousConversionsWith(const std::string& notificationId);
    static void deletePreviousUrlsWith(const std::string& notificationId);
    /// Web links open through the application; any other scheme goes to the delegate's handleURL.
    static void openDeepOrUrl(const Url& url, const std::optional<std::string>& conversion);
    /// Posts the stored campaign again one second later as "uniq" (gated on "tx_mavo" and
    /// "tx_eEndpoint").
    static void renotify(const platform::UNNotificationRequest& withRequest);

    // ---- Notification permission ----
    /// Asks for notification permission when the user has not decided yet: the system's
    /// registration, or first the custom prompt page presented over `on` when that path is
    /// switched on. Nothing when the user has already answered.
    static void askForNotificationPermissionWith(std::shared_ptr<platform::ViewController> on);
    /// Asks the application, on the main queue, to register for remote notifications.
    static void askForNotificationsPermission();

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
