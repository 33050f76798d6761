#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/Platform.hpp>
#include <tessrakite/platform/Window.hpp>

namespace tessrakite::platform::headless {

/// Every effect of the headless platform is reported here as a name and its arguments
/// ("openURL" {"url": ...}, "badge" {"value": ...}, "notificationAdded" {...}, ...).
class TESSRA_EXPORT Effects {
public:
    using Sink = std::function<void(const std::string& name, const nlohmann::ordered_json& args)>;
    void setSink(Sink sink);
    void emit(const std::string& name, const nlohmann::ordered_json& args = nlohmann::ordered_json::object());

private:
    std::mutex mutex_;
    std::shared_ptr<Sink> sink_;
};

class TESSRA_EXPORT HeadlessNotificationCenter final : public NotificationCenter {
public:
    ObserverToken addObserver(const std::string& name, std::function<void()> block) override;
    void removeObserver(ObserverToken token) override;
    void post(const std::string& name) override;
    std::size_t observerCount(const std::string& name) const;

private:
    mutable std::mutex mutex_;
    ObserverToken next_ = 1;
    std::map<ObserverToken, std::pair<std::string, std::shared_ptr<std::function<void()>>>> observers_;
};

class TESSRA_EXPORT HeadlessApplication final : public Application {
public:
    HeadlessApplication(std::shared_ptr<Effects> effects, std::shared_ptr<RunLoop> runLoop);

    void registerForRemoteNotifications() override;
    void unregisterForRemoteNotifications() override;
    bool isRegisteredForRemoteNotifications() const override;
    std::int64_t applicationIconBadgeNumber() const override;
    void setApplicationIconBadgeNumber(std::int64_t value) override;
    bool canOpenURL(const Url& url) const override;
    void open(const Url& url, std::function<void(bool)> completion) override;
    BackgroundTaskIdentifier beginBackgroundTask(const std::string& name,
                                                 std::function<void()> expirationHandler) override;
    void endBackgroundTask(BackgroundTaskIdentifier identifier) override;
    ApplicationState applicationState() const override;

    // Injection and observation.
    /// Called on the main queue with the device token after registration (the app
    /// delegate's didRegisterForRemoteNotificationsWithDeviceToken).
    void setDeviceTokenHandler(std::function<void(const Data&)> handler);
    void setDeviceToken(Data token);
    void setApplicationState(ApplicationState state);
    /// Schemes that canOpenURL accepts (default: http, https).
    void setOpenableSchemes(std::set<std::string> schemes);
    std::vector<std::string> openedURLs() const;
    /// Names of background tasks begun and not yet ended.
    std::vector<std::string> activeBackgroundTasks() const;
    /// Runs the expiration handlers of all open background tasks.
    void expireBackgroundTasks();

private:
    std::shared_ptr<Effects> effects_;
    std::shared_ptr<RunLoop> runLoop_;
    mutable std::mutex mutex_;
    bool registered_ = false;
    std::int64_t badge_ = 0;
    Data token_;
    std::function<void(const Data&)> tokenHandler_;
    ApplicationState state_ = ApplicationState::active;
    std::set<std::string> schemes_{"http", "https"};
    std::vector<std::string> opened_;
    BackgroundTaskIdentifier nextTask_ = 1;
    std::map<BackgroundTaskIdentifier, std::pair<std::string, std::function<void()>>> tasks_;
};

/// Told of what the user should see: each delivery (at once or when a trigger fires) and
/// each removal of delivered notifications, after the store has it. A desktop shows them.
class TESSRA_EXPORT DeliveryObserver {
public:
    virtual ~DeliveryObserver() = default;
    virtual void delivered(const UNNotificationRequest& request) = 0;
    virtual void removed(const std::vector<std::string>& identifiers) = 0;
};

/// The user-notification centre of one application, shared by the app and its extensions
/// as the phone's system service is: pending requests, delivered notifications and
/// categories live in FileRoots::appFolder(<app bundle id>)/notifications.sqlite, where
/// the app bundle id is the main bundle's, or the containing application's when the main
/// bundle is an extension (App.app/PlugIns/X.appex). The file is opened at first use.
/// Queries answer on a serial queue of the centre's own, never on the main queue.
/// Time-interval triggers fire from the run loop; details in docs/platform.md.
class TESSRA_EXPORT HeadlessUserNotificationCenter final : public UserNotificationCenter {
public:
    /// The authorization answer arrives on `answerQueue` (the main queue when none), off
    /// the main thread as on the phone. The run loop's runUntilIdle waits for the queries
    /// this centre is answering.
    HeadlessUserNotificationCenter(std::shared_ptr<Effects> effects, std::shared_ptr<RunLoop> runLoop,
                                   std::shared_ptr<Clock> clock, std::shared_ptr<SerialQueue> answerQueue = nullptr);
    ~HeadlessUserNotificationCenter() override;
    HeadlessUserNotificationCenter(const HeadlessUserNotificationCenter&) = delete;
    HeadlessUserNotificationCenter& operator=(const HeadlessUserNotificationCenter&) = delete;

    void requestAuthorization(unsigned options,
                              std::function<void(bool granted, std::optional<std::string> error)> completion) override;
    void getNotificationSettings(std::function<void(UNNotificationSettings)> completion) override;
    void add(UNNotificationRequest request, std::function<void(std::optional<std::string> error)> completion) override;
    void getPendingNotificationRequests(std::function<void(std::vector<UNNotificationRequest>)> completion) override;
    void removePendingNotificationRequests(const std::vector<std::string>& identifiers) override;
    void removeAllPendingNotificationRequests() override;
    void getDeliveredNotifications(std::function<void(std::vector<UNNotification>)> completion) override;
    void removeDeliveredNotifications(const std::vector<std::string>& identifiers) override;
    void removeAllDeliveredNotifications() override;
    void setNotificationCategories(std::vector<UNNotificationCategory> categories) override;
    void getNotificationCategories(std::function<void(std::vector<UNNotificationCategory>)> completion) override;

    // Injection and observation.
    /// The answer the user gives from now on: whether access is granted and the status
    /// the settings report afterwards.
    void setAuthorizationAnswer(bool granted, UNAuthorizationStatus status);
    void setAuthorizationStatus(UNAuthorizationStatus status);
    /// The shared state as it is now, whichever process changed it.
    std::vector<UNNotificationRequest> pending() const;
    /// In delivery order, oldest first.
    std::vector<UNNotification> delivered() const;
    std::vector<UNNotificationCategory> categories() const;
    /// Options passed to the last authorization request, if any.
    std::optional<unsigned> lastAuthorizationOptions() const;
    /// The one observer of deliveries and removals in this process; none by default.
    void setDeliveryObserver(std::shared_ptr<DeliveryObserver> observer);

    static nlohmann::ordered_json toJSON(const UNNotificationContent& content);
    /// {"interval", "repeats"}, or null for a request delivered at once.
    static nlohmann::ordered_json toJSON(const std::optional<UNTimeIntervalNotificationTrigger>& trigger);

private:
    struct Shared;

    std::shared_ptr<Effects> effects_;
    std::shared_ptr<RunLoop> runLoop_;
    std::shared_ptr<Clock> clock_;
    std::shared_ptr<SerialQueue> answerQueue_;
    std::shared_ptr<Shared> shared_;
    mutable std::mutex mutex_;
    bool answerGranted_ = true;
    UNAuthorizationStatus answerStatus_ = UNAuthorizationStatus::authorized;
    UNAuthorizationStatus status_ = UNAuthorizationStatus::notDetermined;
    std::optional<unsigned> lastOptions_;
    // Last member: destroyed first, so queued answers finish while the rest is alive.
    std::shared_ptr<SerialQueue> queries_;
};

/// The screen's bounds follow the interface: a landscape orientation makes them wider
/// than high. `boundsChanged` runs on the caller's thread after each change.
class TESSRA_EXPORT HeadlessScreen final : public Screen {
public:
    explicit HeadlessScreen(std::function<void(Rect)> boundsChanged = nullptr);
    Rect bounds() const override;
    void setBounds(Rect bounds);

private:
    mutable std::mutex mutex_;
    Rect bounds_{0, 0, 390, 844};
    std::function<void(Rect)> boundsChanged_;
};

/// A change of orientation is posted as DeviceNotification::orientationDidChange.
class TESSRA_EXPORT HeadlessDevice final : public Device {
public:
    explicit HeadlessDevice(std::shared_ptr<NotificationCenter> notificationCenter = nullptr);
    std::string machine() const override;
    std::string systemName() const override;
    std::string systemVersion() const override;
    std::string vendor() const override;
    std::string kind() const override { return "desktop"; }
    DeviceOrientation orientation() const override;
    void setOrientation(DeviceOrientation orientation);

private:
    std::shared_ptr<NotificationCenter> notificationCenter_;
    mutable std::mutex mutex_;
    DeviceOrientation orientation_ = DeviceOrientation::portrait;
};

/// Location managers whose region and beacon events are injected. A manager hears the
/// events of the regions it monitors (entry, exit, state) or ranges (beacons), on the
/// queue of the thread that made it: the main queue when made on the main thread, the
/// utility queue when made there, else the main queue. Its calls are reported as effects:
/// "requestAlwaysAuthorization", "startMonitoring" {region, uuid}, "startRanging" {region},
/// "requestState" {region}. A state request is answered with the region's last injected
/// state (an entry counts as inside, an exit as outside), unknown before any.
class TESSRA_EXPORT HeadlessLocationServices final : public LocationServices {
public:
    HeadlessLocationServices(std::shared_ptr<Effects> effects, std::shared_ptr<RunLoop> runLoop,
                             std::shared_ptr<SerialQueue> utilityQueue);
    std::shared_ptr<LocationManager> makeLocationManager() override;

    // Injection. Each returns how many live managers the event was queued for.
    std::size_t enterRegion(const std::string& identifier);
    std::size_t exitRegion(const std::string& identifier);
    std::size_t determineState(const std::string& identifier, CLRegionState state);
    std::size_t rangeBeacons(const std::string& identifier, const std::vector<CLBeacon>& beacons);

    struct Shared;

private:
    std::shared_ptr<Effects> effects_;
    std::shared_ptr<RunLoop> runLoop_;
    std::weak_ptr<SerialQueue> utilityQueue_;
    std::shared_ptr<Shared> shared_;
};

struct TESSRA_EXPORT HeadlessOptions {
    std::shared_ptr<Clock> clock;            // default: the system clock
    std::shared_ptr<UrlSession> urlSession;  // default: libcurl, options from the environment
};

/// The headless platform with its concrete services, for hosts and tests that inject
/// inputs and observe effects.
struct TESSRA_EXPORT Headless {
    std::shared_ptr<Platform> platform;
    std::shared_ptr<Effects> effects;
    std::shared_ptr<HeadlessNotificationCenter> notificationCenter;
    std::shared_ptr<HeadlessApplication> application;
    std::shared_ptr<HeadlessUserNotificationCenter> userNotificationCenter;
    std::shared_ptr<HeadlessScreen> screen;
    std::shared_ptr<HeadlessDevice> device;
    std::shared_ptr<HeadlessLocationServices> location;
    /// The key window, sized to the screen: a portrait or landscape orientation turns both
    /// and lays the window out again. Presentations report "present" and "dismiss".
    std::shared_ptr<Window> window;
};

TESSRA_EXPORT Headless makeHeadlessPlatform(HeadlessOptions options = {});

}  // namespace tessrakite::platform::headless
