#include <tessrakite/platform/headless/HeadlessPlatform.hpp>

#include <algorithm>
#include <fstream>

#include <sys/utsname.h>

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

// ---- UserNotificationCenter ----

HeadlessUserNotificationCenter::HeadlessUserNotificationCenter(std::shared_ptr<Effects> effects,
                                                               std::shared_ptr<RunLoop> runLoop,
                                                               std::shared_ptr<Clock> clock,
                                                               std::shared_ptr<SerialQueue> answerQueue)
    : effects_(std::move(effects)),
      runLoop_(std::move(runLoop)),
      clock_(std::move(clock)),
      answerQueue_(std::move(answerQueue)) {}

void HeadlessUserNotificationCenter::requestAuthorization(
    unsigned options, std::function<void(bool, std::optional<std::string>)> completion) {
    bool granted;
    {
        std::lock_guard lock(mutex_);
        lastOptions_ = options;
        granted = answerGranted_;
        status_ = answerStatus_;
    }
    effects_->emit("requestAuthorization", {{"options", options}, {"granted", granted}});
    if (!completion) return;
    auto answer = [completion, granted] { completion(granted, std::nullopt); };
    if (answerQueue_)
        answerQueue_->async(answer);
    else
        runLoop_->async(answer);
}

void HeadlessUserNotificationCenter::getNotificationSettings(std::function<void(UNNotificationSettings)> completion) {
    UNNotificationSettings settings;
    {
        std::lock_guard lock(mutex_);
        settings.authorizationStatus = status_;
    }
    if (completion) runLoop_->async([completion, settings] { completion(settings); });
}

ordered_json HeadlessUserNotificationCenter::toJSON(const std::optional<UNTimeIntervalNotificationTrigger>& trigger) {
    if (!trigger) return nullptr;
    return {{"interval", trigger->timeInterval}, {"repeats", trigger->repeats}};
}

ordered_json HeadlessUserNotificationCenter::toJSON(const UNNotificationContent& content) {
    ordered_json attachments = ordered_json::array();
    for (const auto& a : content.attachments) attachments.push_back({{"identifier", a.identifier}, {"url", a.url}});
    ordered_json userInfo = ordered_json::object();
    try {
        userInfo = PlistValue(content.userInfo).toJSON();
    } catch (const std::exception&) {
        userInfo = "<not JSON>";
    }
    return {{"title", content.title},
            {"subtitle", content.subtitle},
            {"body", content.body},
            {"sound", content.sound ? ordered_json(*content.sound) : ordered_json(nullptr)},
            {"badge", content.badge ? ordered_json(*content.badge) : ordered_json(nullptr)},
            {"categoryIdentifier", content.categoryIdentifier},
            {"userInfo", userInfo},
            {"attachments", attachments}};
}

void HeadlessUserNotificationCenter::add(UNNotificationRequest request,
                                         std::function<void(std::optional<std::string>)> completion) {
    effects_->emit("notificationAdded", {{"identifier", request.identifier},
                                         {"content", toJSON(request.content)},
                                         {"trigger", toJSON(request.trigger)}});
    std::optional<double> delay;
    std::uint64_t generation = 0;
    std::string identifier = request.identifier;
    {
        std::lock_guard lock(mutex_);
        if (request.trigger) {
            delay = request.trigger->timeInterval;
            generation = ++generation_;
            pending_[identifier] = {std::move(request), generation};
        } else {
            delivered_.erase(std::remove_if(delivered_.begin(), delivered_.end(),
                                            [&](const UNNotification& n) { return n.request.identifier == identifier; }),
                             delivered_.end());
            delivered_.push_back(UNNotification{clock_->now(), std::move(request)});
        }
    }
    if (delay) runLoop_->asyncAfter(*delay, [this, identifier, generation] { deliver(identifier, generation); });
    if (completion) runLoop_->async([completion] { completion(std::nullopt); });
}

void HeadlessUserNotificationCenter::deliver(const std::string& identifier, std::uint64_t generation) {
    std::optional<UNNotificationRequest> fired;
    bool repeats = false;
    double interval = 0;
    {
        std::lock_guard lock(mutex_);
        auto it = pending_.find(identifier);
        if (it == pending_.end() || it->second.second != generation) return;  // removed or replaced
        fired = it->second.first;
        repeats = fired->trigger && fired->trigger->repeats;
        interval = fired->trigger ? fired->trigger->timeInterval : 0;
        if (!repeats) pending_.erase(it);
        delivered_.erase(std::remove_if(delivered_.begin(), delivered_.end(),
                                        [&](const UNNotification& n) { return n.request.identifier == identifier; }),
                         delivered_.end());
        delivered_.push_back(UNNotification{clock_->now(), *fired});
    }
    effects_->emit("notificationDelivered", {{"identifier", identifier}});
    if (repeats && interval > 0)
        runLoop_->asyncAfter(interval, [this, identifier, generation] { deliver(identifier, generation); });
}

void HeadlessUserNotificationCenter::getPendingNotificationRequests(
    std::function<void(std::vector<UNNotificationRequest>)> completion) {
    auto list = pending();
    if (completion) runLoop_->async([completion, list] { completion(list); });
}

void HeadlessUserNotificationCenter::removePendingNotificationRequests(const std::vector<std::string>& identifiers) {
    {
        std::lock_guard lock(mutex_);
        for (const auto& id : identifiers) pending_.erase(id);
    }
    effects_->emit("removedPending", {{"identifiers", identifiers}});
}

void HeadlessUserNotificationCenter::removeAllPendingNotificationRequests() {
    std::vector<std::string> ids;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [id, entry] : pending_) ids.push_back(id);
        pending_.clear();
    }
    effects_->emit("removedPending", {{"identifiers", ids}});
}

void HeadlessUserNotificationCenter::getDeliveredNotifications(
    std::function<void(std::vector<UNNotification>)> completion) {
    auto list = delivered();
    if (completion) runLoop_->async([completion, list] { completion(list); });
}

void HeadlessUserNotificationCenter::removeDeliveredNotifications(const std::vector<std::string>& identifiers) {
    {
        std::lock_guard lock(mutex_);
        delivered_.erase(std::remove_if(delivered_.begin(), delivered_.end(),
                                        [&](const UNNotification& n) {
                                            return std::find(identifiers.begin(), identifiers.end(),
                                                             n.request.identifier) != identifiers.end();
                                        }),
                         delivered_.end());
    }
    effects_->emit("removedDelivered", {{"identifiers", identifiers}});
}

void HeadlessUserNotificationCenter::removeAllDeliveredNotifications() {
    std::vector<std::string> ids;
    {
        std::lock_guard lock(mutex_);
        for (const auto& n : delivered_) ids.push_back(n.request.identifier);
        delivered_.clear();
    }
    effects_->emit("removedDelivered", {{"identifiers", ids}});
}

void HeadlessUserNotificationCenter::setNotificationCategories(std::vector<UNNotificationCategory> categories) {
    std::vector<std::string> ids;
    for (const auto& c : categories) ids.push_back(c.identifier);
    {
        std::lock_guard lock(mutex_);
        categories_ = std::move(categories);
    }
    effects_->emit("categoriesSet", {{"identifiers", ids}});
}

void HeadlessUserNotificationCenter::getNotificationCategories(
    std::function<void(std::vector<UNNotificationCategory>)> completion) {
    auto list = categories();
    if (completion) runLoop_->async([completion, list] { completion(list); });
}

void HeadlessUserNotificationCenter::setAuthorizationAnswer(bool granted, UNAuthorizationStatus status) {
    std::lock_guard lock(mutex_);
    answerGranted_ = granted;
    answerStatus_ = status;
}

void HeadlessUserNotificationCenter::setAuthorizationStatus(UNAuthorizationStatus status) {
    std::lock_guard lock(mutex_);
    status_ = status;
}

std::vector<UNNotificationRequest> HeadlessUserNotificationCenter::pending() const {
    std::lock_guard lock(mutex_);
    std::vector<UNNotificationRequest> out;
    for (const auto& [id, entry] : pending_) out.push_back(entry.first);
    return out;
}

std::vector<UNNotification> HeadlessUserNotificationCenter::delivered() const {
    std::lock_guard lock(mutex_);
    return delivered_;
}

std::vector<UNNotificationCategory> HeadlessUserNotificationCenter::categories() const {
    std::lock_guard lock(mutex_);
    return categories_;
}

std::optional<unsigned> HeadlessUserNotificationCenter::lastAuthorizationOptions() const {
    std::lock_guard lock(mutex_);
    return lastOptions_;
}

// ---- Screen and device ----

Rect HeadlessScreen::bounds() const {
    std::lock_guard lock(mutex_);
    return bounds_;
}

void HeadlessScreen::setBounds(Rect bounds) {
    std::lock_guard lock(mutex_);
    bounds_ = bounds;
}

namespace {
utsname unameInfo() {
    utsname u{};
    ::uname(&u);
    return u;
}
}  // namespace

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
    std::lock_guard lock(mutex_);
    orientation_ = orientation;
}

// ---- Assembly ----

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
    h.screen = std::make_shared<HeadlessScreen>();
    h.device = std::make_shared<HeadlessDevice>();
    h.platform = std::make_shared<Platform>();
    h.platform->clock = clock;
    h.platform->runLoop = runLoop;
    h.platform->utilityQueue = utility;
    h.platform->urlSession = session;
    h.platform->notificationCenter = h.notificationCenter;
    h.platform->application = h.application;
    h.platform->userNotificationCenter = h.userNotificationCenter;
    h.platform->screen = h.screen;
    h.platform->device = h.device;
    return h;
}

}  // namespace tessrakite::platform::headless
