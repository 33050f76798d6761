#include <tessrakite/platform/desktop/DesktopPlatform.hpp>

#include <atomic>

#include <tessrakite/platform/Console.hpp>

#include "platform/desktop/GLibSupport.hpp"

namespace tessrakite::platform::desktop {
namespace {

using headless::Effects;
using headless::HeadlessApplication;

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
        if (!badgeToldOnce_.exchange(true))
            Console::print("The desktop has no application badge; the count is kept but not shown");
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
    std::atomic<bool> badgeToldOnce_{false};
};

}  // namespace

std::shared_ptr<Application> makeDesktopApplication(std::shared_ptr<HeadlessApplication> inner,
                                                    std::shared_ptr<Effects> effects,
                                                    std::shared_ptr<RunLoop> runLoop) {
    return std::make_shared<DesktopApplication>(std::move(inner), std::move(effects), std::move(runLoop));
}

Desktop makeDesktopPlatform(headless::HeadlessOptions options) {
    Desktop d;
    d.headless = headless::makeHeadlessPlatform(std::move(options));
    const auto& base = *d.headless.platform;
    base.runLoop->setDriver(makeGLibDriver(*base.runLoop));
    d.platform = std::make_shared<Platform>(base);
    d.platform->userNotificationCenter =
        makeBusNotificationCenter(d.headless.userNotificationCenter, d.headless.effects, base.runLoop, base.utilityQueue);
    d.platform->application = makeDesktopApplication(d.headless.application, d.headless.effects, base.runLoop);
    d.webViews = installWebViewWindows(*d.platform);
    return d;
}

}  // namespace tessrakite::platform::desktop
