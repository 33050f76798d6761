#include "platform/desktop/GLibSupport.hpp"

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <set>

#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/Console.hpp>

namespace tessrakite::platform::desktop {
namespace {

using headless::Effects;
using headless::HeadlessUserNotificationCenter;
using nlohmann::ordered_json;

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
constexpr const char* kInterface = "org.freedesktop.Notifications";
constexpr const char* kLabel = "Desktop notifications";
constexpr gint kCallTimeoutMs = 5000;

// The name the notification service shows as the sender: the application's, also when an
// extension (App.app/PlugIns/X.appex) delivers.
std::string applicationName() {
    auto bundle = Bundle::main();
    if (!bundle) return "TessraKite";
    if (auto application = Bundle::containingApplication(*bundle)) bundle = application;
    if (auto name = bundle->displayName()) return *name;
    if (auto name = bundle->string("CFBundleName")) return *name;
    return "TessraKite";
}

std::string escaped(const std::string& text) {
    gchar* e = g_markup_escape_text(text.c_str(), static_cast<gssize>(text.size()));
    std::string out = e;
    g_free(e);
    return out;
}

// The phone shows the subtitle as a line of its own above the body: bold where the
// service reads markup, a plain first line where it does not.
std::string bodyText(const UNNotificationContent& c, bool markup) {
    if (c.subtitle.empty()) return markup ? escaped(c.body) : c.body;
    if (markup) return "<b>" + escaped(c.subtitle) + "</b>\n" + escaped(c.body);
    return c.subtitle + "\n" + c.body;
}

// "default" is the phone's stock sound; the freedesktop sound theme's name for it.
std::string soundName(const std::string& sound) { return sound == "default" ? "message-new-instant" : sound; }

struct Bus;

// What a GLib callback holds: the state, as long as it lives.
struct CallData {
    std::weak_ptr<Bus> bus;
    std::string identifier;
};

struct PendingNotify {
    std::weak_ptr<Bus> bus;
    UNNotificationRequest request;
};

/// The connection and the map between the service's ids and request identifiers. Every
/// bus call is made on the default main context, so replies and signals arrive there.
struct Bus final : headless::DeliveryObserver, std::enable_shared_from_this<Bus> {
    Bus(std::weak_ptr<HeadlessUserNotificationCenter> s, std::shared_ptr<Effects> e, std::shared_ptr<RunLoop> r,
        std::shared_ptr<SerialQueue> a)
        : store(std::move(s)), effects(std::move(e)), runLoop(std::move(r)), answers(std::move(a)) {}

    ~Bus() override {
        if (!connection) return;
        for (guint id : subscriptions) g_dbus_connection_signal_unsubscribe(connection, id);
        g_object_unref(connection);
    }
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    std::weak_ptr<HeadlessUserNotificationCenter> store;
    std::shared_ptr<Effects> effects;
    std::shared_ptr<RunLoop> runLoop;
    std::shared_ptr<SerialQueue> answers;
    std::atomic<int> inFlight{0};  // calls made or waiting for the main context, not answered

    std::mutex mutex;
    GDBusConnection* connection = nullptr;
    std::string connectError;
    std::vector<guint> subscriptions;
    bool connecting = false, failing = false;   // main context only
    std::string appName;                         // the sender's name; main context only
    std::vector<std::function<void()>> retries;  // waiting for the connection
    std::optional<bool> markup;  // whether the service reads body markup, once it said
    std::map<std::string, guint32> shown;             // request identifier -> service id
    std::map<guint32, std::string> requests;          // service id -> request identifier
    std::set<std::string> showing;                    // Notify sent, no id back yet
    std::set<std::string> closeWhenShown;             // removed while showing
    std::function<void(const UNNotificationResponse&)> handler;
    UNAuthorizationStatus status = UNAuthorizationStatus::notDetermined;

    // ---- connection (on the main context) ----

    enum class Link { up, waiting, down };

    /// Whether the connection is up. Without one yet, connecting starts (once at a time,
    /// without waiting on the main loop) and `retry` runs when the attempt has ended,
    /// counted as in flight until then: `waiting`. While the retries of a failed attempt run,
    /// `down`. Each new call after that tries again.
    Link link(std::function<void()> retry) {
        {
            std::lock_guard lock(mutex);
            if (connection) return Link::up;
        }
        if (failing) return Link::down;
        ++inFlight;
        retries.push_back(std::move(retry));
        if (connecting) return Link::waiting;
        connecting = true;
        std::weak_ptr<Bus> weak = weak_from_this();
        connectSessionBus(weak, [weak](GDBusConnection* c, const std::string& why) {
            if (auto self = weak.lock()) self->connected(c, why);
        });
        return Link::waiting;
    }

    void connected(GDBusConnection* c, const std::string& why) {
        connecting = false;
        if (c) {
            connectError.clear();
            for (const char* member : {"ActionInvoked", "NotificationClosed"})
                subscriptions.push_back(g_dbus_connection_signal_subscribe(
                    c, nullptr, kInterface, member, kPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE, onSignal,
                    new std::weak_ptr<Bus>(weak_from_this()),
                    [](gpointer data) { delete static_cast<std::weak_ptr<Bus>*>(data); }));
            std::lock_guard lock(mutex);
            connection = c;
        } else {
            if (why != connectError) Console::print(std::string(kLabel) + ": no session bus (" + why + ")");
            connectError = why;
            failing = true;
        }
        // Each retry takes over the in-flight count it was queued with.
        for (auto& retry : std::exchange(retries, {})) retry();
        failing = false;
    }

    // Whether the service reads body markup, asked once before the first notification so
    // its body is right. Asked without waiting: a service that hangs must not hold up the
    // main loop; the notification goes out when the answer (or the time-out) comes.
    static void onCapabilities(GObject* source, GAsyncResult* result, gpointer data) {
        std::unique_ptr<PendingNotify> pending(static_cast<PendingNotify*>(data));
        GError* error = nullptr;
        GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
        bool found = false;
        if (reply) {
            GVariantIter* capabilities = nullptr;
            g_variant_get(reply, "(as)", &capabilities);
            const gchar* capability = nullptr;
            while (g_variant_iter_loop(capabilities, "&s", &capability))
                if (std::string(capability) == "body-markup") found = true;
            g_variant_iter_free(capabilities);
            g_variant_unref(reply);
        }
        g_clear_error(&error);
        auto self = pending->bus.lock();
        if (!self) return;
        {
            std::lock_guard lock(self->mutex);
            if (!self->markup) self->markup = found;
        }
        self->notify(pending->request);
    }

    // Work for the main context, counted as in flight until `done` is called.
    void onMain(std::function<void()> work) {
        ++inFlight;
        onMainContext(std::move(work));
    }
    void done() { --inFlight; }

    // ---- showing ----

    void delivered(const UNNotificationRequest& request) override {
        std::weak_ptr<Bus> weak = weak_from_this();
        onMain([weak, request] {
            if (auto self = weak.lock()) self->notify(request);
        });
    }

    GDBusConnection* bus() {
        std::lock_guard lock(mutex);
        return connection;
    }

    void notify(const UNNotificationRequest& request) {
        std::weak_ptr<Bus> weak = weak_from_this();
        if (link([weak, request] {
                if (auto self = weak.lock()) self->notify(request);
            }) != Link::up)
            return done();
        GDBusConnection* c = bus();
        std::optional<bool> knownMarkup;
        {
            std::lock_guard lock(mutex);
            knownMarkup = markup;
        }
        if (!knownMarkup) {
            g_dbus_connection_call(c, kService, kPath, kInterface, "GetCapabilities", nullptr, G_VARIANT_TYPE("(as)"),
                                   G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, onCapabilities,
                                   new PendingNotify{weak_from_this(), request});
            return;
        }
        const bool markupBody = *knownMarkup;
        const auto& content = request.content;

        GVariantBuilder actions;
        g_variant_builder_init(&actions, G_VARIANT_TYPE("as"));
        // "default" is a click on the notification itself.
        g_variant_builder_add(&actions, "s", "default");
        g_variant_builder_add(&actions, "s", "Open");
        if (auto s = store.lock(); s && !content.categoryIdentifier.empty())
            for (const auto& category : s->categories())
                if (category.identifier == content.categoryIdentifier)
                    for (const auto& action : category.actions) {
                        g_variant_builder_add(&actions, "s", action.identifier.c_str());
                        g_variant_builder_add(&actions, "s", action.title.c_str());
                    }
        GVariantBuilder hints;
        g_variant_builder_init(&hints, G_VARIANT_TYPE("a{sv}"));
        for (const auto& attachment : content.attachments)
            if (!attachment.url.empty()) {
                g_variant_builder_add(&hints, "{sv}", "image-path", g_variant_new_string(attachment.url.c_str()));
                break;
            }
        if (content.sound)
            g_variant_builder_add(&hints, "{sv}", "sound-name", g_variant_new_string(soundName(*content.sound).c_str()));

        guint32 replaces = 0;
        {
            std::lock_guard lock(mutex);
            // A request delivered again under its identifier replaces what it showed.
            if (auto it = shown.find(request.identifier); it != shown.end()) replaces = it->second;
            showing.insert(request.identifier);
            closeWhenShown.erase(request.identifier);
        }
        const std::string body = bodyText(content, markupBody);
        // Read once: for an extension it means opening its application's Info.plist.
        if (appName.empty()) appName = applicationName();
        g_dbus_connection_call(
            c, kService, kPath, kInterface, "Notify",
            g_variant_new("(susssasa{sv}i)", appName.c_str(), replaces, "", content.title.c_str(),
                          body.c_str(), &actions, &hints, -1),
            G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, onNotified,
            new CallData{weak_from_this(), request.identifier});
    }

    static void onNotified(GObject* source, GAsyncResult* result, gpointer data) {
        std::unique_ptr<CallData> call(static_cast<CallData*>(data));
        GError* error = nullptr;
        GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
        auto self = call->bus.lock();
        if (!self) {
            if (reply) g_variant_unref(reply);
            g_clear_error(&error);
            return;
        }
        std::optional<guint32> id;
        if (reply) {
            guint32 value = 0;
            g_variant_get(reply, "(u)", &value);
            g_variant_unref(reply);
            id = value;
        } else {
            Console::print(std::string(kLabel) + ": \"" + call->identifier + "\" was not shown (" +
                           takeMessage(error) + ")");
        }
        bool closeNow = false;
        {
            std::lock_guard lock(self->mutex);
            self->showing.erase(call->identifier);
            closeNow = self->closeWhenShown.erase(call->identifier) > 0;
            if (id && !closeNow) {
                if (auto old = self->shown.find(call->identifier); old != self->shown.end())
                    self->requests.erase(old->second);
                self->shown[call->identifier] = *id;
                self->requests[*id] = call->identifier;
            }
        }
        if (id) self->effects->emit("desktopNotify", {{"identifier", call->identifier}, {"id", *id}});
        if (id && closeNow) self->close(*id);
        self->done();
    }

    void removed(const std::vector<std::string>& identifiers) override {
        std::weak_ptr<Bus> weak = weak_from_this();
        onMain([weak, identifiers] {
            auto self = weak.lock();
            if (!self) return;
            std::vector<guint32> ids;
            {
                std::lock_guard lock(self->mutex);
                for (const auto& identifier : identifiers) {
                    if (auto it = self->shown.find(identifier); it != self->shown.end()) {
                        ids.push_back(it->second);
                        self->requests.erase(it->second);
                        self->shown.erase(it);
                    } else if (self->showing.count(identifier)) {
                        self->closeWhenShown.insert(identifier);
                    }
                }
            }
            for (guint32 id : ids) self->close(id);
            self->done();
        });
    }

    // On the main context.
    void close(guint32 id) {
        std::weak_ptr<Bus> weak = weak_from_this();
        if (link([weak, id] {
                if (auto self = weak.lock()) {
                    self->close(id);
                    self->done();
                }
            }) != Link::up)
            return;
        GDBusConnection* c = bus();
        ++inFlight;
        g_dbus_connection_call(
            c, kService, kPath, kInterface, "CloseNotification", g_variant_new("(u)", id), nullptr,
            G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr,
            [](GObject* source, GAsyncResult* result, gpointer data) {
                std::unique_ptr<CallData> call(static_cast<CallData*>(data));
                GError* error = nullptr;
                GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
                if (reply) g_variant_unref(reply);
                g_clear_error(&error);  // already gone: nothing to do
                if (auto self = call->bus.lock()) self->done();
            },
            new CallData{weak_from_this(), {}});
        effects->emit("desktopClose", {{"id", id}});
    }

    // ---- what the user did ----

    static void onSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* member,
                         GVariant* parameters, gpointer data) {
        auto self = static_cast<std::weak_ptr<Bus>*>(data)->lock();
        if (!self) return;
        const std::string name = member;
        if (name == "ActionInvoked" && g_variant_is_of_type(parameters, G_VARIANT_TYPE("(us)"))) {
            guint32 id = 0;
            const gchar* action = nullptr;
            g_variant_get(parameters, "(u&s)", &id, &action);
            self->invoked(id, action);
        } else if (name == "NotificationClosed" && g_variant_is_of_type(parameters, G_VARIANT_TYPE("(uu)"))) {
            guint32 id = 0, reason = 0;
            g_variant_get(parameters, "(uu)", &id, &reason);
            std::lock_guard lock(self->mutex);
            // Gone from the screen; the store keeps it delivered, as the phone's list does
            // until the app removes it.
            if (auto it = self->requests.find(id); it != self->requests.end()) {
                self->shown.erase(it->second);
                self->requests.erase(it);
            }
        }
    }

    void invoked(guint32 id, const std::string& action) {
        std::function<void(const UNNotificationResponse&)> respond;
        std::string identifier;
        {
            std::lock_guard lock(mutex);
            auto it = requests.find(id);
            if (it == requests.end()) return;  // another application's
            identifier = it->second;
            respond = handler;
        }
        UNNotificationResponse response;
        response.notification.request.identifier = identifier;
        if (auto s = store.lock())
            for (auto& n : s->delivered())
                if (n.request.identifier == identifier) response.notification = std::move(n);
        if (action != "default") response.actionIdentifier = action;
        effects->emit("notificationResponse", {{"identifier", identifier}, {"action", response.actionIdentifier}});
        if (!respond) {
            Console::print(std::string(kLabel) + ": no response handler for \"" + identifier + "\"");
            return;
        }
        runLoop->async([respond, response] { respond(response); });
    }

    // ---- authorisation: the service answering is the permission ----

    using Completion = std::function<void(bool, std::optional<std::string>)>;
    struct AuthorizationCall {
        std::weak_ptr<Bus> bus;
        Completion completion;
        unsigned options;
    };

    void authorize(Completion completion, unsigned options) {
        std::weak_ptr<Bus> weak = weak_from_this();
        onMain([weak, completion, options] {
            if (auto self = weak.lock()) self->askServer(completion, options);
        });
    }

    // On the main context; ends the in-flight count it runs under.
    void askServer(const Completion& completion, unsigned options) {
        std::weak_ptr<Bus> weak = weak_from_this();
        switch (link([weak, completion, options] {
            if (auto self = weak.lock()) self->askServer(completion, options);
        })) {
            case Link::waiting:
                return done();
            case Link::down:
                answer(completion, options, false, "no session bus", "");
                return done();
            case Link::up:
                break;
        }
        g_dbus_connection_call(bus(), kService, kPath, kInterface, "GetServerInformation", nullptr,
                               G_VARIANT_TYPE("(ssss)"), G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr,
                               onServerInformation, new AuthorizationCall{weak, completion, options});
    }

    static void onServerInformation(GObject* source, GAsyncResult* result, gpointer data) {
        std::unique_ptr<AuthorizationCall> call(static_cast<AuthorizationCall*>(data));
        GError* error = nullptr;
        GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
        const bool answered = reply != nullptr;
        std::string server, why;
        if (reply) {
            const gchar *name = nullptr, *vendor = nullptr, *version = nullptr, *protocol = nullptr;
            g_variant_get(reply, "(&s&s&s&s)", &name, &vendor, &version, &protocol);
            server = name;
            g_variant_unref(reply);
        } else {
            why = takeMessage(error);
        }
        auto self = call->bus.lock();
        if (!self) return;
        self->answer(call->completion, call->options, answered, why, server);
        self->done();
    }

    void answer(const Completion& completion, unsigned options, bool granted, const std::string& why,
                const std::string& server) {
        {
            std::lock_guard lock(mutex);
            status = granted ? UNAuthorizationStatus::authorized : UNAuthorizationStatus::denied;
        }
        if (!granted)
            Console::print(std::string(kLabel) + ": the notification service does not answer (" + why +
                           "); notifications are not allowed");
        effects->emit("requestAuthorization", {{"options", options}, {"granted", granted}, {"server", server}});
        if (!completion) return;
        // As on the phone: the answer comes off the main thread.
        auto reply = [completion, granted] { completion(granted, std::nullopt); };
        if (answers)
            answers->async(reply);
        else
            runLoop->async(reply);
    }
};

class BusNotificationCenter final : public UserNotificationCenter {
public:
    BusNotificationCenter(std::shared_ptr<HeadlessUserNotificationCenter> store, std::shared_ptr<Effects> effects,
                          std::shared_ptr<RunLoop> runLoop, std::shared_ptr<SerialQueue> answers)
        : store_(std::move(store)), bus_(std::make_shared<Bus>(store_, std::move(effects), runLoop, answers)),
          runLoop_(std::move(runLoop)), answers_(std::move(answers)) {
        store_->setDeliveryObserver(bus_);
        std::weak_ptr<Bus> weak = bus_;
        runLoop_->addBusySource([weak] {
            auto bus = weak.lock();
            return bus && bus->inFlight.load() > 0;
        });
    }
    ~BusNotificationCenter() override { store_->setDeliveryObserver(nullptr); }
    BusNotificationCenter(const BusNotificationCenter&) = delete;
    BusNotificationCenter& operator=(const BusNotificationCenter&) = delete;

    void requestAuthorization(unsigned options,
                              std::function<void(bool, std::optional<std::string>)> completion) override {
        bus_->authorize(std::move(completion), options);
    }
    void getNotificationSettings(std::function<void(UNNotificationSettings)> completion) override {
        if (!completion) return;
        UNNotificationSettings settings;
        {
            std::lock_guard lock(bus_->mutex);
            settings.authorizationStatus = bus_->status;
        }
        auto reply = [completion, settings] { completion(settings); };
        if (answers_)
            answers_->async(reply);
        else
            runLoop_->async(reply);
    }
    void add(UNNotificationRequest request, std::function<void(std::optional<std::string>)> completion) override {
        store_->add(std::move(request), std::move(completion));
    }
    void getPendingNotificationRequests(std::function<void(std::vector<UNNotificationRequest>)> completion) override {
        store_->getPendingNotificationRequests(std::move(completion));
    }
    void removePendingNotificationRequests(const std::vector<std::string>& identifiers) override {
        store_->removePendingNotificationRequests(identifiers);
    }
    void removeAllPendingNotificationRequests() override { store_->removeAllPendingNotificationRequests(); }
    void getDeliveredNotifications(std::function<void(std::vector<UNNotification>)> completion) override {
        store_->getDeliveredNotifications(std::move(completion));
    }
    void removeDeliveredNotifications(const std::vector<std::string>& identifiers) override {
        store_->removeDeliveredNotifications(identifiers);
    }
    void removeAllDeliveredNotifications() override { store_->removeAllDeliveredNotifications(); }
    void setNotificationCategories(std::vector<UNNotificationCategory> categories) override {
        store_->setNotificationCategories(std::move(categories));
    }
    void getNotificationCategories(std::function<void(std::vector<UNNotificationCategory>)> completion) override {
        store_->getNotificationCategories(std::move(completion));
    }
    void setResponseHandler(std::function<void(const UNNotificationResponse&)> handler) override {
        std::lock_guard lock(bus_->mutex);
        bus_->handler = std::move(handler);
    }

private:
    std::shared_ptr<HeadlessUserNotificationCenter> store_;
    std::shared_ptr<Bus> bus_;
    std::shared_ptr<RunLoop> runLoop_;
    std::shared_ptr<SerialQueue> answers_;
};

}  // namespace

std::shared_ptr<UserNotificationCenter> makeBusNotificationCenter(std::shared_ptr<HeadlessUserNotificationCenter> store,
                                                                  std::shared_ptr<Effects> effects,
                                                                  std::shared_ptr<RunLoop> runLoop,
                                                                  std::shared_ptr<SerialQueue> answers) {
    return std::make_shared<BusNotificationCenter>(std::move(store), std::move(effects), std::move(runLoop),
                                                   std::move(answers));
}

}  // namespace tessrakite::platform::desktop
