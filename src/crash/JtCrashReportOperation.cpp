#include <tessrakite/crash/JtCrashReportOperation.hpp>

#include <filesystem>

#include <tessrakite/crash/JtCrashLogFile.hpp>
#include <tessrakite/crash/JtCrashRequest.hpp>
#include <tessrakite/platform/Platform.hpp>

namespace tessrakite {

JtCrashReportOperation::JtCrashReportOperation(std::string fileName, std::shared_ptr<platform::UrlSession> session)
    : fileName_(std::move(fileName)), session_(std::move(session)) {}

std::shared_ptr<OperationQueue> JtCrashReportOperation::queue() const {
    std::lock_guard lock(mutex_);
    return queue_;
}

void JtCrashReportOperation::setQueue(std::shared_ptr<OperationQueue> queue) {
    std::lock_guard lock(mutex_);
    queue_ = std::move(queue);
}

void JtCrashReportOperation::main() {
    try {
        auto record = JtCrashLogFile::createFromLogFileName(fileName_);
        auto request = requestWithJtCrashLogFile(record);
        if (request) {
            auto session = session_;
            if (!session)
                if (auto p = platform::currentPlatform()) session = p->urlSession;
            if (session) {
                const auto result = session->sendSynchronous(*request);
                if (result.response && result.response->statusCode == 200) {
                    std::error_code ec;
                    std::filesystem::remove(fileName_, ec);
                }
            }
        }
    } catch (...) {
    }
    setQueue(nullptr);
}

}  // namespace tessrakite
