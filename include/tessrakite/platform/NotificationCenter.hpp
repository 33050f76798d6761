#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <tessrakite/Export.hpp>

namespace tessrakite::platform {

/// Application lifecycle notification names.
namespace AppNotification {
inline constexpr const char* didFinishLaunching = "UIApplicationDidFinishLaunchingNotification";
inline constexpr const char* didBecomeActive = "UIApplicationDidBecomeActiveNotification";
inline constexpr const char* willResignActive = "UIApplicationWillResignActiveNotification";
inline constexpr const char* didEnterBackground = "UIApplicationDidEnterBackgroundNotification";
inline constexpr const char* willEnterForeground = "UIApplicationWillEnterForegroundNotification";
inline constexpr const char* willTerminate = "UIApplicationWillTerminateNotification";
}  // namespace AppNotification

/// Device notification names.
namespace DeviceNotification {
inline constexpr const char* orientationDidChange = "UIDeviceOrientationDidChangeNotification";
}  // namespace DeviceNotification

/// An observer registry: observers run on the thread that posts.
class TESSRA_EXPORT NotificationCenter {
public:
    using ObserverToken = std::uint64_t;
    virtual ~NotificationCenter() = default;
    virtual ObserverToken addObserver(const std::string& name, std::function<void()> block) = 0;
    virtual void removeObserver(ObserverToken token) = 0;
    virtual void post(const std::string& name) = 0;
};

}  // namespace tessrakite::platform
