#pragma once

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/PlistValue.hpp>
#include <tessrakite/platform/UserNotificationCenter.hpp>

// Push payloads
#include <memory>
#include <optional>
#include <variant>
#include <tessrakite/push/NotificationObject.hpp>
#include <tessrakite/push/PCampaignObject.hpp>
#include <tessrakite/push/PushObj.hpp>

namespace tessrakite {

/// The SDK's facade: every host entry point is a static member.
class TESSRA_EXPORT TessraQuill {
public:
    // Push payloads (declared here by the push records work).

    /// Decodes a push's user info as a direct push, or failing that as a campaign; nothing
    /// when it is not a JSON object or has neither shape. A payload of both shapes is a
    /// direct push.
    static std::optional<std::variant<PushObj, PCampaignObject>> parsePushObj(const PlistDictionary& userInfo);
    /// The messages of a delivered notification, read from the request's content user info
    /// (`userInfo` is not read). A campaign wins over a direct push; every message carries
    /// the request's identifier. Nothing when the user info is not a JSON object; an empty
    /// list when it has neither shape.
    static std::shared_ptr<NotificationObject> getNotificationContent(const PlistDictionary& userInfo,
                                                                      const platform::UNNotificationRequest& request);
};

}  // namespace tessrakite
