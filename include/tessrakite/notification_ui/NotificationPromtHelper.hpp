#pragma once

#include <tessrakite/Export.hpp>
#include <tessrakite/core/StorageManager.hpp>

namespace tessrakite {

/// The prompt view's access to the shared store, where the configuration document waits.
class TESSRA_EXPORT NotificationPromtHelper {
public:
    StorageManager storageManger;
};

}  // namespace tessrakite
