#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <semaphore>
#include <vector>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/Application.hpp>
#include <tessrakite/platform/NotificationCenter.hpp>

namespace tessrakite {

/// Follows the session through the application's lifecycle notifications.
class TESSRA_EXPORT SessionHelper {
public:
    explicit SessionHelper(std::uint64_t sessionIdleTimeout);
    ~SessionHelper();
    SessionHelper(const SessionHelper&) = delete;
    SessionHelper& operator=(const SessionHelper&) = delete;

    void registerListeners();
    void appBecameActive();
    void appBecameInactive();
    void appBecameBackground();
    void appWillTerminate();

    bool startNewSession() const;
    std::optional<double> becameInactiveAt() const;
    platform::BackgroundTaskIdentifier bgTask() const;
    std::uint64_t sessionIdleTimeout() const { return sessionIdleTimeout_; }

private:
    void sessionDidEnd();

    mutable std::mutex mutex_;
    bool startNewSession_ = true;
    std::optional<double> becameInactiveAt_;
    platform::BackgroundTaskIdentifier bgTask_ = platform::invalidBackgroundTask;
    std::uint64_t sessionIdleTimeout_;
    std::counting_semaphore<> syncBarrier{0};
    std::vector<platform::NotificationCenter::ObserverToken> observers_;
};

}  // namespace tessrakite
