#include <tessrakite/crash/JtCrashReporter.hpp>

#include <filesystem>

#include <tessrakite/crash/JtCrashLogger.hpp>
#include <tessrakite/crash/JtCrashReportOperation.hpp>
#include <tessrakite/platform/Console.hpp>

namespace tessrakite {

std::shared_ptr<OperationQueue> JtCrashReporter::reportLogs() {
    auto queue = std::make_shared<OperationQueue>();
    try {
        const std::filesystem::path folder = JtCrashLogger::getLogPath();
        if (folder.empty()) return queue;
        std::error_code ec;
        std::filesystem::recursive_directory_iterator it(folder, std::filesystem::directory_options::skip_permission_denied,
                                                         ec);
        for (const std::filesystem::recursive_directory_iterator end; !ec && it != end; it.increment(ec)) {
            const std::string entry = it->path().lexically_relative(folder).string();
            auto operation = std::make_shared<JtCrashReportOperation>(it->path().string());
            operation->setQueue(queue);
            queue->addOperation(operation);
            Console::print(entry);
        }
    } catch (...) {
    }
    return queue;
}

}  // namespace tessrakite
