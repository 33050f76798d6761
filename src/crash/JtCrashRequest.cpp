#include <tessrakite/crash/JtCrashRequest.hpp>

#include <tessrakite/crash/Base64.hpp>

#include "crash/CrashHost.hpp"
#include "crash/CrashReport.hpp"

namespace tessrakite {

std::optional<platform::UrlRequest> requestWithJtCrashLogFile(const std::shared_ptr<JtCrashLogFile>& logFile) {
    if (!logFile) return std::nullopt;
    try {
        const std::string text = "/post.php?ver=" + crash::orNull(logFile->appVersion) +
                                 "&addr=" + std::to_string(logFile->address) +
                                 "&code=" + std::to_string(static_cast<std::uint32_t>(logFile->code));
        auto url = Url::parse(crash::crashHostBase() + text);
        if (!url) return std::nullopt;

        std::string report = "type:" + std::to_string(logFile->type) + "\n" + crash::orNull(logFile->info) + "\n";
        if (logFile->callStack) {
            for (std::size_t i = 0; i < logFile->callStack->size(); ++i) {
                if (i) report += '\n';
                report += (*logFile->callStack)[i];
            }
        } else {
            report += "(null)";
        }

        platform::UrlRequest request(*url);
        request.httpMethod = "POST";
        request.httpBody = "stack=" + base64StringWithString(report).value_or("(null)");
        return request;
    } catch (...) {
        return std::nullopt;
    }
}

}  // namespace tessrakite
