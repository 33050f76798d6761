// The facade's permission requests: the system's registration, or the custom page first.

#include <memory>

#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/notification_ui/TessraQuillCustomNotificationView.hpp>
#include <tessrakite/platform/Platform.hpp>

#include "notification_ui/CustomPromt.hpp"

namespace tessrakite {

void TessraQuill::askForNotificationPermissionWith(std::shared_ptr<platform::ViewController> on) {
    auto platform = platform::currentPlatform();
    platform->userNotificationCenter->getNotificationSettings([platform, on](platform::UNNotificationSettings settings) {
        if (settings.authorizationStatus != platform::UNAuthorizationStatus::notDetermined) return;
        if (!detail::shouldPresentCustomPromt()) {
            askForNotificationsPermission();
            return;
        }
        platform->mainQueue().async([on] {
            auto prompt = std::make_shared<TessraQuillCustomNotificationView>();
            prompt->modalPresentationStyle = platform::ModalPresentationStyle::overFullScreen;
            if (on) on->present(prompt, false, nullptr);
        });
    });
}

void TessraQuill::askForNotificationsPermission() {
    auto platform = platform::currentPlatform();
    platform->mainQueue().async([platform] { platform->application->registerForRemoteNotifications(); });
}

}  // namespace tessrakite
