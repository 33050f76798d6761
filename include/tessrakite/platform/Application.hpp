#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/Url.hpp>

namespace tessrakite::platform {

enum class ApplicationState { active, inactive, background };
using BackgroundTaskIdentifier = std::uint64_t;
inline constexpr BackgroundTaskIdentifier invalidBackgroundTask = 0;

/// The application object: remote-notification registration, badge, URLs, background
/// tasks.
class TESSRA_EXPORT Application {
public:
    virtual ~Application() = default;
    virtual void registerForRemoteNotifications() = 0;
    virtual void unregisterForRemoteNotifications() = 0;
    virtual bool isRegisteredForRemoteNotifications() const = 0;
    virtual std::int64_t applicationIconBadgeNumber() const = 0;
    virtual void setApplicationIconBadgeNumber(std::int64_t value) = 0;
    virtual bool canOpenURL(const Url& url) const = 0;
    virtual void open(const Url& url, std::function<void(bool)> completion) = 0;
    virtual BackgroundTaskIdentifier beginBackgroundTask(const std::string& name,
                                                         std::function<void()> expirationHandler) = 0;
    virtual void endBackgroundTask(BackgroundTaskIdentifier identifier) = 0;
    virtual ApplicationState applicationState() const = 0;
};

}  // namespace tessrakite::platform
