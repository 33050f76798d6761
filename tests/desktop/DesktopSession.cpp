#include "DesktopSession.hpp"

#include <cstdlib>
#include <fstream>
#include <future>
#include <optional>
#include <string>

namespace tessrakite::test {
namespace {

std::string takeMessage(GError* error) {
    std::string message = error && error->message ? error->message : "unknown error";
    if (error) g_error_free(error);
    return message;
}

// A session bus that activates nothing: a missing service stays missing.
constexpr const char* kBusConfig = R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:tmpdir=/tmp</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";

constexpr const char* kIntrospection = R"(<node>
  <interface name="org.freedesktop.Notifications">
    <method name="Notify">
      <arg type="s" direction="in"/><arg type="u" direction="in"/><arg type="s" direction="in"/>
      <arg type="s" direction="in"/><arg type="s" direction="in"/><arg type="as" direction="in"/>
      <arg type="a{sv}" direction="in"/><arg type="i" direction="in"/><arg type="u" direction="out"/>
    </method>
    <method name="CloseNotification"><arg type="u" direction="in"/></method>
    <method name="GetCapabilities"><arg type="as" direction="out"/></method>
    <method name="GetServerInformation">
      <arg type="s" direction="out"/><arg type="s" direction="out"/><arg type="s" direction="out"/>
      <arg type="s" direction="out"/>
    </method>
    <signal name="ActionInvoked"><arg type="u"/><arg type="s"/></signal>
    <signal name="NotificationClosed"><arg type="u"/><arg type="u"/></signal>
  </interface>
</node>)";

/// The first line a started server prints: the display or bus address it chose. Nothing,
/// with `error` set, when it printed none.
std::optional<std::string> firstLine(GSubprocess* process, const std::string& who, std::string& error) {
    GError* failure = nullptr;
    GDataInputStream* lines = g_data_input_stream_new(g_subprocess_get_stdout_pipe(process));
    gchar* line = g_data_input_stream_read_line(lines, nullptr, nullptr, &failure);
    g_object_unref(lines);
    std::optional<std::string> out;
    if (!line || !*line)
        error = who + (failure ? takeMessage(failure) : std::string("it ended"));
    else
        out = line;
    g_free(line);
    return out;
}

/// Ends a server the tests started.
void stop(GSubprocess* process) {
    if (!process) return;
    g_subprocess_force_exit(process);
    g_subprocess_wait(process, nullptr, nullptr);
    g_object_unref(process);
}

}  // namespace

std::string ensureDisplay() {
    struct VirtualDisplay {
        GSubprocess* server = nullptr;
        std::string error;
        VirtualDisplay() {
            if (std::getenv("DISPLAY") && *std::getenv("DISPLAY")) return;
            GError* failure = nullptr;
            // -displayfd: the server picks a free display and says which once it accepts clients.
            server = g_subprocess_new(static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_SILENCE), &failure,
                                      "Xvfb", "-displayfd", "1", "-screen", "0", "1280x1024x24", "-nolisten", "tcp",
                                      nullptr);
            if (!server) {
                error = "no DISPLAY and Xvfb cannot start (install the xvfb package): " + takeMessage(failure);
                return;
            }
            if (auto display = firstLine(server, "Xvfb named no display: ", error))
                ::setenv("DISPLAY", (":" + *display).c_str(), 1);
        }
        ~VirtualDisplay() { stop(server); }
    };
    static VirtualDisplay display;
    return display.error;
}

PrivateBus::PrivateBus(const std::filesystem::path& folder) {
    const auto config = folder / "session.conf";
    std::ofstream(config) << kBusConfig;
    GError* error = nullptr;
    const std::string configArg = "--config-file=" + config.string();
    daemon_ = g_subprocess_new(G_SUBPROCESS_FLAGS_STDOUT_PIPE, &error, "dbus-daemon", configArg.c_str(), "--nofork",
                               "--print-address", nullptr);
    if (!daemon_) {
        error_ = "cannot start dbus-daemon (install the dbus-daemon package): " + takeMessage(error);
        return;
    }
    auto address = firstLine(daemon_, "dbus-daemon printed no address: ", error_);
    if (!address) return;
    address_ = *address;
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
}

PrivateBus::~PrivateBus() {
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
    stop(daemon_);
}

NotificationServiceStandIn::NotificationServiceStandIn() {
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (!address) {
        error_ = "no session bus";
        return;
    }
    std::promise<std::string> started;
    auto ready = started.get_future();
    context_ = g_main_context_new();
    loop_ = g_main_loop_new(context_, FALSE);
    thread_ = std::thread([this, a = std::string(address), &started] {
        g_main_context_push_thread_default(context_);
        GError* error = nullptr;
        connection_ = g_dbus_connection_new_for_address_sync(
            a.c_str(),
            GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                 G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &error);
        std::string why;
        if (!connection_) why = "cannot connect: " + takeMessage(error);
        if (why.empty()) {
            GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kIntrospection, nullptr);
            static const GDBusInterfaceVTable vtable = {onMethod, nullptr, nullptr, {}};
            g_dbus_connection_register_object(connection_, "/org/freedesktop/Notifications", node->interfaces[0],
                                              &vtable, this, nullptr, &error);
            g_dbus_node_info_unref(node);
            // A dock's view of the launcher entry: its count arrives as a broadcast signal.
            g_dbus_connection_signal_subscribe(connection_, nullptr, "com.canonical.Unity.LauncherEntry", "Update",
                                               nullptr, nullptr, G_DBUS_SIGNAL_FLAGS_NONE, onLauncherUpdate, this,
                                               nullptr);
            GVariant* owned = g_dbus_connection_call_sync(
                connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
                g_variant_new("(su)", "org.freedesktop.Notifications", 4u /* do not queue */), G_VARIANT_TYPE("(u)"),
                G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
            guint32 answer = 0;
            if (owned) {
                g_variant_get(owned, "(u)", &answer);
                g_variant_unref(owned);
            }
            if (answer != 1) why = "cannot own org.freedesktop.Notifications: " + takeMessage(error);
        }
        started.set_value(why);
        if (why.empty()) g_main_loop_run(loop_);
        g_main_context_pop_thread_default(context_);
    });
    error_ = ready.get();
}

NotificationServiceStandIn::~NotificationServiceStandIn() {
    if (!thread_.joinable()) return;
    g_main_context_invoke(
        context_,
        [](gpointer loop) {
            g_main_loop_quit(static_cast<GMainLoop*>(loop));
            return gboolean(G_SOURCE_REMOVE);
        },
        loop_);
    thread_.join();
    if (connection_) g_object_unref(connection_);
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
}

void NotificationServiceStandIn::onMethod(GDBusConnection* connection, const gchar*, const gchar*, const gchar*,
                                          const gchar* method, GVariant* parameters,
                                          GDBusMethodInvocation* invocation, gpointer data) {
    auto* self = static_cast<NotificationServiceStandIn*>(data);
    const std::string name = method;
    Call call;
    call.method = name;
    call.at = Clock::now();
    if (name == "Notify") {
        const gchar *app = nullptr, *icon = nullptr, *summary = nullptr, *body = nullptr;
        GVariantIter *actions = nullptr, *hints = nullptr;
        gint32 timeout = 0;
        g_variant_get(parameters, "(&su&s&s&sasa{sv}i)", &app, &call.replacesId, &icon, &summary, &body, &actions,
                      &hints, &timeout);
        call.appName = app;
        call.summary = summary;
        call.body = body;
        const gchar* action = nullptr;
        while (g_variant_iter_loop(actions, "&s", &action)) call.actions.emplace_back(action);
        const gchar* key = nullptr;
        GVariant* value = nullptr;
        while (g_variant_iter_loop(hints, "{&sv}", &key, &value))
            if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING))
                call.hints[key] = g_variant_get_string(value, nullptr);
        g_variant_iter_free(actions);
        g_variant_iter_free(hints);
        {
            std::lock_guard lock(self->mutex_);
            call.id = call.replacesId ? call.replacesId : self->nextId_++;
            self->calls_.push_back(call);
        }
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", call.id));
    } else if (name == "CloseNotification") {
        g_variant_get(parameters, "(u)", &call.id);
        {
            std::lock_guard lock(self->mutex_);
            self->calls_.push_back(call);
        }
        g_dbus_method_invocation_return_value(invocation, nullptr);
        g_dbus_connection_emit_signal(connection, nullptr, "/org/freedesktop/Notifications",
                                      "org.freedesktop.Notifications", "NotificationClosed",
                                      g_variant_new("(uu)", call.id, 3u), nullptr);
    } else if (name == "GetCapabilities") {
        const gchar* capabilities[] = {"actions", "body", "body-markup", nullptr};
        g_dbus_method_invocation_return_value(invocation,
                                              g_variant_new("(^as)", const_cast<gchar**>(capabilities)));
    } else {
        g_dbus_method_invocation_return_value(invocation,
                                              g_variant_new("(ssss)", "stand-in", "TessraKite tests", "1", "1.2"));
    }
}

void NotificationServiceStandIn::onLauncherUpdate(GDBusConnection*, const gchar*, const gchar* path, const gchar*,
                                                  const gchar*, GVariant* parameters, gpointer data) {
    auto* self = static_cast<NotificationServiceStandIn*>(data);
    Call call;
    call.method = "LauncherEntry.Update";
    call.at = Clock::now();
    call.hints["path"] = path;
    const gchar* app = nullptr;
    GVariantIter* properties = nullptr;
    g_variant_get(parameters, "(&sa{sv})", &app, &properties);
    call.appName = app;
    const gchar* key = nullptr;
    GVariant* value = nullptr;
    while (g_variant_iter_loop(properties, "{&sv}", &key, &value)) {
        gchar* text = g_variant_print(value, FALSE);
        call.hints[key] = text;
        g_free(text);
    }
    g_variant_iter_free(properties);
    std::lock_guard lock(self->mutex_);
    self->calls_.push_back(call);
}

std::vector<NotificationServiceStandIn::Call> NotificationServiceStandIn::calls(const std::string& method) const {
    std::lock_guard lock(mutex_);
    std::vector<Call> out;
    for (const auto& c : calls_)
        if (c.method == method) out.push_back(c);
    return out;
}

void NotificationServiceStandIn::invokeAction(std::uint32_t id, const std::string& action) {
    g_dbus_connection_emit_signal(connection_, nullptr, "/org/freedesktop/Notifications",
                                  "org.freedesktop.Notifications", "ActionInvoked",
                                  g_variant_new("(us)", id, action.c_str()), nullptr);
    g_dbus_connection_emit_signal(connection_, nullptr, "/org/freedesktop/Notifications",
                                  "org.freedesktop.Notifications", "NotificationClosed", g_variant_new("(uu)", id, 2u),
                                  nullptr);
}

bool pumpUntil(const std::function<void()>& pump, const std::function<bool()>& done, double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        pump();
    }
    return true;
}

}  // namespace tessrakite::test
