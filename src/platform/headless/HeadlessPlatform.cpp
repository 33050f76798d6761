#include <tessrakite/platform/headless/HeadlessPlatform.hpp>

#include <algorithm>
#include <fstream>

#include <sys/utsname.h>

#include <tessrakite/platform/ViewController.hpp>
#include <tessrakite/platform/WebView.hpp>

namespace tessrakite::platform::headless {

using nlohmann::ordered_json;

// ---- Effects ----

void Effects::setSink(Sink sink) {
    std::lock_guard lock(mutex_);
    sink_ = sink ? std::make_shared<Sink>(std::move(sink)) : nullptr;
}

void Effects::emit(const std::string& name, const ordered_json& args) {
    std::shared_ptr<Sink> sink;
    {
        std::lock_guard lock(mutex_);
        sink = sink_;
    }
    if (sink) (*sink)(name, args);
}

// ---- NotificationCenter ----

NotificationCenter::ObserverToken HeadlessNotificationCenter::addObserver(const std::string& name,
                                                                          std::function<void()> block) {
    std::lock_guard lock(mutex_);
    auto token = next_++;
    observers_.emplace(token, std::make_pair(name, std::make_shared<std::function<void()>>(std::move(block))));
    return token;
}

void HeadlessNotificationCenter::removeObserver(ObserverToken token) {
    std::lock_guard lock(mutex_);
    observers_.erase(token);
}

void HeadlessNotificationCenter::post(const std::string& name) {
    std::vector<std::shared_ptr<std::function<void()>>> blocks;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [token, entry] : observers_)
            if (entry.first == name) blocks.push_back(entry.second);
    }
    for (const auto& b : blocks) (*b)();
}

std::size_t HeadlessNotificationCenter::observerCount(const std::string& name) const {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::count_if(observers_.begin(), observers_.end(),
                                                  [&](const auto& e) { return e.second.first == name; }));
}

// ---- Application ----

HeadlessApplication::HeadlessApplication(std::shared_ptr<Effects> effects, std::shared_ptr<RunLoop> runLoop)
    : effects_(std::move(effects)), runLoop_(std::move(runLoop)) {
    // A stable made-up token: 32 bytes, as the platform's push service hands out.
    for (std::uint8_t i = 0; i < 32; ++i) token_.push_back(static_cast<std::uint8_t>(0xA0 + i));
}

void HeadlessApplication::registerForRemoteNotifications() {
    std::function<void(const Data&)> handler;
    Data token;
    {
        std::lock_guard lock(mutex_);
        registered_ = true;
        handler = tokenHandler_;
        token = token_;
    }
    effects_->emit("registerForRemoteNotifications");
    if (handler) runLoop_->async([handler, token] { handler(token); });
}

void HeadlessApplication::unregisterForRemoteNotifications() {
    {
        std::lock_guard lock(mutex_);
        registered_ = false;
    }
    effects_->emit("unregisterForRemoteNotifications");
}

bool HeadlessApplication::isRegisteredForRemoteNotifications() const {
    std::lock_guard lock(mutex_);
    return registered_;
}

std::int64_t HeadlessApplication::applicationIconBadgeNumber() const {
    std::lock_guard lock(mutex_);
    return badge_;
}

void HeadlessApplication::setApplicationIconBadgeNumber(std::int64_t value) {
    {
        std::lock_guard lock(mutex_);
        badge_ = value;
    }
    effects_->emit("badge", {{"value", value}});
}

bool HeadlessApplication::canOpenURL(const Url& url) const {
    std::lock_guard lock(mutex_);
    return schemes_.count(url.scheme()) > 0;
}

void HeadlessApplication::open(const Url& url, std::function<void(bool)> completion) {
    {
        std::lock_guard lock(mutex_);
        opened_.push_back(url.absoluteString());
    }
    effects_->emit("openURL", {{"url", url.absoluteString()}});
    if (completion) runLoop_->async([completion] { completion(true); });
}

BackgroundTaskIdentifier HeadlessApplication::beginBackgroundTask(const std::string& name,
                                                                  std::function<void()> expirationHandler) {
    std::lock_guard lock(mutex_);
    auto id = nextTask_++;
    tasks_.emplace(id, std::make_pair(name, std::move(expirationHandler)));
    return id;
}

void HeadlessApplication::endBackgroundTask(BackgroundTaskIdentifier identifier) {
    std::lock_guard lock(mutex_);
    tasks_.erase(identifier);
}

ApplicationState HeadlessApplication::applicationState() const {
    std::lock_guard lock(mutex_);
    return state_;
}

void HeadlessApplication::setDeviceTokenHandler(std::function<void(const Data&)> handler) {
    std::lock_guard lock(mutex_);
    tokenHandler_ = std::move(handler);
}

void HeadlessApplication::setDeviceToken(Data token) {
    std::lock_guard lock(mutex_);
    token_ = std::move(token);
}

void HeadlessApplication::setApplicationState(ApplicationState state) {
    std::lock_guard lock(mutex_);
    state_ = state;
}

void HeadlessApplication::setOpenableSchemes(std::set<std::string> schemes) {
    std::lock_guard lock(mutex_);
    schemes_ = std::move(schemes);
}

std::vector<std::string> HeadlessApplication::openedURLs() const {
    std::lock_guard lock(mutex_);
    return opened_;
}

std::vector<std::string> HeadlessApplication::activeBackgroundTasks() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> names;
    for (const auto& [id, task] : tasks_) names.push_back(task.first);
    return names;
}

void HeadlessApplication::expireBackgroundTasks() {
    std::vector<std::function<void()>> handlers;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [id, task] : tasks_)
            if (task.second) handlers.push_back(task.second);
    }
    for (const auto& h : handlers) h();
}

// ---- Screen and device ----

HeadlessScreen::HeadlessScreen(std::function<void(Rect)> boundsChanged) : boundsChanged_(std::move(boundsChanged)) {}

Rect HeadlessScreen::bounds() const {
    std::lock_guard lock(mutex_);
    return bounds_;
}

void HeadlessScreen::setBounds(Rect bounds) {
    {
        std::lock_guard lock(mutex_);
        bounds_ = bounds;
    }
    if (boundsChanged_) boundsChanged_(bounds);
}

namespace {
utsname unameInfo() {
    utsname u{};
    ::uname(&u);
    return u;
}
}  // namespace

HeadlessDevice::HeadlessDevice(std::shared_ptr<NotificationCenter> notificationCenter)
    : notificationCenter_(std::move(notificationCenter)) {}

std::string HeadlessDevice::machine() const { return unameInfo().machine; }
std::string HeadlessDevice::systemName() const { return unameInfo().sysname; }
std::string HeadlessDevice::systemVersion() const { return unameInfo().release; }

std::string HeadlessDevice::vendor() const {
    std::ifstream in("/sys/class/dmi/id/sys_vendor");
    std::string line;
    if (in && std::getline(in, line)) {
        while (!line.empty() && (line.back() == ' ' || line.back() == '\n' || line.back() == '\r')) line.pop_back();
        if (!line.empty()) return line;
    }
    return "unknown";
}

DeviceOrientation HeadlessDevice::orientation() const {
    std::lock_guard lock(mutex_);
    return orientation_;
}

void HeadlessDevice::setOrientation(DeviceOrientation orientation) {
    {
        std::lock_guard lock(mutex_);
        if (orientation_ == orientation) return;
        orientation_ = orientation;
    }
    if (notificationCenter_) notificationCenter_->post(DeviceNotification::orientationDidChange);
}

// ---- Assembly ----

namespace {
const char* styleName(ModalPresentationStyle style) {
    using S = ModalPresentationStyle;
    switch (style) {
        case S::automatic: return "automatic";
        case S::fullScreen: return "fullScreen";
        case S::pageSheet: return "pageSheet";
        case S::formSheet: return "formSheet";
        case S::overFullScreen: return "overFullScreen";
        case S::overCurrentContext: break;
    }
    return "overCurrentContext";
}

/// The window: sized to the screen, turned with the device, reporting its transitions.
std::shared_ptr<Window> makeWindow(const std::shared_ptr<Effects>& effects) {
    auto window = std::make_shared<Window>(Rect{0, 0, 390, 844});
    window->makeKeyAndVisible();
    window->setTransitionObserver([effects](const std::string& name, const ViewController& controller, bool animated) {
        ordered_json args = {{"controller", controller.typeName()}};
        if (auto* presenting = controller.presentingViewController()) args["presenting"] = presenting->typeName();
        args["style"] = styleName(controller.modalPresentationStyle);
        args["animated"] = animated;
        effects->emit(name, args);
    });
    return window;
}

/// A portrait orientation makes the screen higher than wide, a landscape one wider than
/// high; lying flat or unknown keeps the interface as it was.
void turnScreen(HeadlessScreen& screen, DeviceOrientation orientation) {
    using O = DeviceOrientation;
    const bool landscape = orientation == O::landscapeLeft || orientation == O::landscapeRight;
    const bool portrait = orientation == O::portrait || orientation == O::portraitUpsideDown;
    if (!landscape && !portrait) return;
    const Rect b = screen.bounds();
    const double shortSide = std::min(b.width, b.height), longSide = std::max(b.width, b.height);
    const Rect turned = landscape ? Rect{b.x, b.y, longSide, shortSide} : Rect{b.x, b.y, shortSide, longSide};
    if (turned != b) screen.setBounds(turned);
}

/// Web views run no engine here: what they are made with and what they load become effects.
class WebViewEffects final : public WebViewObserver {
public:
    explicit WebViewEffects(std::shared_ptr<Effects> effects) : effects_(std::move(effects)) {}
    void webViewCreated(const WebView& webView) override {
        for (const auto& script : webView.configuration().userContentController->userScripts())
            effects_->emit("userScript",
                           {{"source", script.source},
                            {"injection", script.injectionTime == UserScriptInjectionTime::atDocumentStart
                                              ? "atDocumentStart"
                                              : "atDocumentEnd"},
                            {"mainFrameOnly", script.forMainFrameOnly}});
    }
    void webViewLoadedHTML(const WebView&, const std::string& html, const std::optional<Url>&) override {
        effects_->emit("webViewLoad", {{"html", html}});
    }

private:
    std::shared_ptr<Effects> effects_;
};
}  // namespace

Headless makeHeadlessPlatform(HeadlessOptions options) {
    Headless h;
    auto clock = options.clock ? options.clock : std::make_shared<SystemClock>();
    auto runLoop = std::make_shared<RunLoop>(clock);
    auto session = options.urlSession ? options.urlSession : makeCurlUrlSession(UrlSessionOptions::fromEnvironment());
    auto utility = std::make_shared<SerialQueue>("tessrakite.utility");
    std::weak_ptr<SerialQueue> weakUtility = utility;
    runLoop->addBusySource([weakUtility] {
        auto q = weakUtility.lock();
        return q && q->pending() > 0;
    });
    std::weak_ptr<UrlSession> weakSession = session;
    runLoop->addBusySource([weakSession] {
        auto s = weakSession.lock();
        return s && s->inFlight() > 0;
    });
    h.effects = std::make_shared<Effects>();
    h.notificationCenter = std::make_shared<HeadlessNotificationCenter>();
    h.application = std::make_shared<HeadlessApplication>(h.effects, runLoop);
    h.userNotificationCenter = std::make_shared<HeadlessUserNotificationCenter>(h.effects, runLoop, clock, utility);
    h.location = std::make_shared<HeadlessLocationServices>(h.effects, runLoop, utility);
    h.window = makeWindow(h.effects);
    std::weak_ptr<Window> weakWindow = h.window;
    h.screen = std::make_shared<HeadlessScreen>([weakWindow](Rect bounds) {
        if (auto window = weakWindow.lock()) {
            window->frame = bounds;
            window->layoutIfNeeded();
        }
    });
    h.device = std::make_shared<HeadlessDevice>(h.notificationCenter);
    // Registered first, so the window has turned before any screen's own observer runs.
    h.notificationCenter->addObserver(DeviceNotification::orientationDidChange,
                                      [weakScreen = std::weak_ptr(h.screen), weakDevice = std::weak_ptr(h.device)] {
                                          auto screen = weakScreen.lock();
                                          auto device = weakDevice.lock();
                                          if (screen && device) turnScreen(*screen, device->orientation());
                                      });
    h.platform = std::make_shared<Platform>();
    h.platform->clock = clock;
    h.platform->runLoop = runLoop;
    h.platform->utilityQueue = utility;
    h.platform->urlSession = session;
    h.platform->notificationCenter = h.notificationCenter;
    h.platform->application = h.application;
    h.platform->userNotificationCenter = h.userNotificationCenter;
    h.platform->location = h.location;
    h.platform->screen = h.screen;
    h.platform->device = h.device;
    h.platform->keyWindow = h.window;
    h.platform->webViewObserver = std::make_shared<WebViewEffects>(h.effects);
    return h;
}

}  // namespace tessrakite::platform::headless
