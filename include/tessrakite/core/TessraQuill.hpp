#pragma once

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/PlistValue.hpp>
#include <tessrakite/platform/UserNotificationCenter.hpp>

namespace tessrakite {

/// The SDK's facade: every host entry point is a static member.
class TESSRA_EXPORT TessraQuill {
public:
    // Push payloads (declared here by the push records work).
};

}  // namespace tessrakite
