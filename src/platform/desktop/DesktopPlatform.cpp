#include <tessrakite/platform/desktop/DesktopPlatform.hpp>

#include <atomic>
#include <optional>
#include <utility>

#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/Console.hpp>

#include "platform/desktop/GLibSupport.hpp"
#include "platform/desktop/GtkWindows.hpp"

namespace tessrakite::platform::desktop {
namespace {

using headless::Effects;
using headless::HeadlessApplication;

/// The badge as the launcher entry's count: the "Update" signal of
/// com.canonical.Unity.LauncherEntry, which docks and panels that show counts listen for
/// (and nothing else minds). The app is "application://<bundle identifier>.desktop", the
/// name its desktop file has (an extension's application's). Main context only; the bus is reached without waiting and
/// only the newest count goes out once it is there.
class LauncherEntry : public std::enable_shared_from_this<LauncherEntry> {
public:
    ~LauncherEntry() {
        if (bus_) g_object_unref(bus_);
    }

    void publish(std::int64_t count) {
        pending_ = count;
        if (bus_) {
            flush();
            return;
        }
        if (connecting_ || failed_) return;
        connecting_ = true;
        std::weak_ptr<LauncherEntry> weak = weak_from_this();
        connectSessionBus(weak, [weak](GDBusConnection* bus, const std::string& why) {
            auto self = weak.lock();  // alive: the attempt only answers a live owner
            if (!self) return;
            self->connecting_ = false;
            if (!bus) return self->fail(why);
            self->bus_ = bus;
            self->flush();
        });
    }

private:
    void fail(const std::string& why) {
        failed_ = true;
        Console::print("The badge is not shown on the launcher: no session bus (" + why + ")");
    }

    void flush() {
        if (!pending_) return;
        const std::int64_t count = *std::exchange(pending_, std::nullopt);
        // An extension's badge is its application's, as its notifications are.
        auto bundle = Bundle::main();
        if (auto application = bundle ? Bundle::containingApplication(*bundle) : nullptr) bundle = application;
        const auto identifier = bundle ? bundle->bundleIdentifier() : std::nullopt;
        const std::string app = "application://" + identifier.value_or(g_get_prgname() ? g_get_prgname() : "tessrakite") + ".desktop";
        const std::string path = "/com/canonical/unity/launcherentry/" + std::to_string(g_str_hash(app.c_str()));
        GVariantBuilder properties;
        g_variant_builder_init(&properties, G_VARIANT_TYPE("a{sv}"));
        g_variant_builder_add(&properties, "{sv}", "count", g_variant_new_int64(count));
        g_variant_builder_add(&properties, "{sv}", "count-visible", g_variant_new_boolean(count > 0));
        GError* error = nullptr;
        if (!g_dbus_connection_emit_signal(bus_, nullptr, path.c_str(), "com.canonical.Unity.LauncherEntry", "Update",
                                           g_variant_new("(sa{sv})", app.c_str(), &properties), &error))
            Console::print("The badge is not shown on the launcher: " + takeMessage(error));
    }

    GDBusConnection* bus_ = nullptr;
    bool connecting_ = false, failed_ = false;
    std::optional<std::int64_t> pending_;
};

class DesktopApplication final : public Application {
public:
    DesktopApplication(std::shared_ptr<HeadlessApplication> inner, std::shared_ptr<Effects> effects,
                       std::shared_ptr<RunLoop> runLoop)
        : inner_(std::move(inner)), effects_(std::move(effects)), runLoop_(std::move(runLoop)),
          launching_(std::make_shared<std::atomic<int>>(0)) {
        std::weak_ptr<std::atomic<int>> weak = launching_;
        runLoop_->addBusySource([weak] {
            auto n = weak.lock();
            return n && n->load() > 0;
        });
    }

    void registerForRemoteNotifications() override { inner_->registerForRemoteNotifications(); }
    void unregisterForRemoteNotifications() override { inner_->unregisterForRemoteNotifications(); }
    bool isRegisteredForRemoteNotifications() const override { return inner_->isRegisteredForRemoteNotifications(); }
    std::int64_t applicationIconBadgeNumber() const override { return inner_->applicationIconBadgeNumber(); }

    void setApplicationIconBadgeNumber(std::int64_t value) override {
        // The count is kept, so the SDK's badge arithmetic goes on as on the phone.
        inner_->setApplicationIconBadgeNumber(value);
        onMainContext([launcher = launcher_, value] { launcher->publish(value); });
    }

    bool canOpenURL(const Url& url) const override { return inner_->canOpenURL(url); }

    void open(const Url& url, std::function<void(bool)> completion) override {
        const std::string scheme = url.scheme();
        if (scheme != "http" && scheme != "https") {
            inner_->open(url, std::move(completion));
            return;
        }
        struct Launch {
            std::string uri;
            std::function<void(bool)> completion;
            std::shared_ptr<Effects> effects;
            std::shared_ptr<RunLoop> runLoop;
            std::shared_ptr<std::atomic<int>> launching;
        };
        auto* launch = new Launch{url.absoluteString(), std::move(completion), effects_, runLoop_, launching_};
        ++*launching_;
        onMainContext([launch] {
            g_app_info_launch_default_for_uri_async(
                launch->uri.c_str(), nullptr, nullptr,
                [](GObject*, GAsyncResult* result, gpointer data) {
                    std::unique_ptr<Launch> l(static_cast<Launch*>(data));
                    GError* error = nullptr;
                    const bool opened = g_app_info_launch_default_for_uri_finish(result, &error);
                    if (!opened) Console::print("Cannot open " + l->uri + ": " + takeMessage(error));
                    l->effects->emit("openURL", {{"url", l->uri}, {"opened", opened}});
                    if (l->completion) l->runLoop->async([c = l->completion, opened] { c(opened); });
                    --*l->launching;
                },
                launch);
        });
    }

    BackgroundTaskIdentifier beginBackgroundTask(const std::string& name,
                                                 std::function<void()> expirationHandler) override {
        return inner_->beginBackgroundTask(name, std::move(expirationHandler));
    }
    void endBackgroundTask(BackgroundTaskIdentifier identifier) override { inner_->endBackgroundTask(identifier); }
    ApplicationState applicationState() const override { return inner_->applicationState(); }

private:
    std::shared_ptr<HeadlessApplication> inner_;
    std::shared_ptr<Effects> effects_;
    std::shared_ptr<RunLoop> runLoop_;
    std::shared_ptr<std::atomic<int>> launching_;  // launches not yet answered
    std::shared_ptr<LauncherEntry> launcher_ = std::make_shared<LauncherEntry>();
};

}  // namespace

std::shared_ptr<Application> makeDesktopApplication(std::shared_ptr<HeadlessApplication> inner,
                                                    std::shared_ptr<Effects> effects,
                                                    std::shared_ptr<RunLoop> runLoop) {
    return std::make_shared<DesktopApplication>(std::move(inner), std::move(effects), std::move(runLoop));
}

namespace {
class Windows final : public DesktopWindows {
public:
    Windows(Platform& platform, const headless::Headless& h)
        : host_(std::make_shared<HostWindow>()), webViews_(installWebViewWindows(platform, host_)),
          screens_(installScreenWindows(h, host_)) {}
    void setHostWindow(GtkWindow* window) override { host_->set(window); }
    bool allowTlsCertificateForHost(const std::string& certificateFile, const std::string& host) override {
        return webViews_->allowTlsCertificateForHost(certificateFile, host);
    }
    GtkWidget* makeViewWidget(std::shared_ptr<View> view) override { return screens_->makeViewWidget(std::move(view)); }

private:
    std::shared_ptr<HostWindow> host_;
    std::shared_ptr<WebViewSupport> webViews_;
    std::shared_ptr<ScreenSupport> screens_;
};
}  // namespace

Desktop makeDesktopPlatform(headless::HeadlessOptions options) {
    Desktop d;
    d.headless = headless::makeHeadlessPlatform(std::move(options));
    const auto& base = *d.headless.platform;
    base.runLoop->setDriver(makeGLibDriver(*base.runLoop));
    d.platform = std::make_shared<Platform>(base);
    d.platform->userNotificationCenter =
        makeBusNotificationCenter(d.headless.userNotificationCenter, d.headless.effects, base.runLoop, base.utilityQueue);
    d.platform->application = makeDesktopApplication(d.headless.application, d.headless.effects, base.runLoop);
    d.windows = std::make_shared<Windows>(*d.platform, d.headless);
    return d;
}

}  // namespace tessrakite::platform::desktop
