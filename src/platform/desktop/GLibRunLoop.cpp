#include "platform/desktop/GLibSupport.hpp"

#include <climits>
#include <cmath>

namespace tessrakite::platform::desktop {
namespace {

// A source that is ready whenever the run loop has an item due, and otherwise asks the
// context to wake when the next one will be.
struct LoopSource {
    GSource source;
    RunLoop* loop;
};

gboolean prepare(GSource* source, gint* timeout) {
    auto* s = reinterpret_cast<LoopSource*>(source);
    const auto next = s->loop->nextDue();
    *timeout = -1;
    if (!next) return FALSE;
    if (*next <= 0) {
        *timeout = 0;
        return TRUE;
    }
    // Virtual time moves only when the host moves it: no timeout to wait for then.
    if (!s->loop->clock()->isManual()) *timeout = static_cast<gint>(std::min(std::ceil(*next * 1000.0), double(INT_MAX)));
    return FALSE;
}

gboolean check(GSource* source) {
    const auto next = reinterpret_cast<LoopSource*>(source)->loop->nextDue();
    return next && *next <= 0;
}

gboolean dispatch(GSource* source, GSourceFunc, gpointer) {
    reinterpret_cast<LoopSource*>(source)->loop->runOnce();
    return G_SOURCE_CONTINUE;
}

GSourceFuncs loopSourceFuncs = {prepare, check, dispatch, nullptr, nullptr, nullptr};

gboolean stop(gpointer) { return G_SOURCE_REMOVE; }

class GLibDriver final : public RunLoopDriver {
public:
    explicit GLibDriver(RunLoop& loop) {
        source_ = g_source_new(&loopSourceFuncs, sizeof(LoopSource));
        auto* s = reinterpret_cast<LoopSource*>(source_);
        s->loop = &loop;
        g_source_set_name(source_, "tessrakite main queue");
        g_source_attach(source_, nullptr);
    }
    ~GLibDriver() override {
        g_source_destroy(source_);
        g_source_unref(source_);
    }
    GLibDriver(const GLibDriver&) = delete;
    GLibDriver& operator=(const GLibDriver&) = delete;

    void wake() override { g_main_context_wakeup(nullptr); }

    void iterate(double seconds) override {
        if (seconds <= 0) {
            g_main_context_iteration(nullptr, FALSE);
            return;
        }
        // A blocking turn ends at the latest when this timer fires.
        GSource* timer = g_timeout_source_new(static_cast<guint>(std::ceil(seconds * 1000.0)));
        g_source_set_callback(timer, stop, nullptr, nullptr);
        g_source_attach(timer, nullptr);
        g_main_context_iteration(nullptr, TRUE);
        g_source_destroy(timer);
        g_source_unref(timer);
    }

private:
    GSource* source_;
};

gboolean runWork(gpointer data) {
    (*static_cast<std::function<void()>*>(data))();
    return G_SOURCE_REMOVE;
}

void deleteWork(gpointer data) { delete static_cast<std::function<void()>*>(data); }

}  // namespace

void onMainContext(std::function<void()> work) {
    g_main_context_invoke_full(nullptr, G_PRIORITY_DEFAULT, runWork, new std::function<void()>(std::move(work)),
                               deleteWork);
}

std::string takeMessage(GError* error) {
    if (!error) return "unknown error";
    std::string message = error->message ? error->message : "unknown error";
    g_error_free(error);
    return message;
}

std::shared_ptr<RunLoopDriver> makeGLibDriver(RunLoop& runLoop) { return std::make_shared<GLibDriver>(runLoop); }

void connectSessionBus(std::weak_ptr<void> owner,
                       std::function<void(GDBusConnection* connection, const std::string& why)> done) {
    GError* error = nullptr;
    gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    if (!address) return done(nullptr, takeMessage(error));
    struct Attempt {
        std::weak_ptr<void> owner;
        std::function<void(GDBusConnection*, const std::string&)> done;
    };
    g_dbus_connection_new_for_address(
        address,
        GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr,
        [](GObject*, GAsyncResult* result, gpointer data) {
            std::unique_ptr<Attempt> attempt(static_cast<Attempt*>(data));
            GError* e = nullptr;
            GDBusConnection* connection = g_dbus_connection_new_for_address_finish(result, &e);
            const std::string why = connection ? std::string() : takeMessage(e);
            if (attempt->owner.expired()) {
                if (connection) g_object_unref(connection);
                return;
            }
            attempt->done(connection, why);
        },
        new Attempt{std::move(owner), std::move(done)});
    g_free(address);
}

}  // namespace tessrakite::platform::desktop
