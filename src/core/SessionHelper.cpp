#include <tessrakite/core/SessionHelper.hpp>

#include <chrono>
#include <thread>

#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/Platform.hpp>

#include "core/Text.hpp"

namespace tessrakite {

SessionHelper::SessionHelper(std::uint64_t sessionIdleTimeout) : sessionIdleTimeout_(sessionIdleTimeout) {}

SessionHelper::~SessionHelper() {
    auto center = platform::currentPlatform()->notificationCenter;
    for (auto token : observers_) center->removeObserver(token);
}

void SessionHelper::registerListeners() {
    auto center = platform::currentPlatform()->notificationCenter;
    namespace N = platform::AppNotification;
    observers_.push_back(center->addObserver(N::didBecomeActive, [this] { appBecameActive(); }));
    observers_.push_back(center->addObserver(N::willResignActive, [this] { appBecameInactive(); }));
    observers_.push_back(center->addObserver(N::didEnterBackground, [this] { appBecameBackground(); }));
    observers_.push_back(center->addObserver(N::willTerminate, [this] { appWillTerminate(); }));
}

void SessionHelper::appBecameActive() {
    platform::BackgroundTaskIdentifier task;
    {
        std::lock_guard lock(mutex_);
        if (startNewSession_) {
            startNewSession_ = false;
            return;
        }
        task = bgTask_;
        bgTask_ = platform::invalidBackgroundTask;
    }
    if (task != platform::invalidBackgroundTask) platform::currentPlatform()->application->endBackgroundTask(task);
}

void SessionHelper::appBecameInactive() {
    std::lock_guard lock(mutex_);
    becameInactiveAt_ = platform::currentPlatform()->clock->now();
}

void SessionHelper::appBecameBackground() {
    auto application = platform::currentPlatform()->application;
    // The application keeps the handler: hold it weakly so the two do not keep each other.
    std::weak_ptr<platform::Application> weakApplication = application;
    auto task = application->beginBackgroundTask("ksession", [this, weakApplication] {
        platform::BackgroundTaskIdentifier expired;
        {
            std::lock_guard lock(mutex_);
            expired = bgTask_;
            bgTask_ = platform::invalidBackgroundTask;
        }
        auto app = weakApplication.lock();
        if (app && expired != platform::invalidBackgroundTask) app->endBackgroundTask(expired);
    });
    std::lock_guard lock(mutex_);
    bgTask_ = task;
    if (!becameInactiveAt_) becameInactiveAt_ = platform::currentPlatform()->clock->now();
}

void SessionHelper::appWillTerminate() {
    {
        std::lock_guard lock(mutex_);
        if (!becameInactiveAt_) becameInactiveAt_ = platform::currentPlatform()->clock->now();
    }
    sessionDidEnd();
}

void SessionHelper::sessionDidEnd() {
    {
        std::lock_guard lock(mutex_);
        if (!becameInactiveAt_) return;
        startNewSession_ = true;
    }
    auto platform = platform::currentPlatform();
    const auto now = detail::dateDescription(platform->clock->now());
    Console::print("Session ended ", now);

    // Hold the terminating app only while reports are still in flight, never past 10 s.
    constexpr double kMaxWait = 10.0;
    auto session = platform->urlSession;
    auto utility = platform->utilityQueue;
    std::thread signaller([this, session, utility] {
        const auto start = std::chrono::steady_clock::now();
        if (utility) utility->waitIdle(kMaxWait);  // reports still being built come first
        const double spent = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (session) session->waitIdle(kMaxWait - spent);
        syncBarrier.release();
    });
    syncBarrier.try_acquire_for(std::chrono::duration<double>(kMaxWait));
    signaller.join();
    // The signaller may release after a timed-out wait; drain so the next end waits again.
    while (syncBarrier.try_acquire()) {
    }
}

bool SessionHelper::startNewSession() const {
    std::lock_guard lock(mutex_);
    return startNewSession_;
}

std::optional<double> SessionHelper::becameInactiveAt() const {
    std::lock_guard lock(mutex_);
    return becameInactiveAt_;
}

platform::BackgroundTaskIdentifier SessionHelper::bgTask() const {
    std::lock_guard lock(mutex_);
    return bgTask_;
}

}  // namespace tessrakite
