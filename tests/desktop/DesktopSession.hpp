#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gio/gio.h>

namespace tessrakite::test {

/// A private session bus: a dbus-daemon of its own, named by DBUS_SESSION_BUS_ADDRESS
/// while alive. `error` says why it could not start.
class PrivateBus {
public:
    explicit PrivateBus(const std::filesystem::path& folder);
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;
    const std::string& address() const { return address_; }
    const std::string& error() const { return error_; }

private:
    GSubprocess* daemon_ = nullptr;
    std::string address_, error_;
};

/// A notification service on the session bus, run on a thread of its own: it answers
/// Notify (ids from 1), CloseNotification, GetServerInformation and GetCapabilities
/// ("actions", "body", "body-markup"), records each call, and emits ActionInvoked. It also
/// listens to launcher-entry counts, as a dock does ("LauncherEntry.Update": the app in
/// appName, the object path and each property's printed value in hints).
class NotificationServiceStandIn {
public:
    using Clock = std::chrono::steady_clock;
    struct Call {
        std::string method;
        std::string appName, summary, body;
        std::uint32_t replacesId = 0, id = 0;  // id: the one Notify answered or CloseNotification named
        std::vector<std::string> actions;
        std::map<std::string, std::string> hints;  // string hints only
        Clock::time_point at;
    };

    NotificationServiceStandIn();
    ~NotificationServiceStandIn();
    NotificationServiceStandIn(const NotificationServiceStandIn&) = delete;
    NotificationServiceStandIn& operator=(const NotificationServiceStandIn&) = delete;
    /// Why it is not on the bus, if it is not.
    const std::string& error() const { return error_; }

    std::vector<Call> calls(const std::string& method) const;
    /// The user clicks `action` ("default": the notification itself) of notification `id`;
    /// the service then closes it, as servers do.
    void invokeAction(std::uint32_t id, const std::string& action);

private:
    void run(std::string address);
    static void onMethod(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method,
                         GVariant* parameters, GDBusMethodInvocation* invocation, gpointer self);
    static void onLauncherUpdate(GDBusConnection*, const gchar*, const gchar* path, const gchar*, const gchar*,
                                 GVariant* parameters, gpointer self);

    mutable std::mutex mutex_;
    std::vector<Call> calls_;
    std::uint32_t nextId_ = 1;
    std::string error_;
    GMainContext* context_ = nullptr;
    GMainLoop* loop_ = nullptr;
    GDBusConnection* connection_ = nullptr;
    std::thread thread_;
};

/// A display for windows: DISPLAY when it is set, else an Xvfb this process starts once and
/// keeps until it exits (GTK opens one display per process). Empty when there is one, else
/// why there is none.
std::string ensureDisplay();

/// Runs `pump` until `done` holds or `seconds` pass; true when it held.
bool pumpUntil(const std::function<void()>& pump, const std::function<bool()>& done, double seconds = 5.0);

}  // namespace tessrakite::test
