#pragma once

#include <functional>
#include <memory>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/Application.hpp>
#include <tessrakite/platform/Clock.hpp>
#include <tessrakite/platform/Device.hpp>
#include <tessrakite/platform/LocationManager.hpp>
#include <tessrakite/platform/MainQueue.hpp>
#include <tessrakite/platform/NotificationCenter.hpp>
#include <tessrakite/platform/SerialQueue.hpp>
#include <tessrakite/platform/UrlSession.hpp>
#include <tessrakite/platform/UserNotificationCenter.hpp>

namespace tessrakite::platform {

class Window;
class WebView;
class WebViewEngine;
class WebViewObserver;

/// The operating-system services the SDK uses. A host may replace the process-wide
/// platform before TessraQuill::initialize; the default is chosen by TESSRA_PLATFORM.
struct TESSRA_EXPORT Platform {
    std::shared_ptr<Clock> clock;
    std::shared_ptr<RunLoop> runLoop;  // the main queue
    std::shared_ptr<SerialQueue> utilityQueue;  // background work in order, off the main queue
    std::shared_ptr<UrlSession> urlSession;
    std::shared_ptr<NotificationCenter> notificationCenter;
    std::shared_ptr<Application> application;
    std::shared_ptr<UserNotificationCenter> userNotificationCenter;
    std::shared_ptr<LocationServices> location;  // region monitoring and beacon ranging
    std::shared_ptr<Screen> screen;
    std::shared_ptr<Device> device;
    std::shared_ptr<Window> keyWindow;  // the application's key window; none for an extension
    std::shared_ptr<WebViewObserver> webViewObserver;  // told what web views load; may be none
    /// Makes the browser engine of each new web view; none (the headless platform): web
    /// views only record what they load.
    std::function<std::unique_ptr<WebViewEngine>(WebView&)> makeWebViewEngine;

    MainQueue& mainQueue() const { return *runLoop; }
};

/// The process-wide platform; made on first use unless a host set one: the desktop
/// platform in a build with TESSRA_PLATFORM=desktop, else the headless one.
TESSRA_EXPORT std::shared_ptr<Platform> currentPlatform();
TESSRA_EXPORT void setCurrentPlatform(std::shared_ptr<Platform> platform);

}  // namespace tessrakite::platform
