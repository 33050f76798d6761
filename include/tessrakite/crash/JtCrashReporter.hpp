#pragma once

#include <memory>

#include <tessrakite/Export.hpp>
#include <tessrakite/crash/OperationQueue.hpp>

namespace tessrakite {

/// Uploads stored crash records. The host calls reportLogs(); the SDK never does.
class TESSRA_EXPORT JtCrashReporter {
public:
    /// Queues one JtCrashReportOperation per entry of the crash log folder (recursively)
    /// on a new operation queue and prints each entry's name. Returns the queue, so a
    /// caller may wait for the uploads; dropping it does not stop them. Files that fail
    /// to upload stay for the next call.
    static std::shared_ptr<OperationQueue> reportLogs();
};

}  // namespace tessrakite
