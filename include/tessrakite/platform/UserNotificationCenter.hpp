#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/PlistValue.hpp>

namespace tessrakite::platform {

enum class UNAuthorizationStatus { notDetermined, denied, authorized, provisional };

/// Authorization options, combined as a bit set.
namespace UNAuthorizationOptions {
inline constexpr unsigned badge = 1u << 0;
inline constexpr unsigned sound = 1u << 1;
inline constexpr unsigned alert = 1u << 2;
}  // namespace UNAuthorizationOptions

struct TESSRA_EXPORT UNNotificationSettings {
    UNAuthorizationStatus authorizationStatus = UNAuthorizationStatus::notDetermined;
};

class Image;

struct TESSRA_EXPORT UNNotificationAttachment {
    std::string identifier;
    std::string url;  // a file path
    PlistDictionary options;

    /// Writes `image` as "<identifier>.png" in a folder of this process's own under the
    /// temporary directory and returns the attachment for it; nothing (after a console
    /// line "error <description>") when the file cannot be written.
    static std::optional<UNNotificationAttachment> create(const std::string& identifier, const Image& image,
                                                          const PlistDictionary& options);
};

/// The content of a notification (the mutable form; read-only copies are the same type).
struct TESSRA_EXPORT UNMutableNotificationContent {
    std::string title;
    std::string subtitle;
    std::string body;
    std::optional<std::string> sound;  // "default" or a sound name
    std::optional<std::int64_t> badge;
    std::string categoryIdentifier;
    std::string threadIdentifier;
    PlistDictionary userInfo;
    std::vector<UNNotificationAttachment> attachments;
};
using UNNotificationContent = UNMutableNotificationContent;

struct TESSRA_EXPORT UNTimeIntervalNotificationTrigger {
    double timeInterval = 0;
    bool repeats = false;
};

struct TESSRA_EXPORT UNNotificationRequest {
    std::string identifier;
    UNNotificationContent content;
    std::optional<UNTimeIntervalNotificationTrigger> trigger;  // nothing: deliver now
};

struct TESSRA_EXPORT UNNotification {
    double date = 0;  // seconds since 1970
    UNNotificationRequest request;
};

/// Action options, combined as a bit set.
namespace UNNotificationActionOptions {
inline constexpr unsigned authenticationRequired = 1u << 0;
inline constexpr unsigned destructive = 1u << 1;
inline constexpr unsigned foreground = 1u << 2;
}  // namespace UNNotificationActionOptions

struct TESSRA_EXPORT UNNotificationAction {
    std::string identifier;
    std::string title;
    unsigned options = 0;
};

struct TESSRA_EXPORT UNNotificationCategory {
    std::string identifier;
    std::vector<UNNotificationAction> actions;
    std::vector<std::string> intentIdentifiers;
    unsigned options = 0;
};

/// The action identifier of a tap on the notification itself.
inline constexpr const char* UNNotificationDefaultActionIdentifier = "com.apple.UNNotificationDefaultActionIdentifier";

/// What the user did with a delivered notification: tapped it or one of its buttons.
struct TESSRA_EXPORT UNNotificationResponse {
    UNNotification notification;
    std::string actionIdentifier = UNNotificationDefaultActionIdentifier;
};

/// The user-notification centre. Completions may run on any thread.
class TESSRA_EXPORT UserNotificationCenter {
public:
    virtual ~UserNotificationCenter() = default;
    virtual void requestAuthorization(unsigned options,
                                      std::function<void(bool granted, std::optional<std::string> error)> completion) = 0;
    virtual void getNotificationSettings(std::function<void(UNNotificationSettings)> completion) = 0;
    virtual void add(UNNotificationRequest request, std::function<void(std::optional<std::string> error)> completion) = 0;
    virtual void getPendingNotificationRequests(std::function<void(std::vector<UNNotificationRequest>)> completion) = 0;
    virtual void removePendingNotificationRequests(const std::vector<std::string>& identifiers) = 0;
    virtual void removeAllPendingNotificationRequests() = 0;
    virtual void getDeliveredNotifications(std::function<void(std::vector<UNNotification>)> completion) = 0;
    virtual void removeDeliveredNotifications(const std::vector<std::string>& identifiers) = 0;
    virtual void removeAllDeliveredNotifications() = 0;
    virtual void setNotificationCategories(std::vector<UNNotificationCategory> categories) = 0;
    virtual void getNotificationCategories(std::function<void(std::vector<UNNotificationCategory>)> completion) = 0;

    /// What the app does when the user opens a delivered notification or taps one of its
    /// buttons (the app delegate's response callback); it runs on the main queue. A centre
    /// whose notifications nobody can touch never calls it.
    virtual void setResponseHandler(std::function<void(const UNNotificationResponse&)> handler) { (void)handler; }
};

}  // namespace tessrakite::platform
