#pragma once

#include <vector>

#include <tessrakite/Export.hpp>
#include <tessrakite/push/TessraReceivedObject.hpp>

namespace tessrakite {

/// The messages of one delivered notification, in payload order (empty when the payload
/// has neither shape).
struct TESSRA_EXPORT NotificationObject {
    std::vector<TessraReceivedObject> notification;

    friend bool operator==(const NotificationObject&, const NotificationObject&) = default;
};

}  // namespace tessrakite
