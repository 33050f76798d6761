#pragma once

#include <memory>
#include <mutex>
#include <string>

#include <tessrakite/Export.hpp>
#include <tessrakite/crash/OperationQueue.hpp>
#include <tessrakite/platform/UrlSession.hpp>

namespace tessrakite {

/// Uploads one crash record file: reads it as a JtCrashLogFile, sends its request
/// synchronously and deletes the file when the server answers 200. A file that is not
/// a record (the plain-text report, for one) is neither sent nor deleted.
class TESSRA_EXPORT JtCrashReportOperation : public Operation {
public:
    /// `session`: the session to send with; nothing means the current platform's.
    explicit JtCrashReportOperation(std::string fileName, std::shared_ptr<platform::UrlSession> session = nullptr);

    void main() override;

    const std::string& fileName() const { return fileName_; }
    /// The queue the operation belongs to; cleared when main() ends.
    std::shared_ptr<OperationQueue> queue() const;
    void setQueue(std::shared_ptr<OperationQueue> queue);

private:
    const std::string fileName_;
    const std::shared_ptr<platform::UrlSession> session_;
    mutable std::mutex mutex_;
    std::shared_ptr<OperationQueue> queue_;
};

}  // namespace tessrakite
