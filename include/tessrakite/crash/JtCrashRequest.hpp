#pragma once

#include <memory>
#include <optional>

#include <tessrakite/Export.hpp>
#include <tessrakite/crash/JtCrashLogFile.hpp>
#include <tessrakite/platform/UrlSession.hpp>

namespace tessrakite {

/// The upload request of one crash record: a POST to
/// "<crash host>/post.php?ver=<appVersion>&addr=<address>&code=<code>" with the body
/// "stack=" + base64("type:<type>\n<info>\n<callStack joined by line breaks>"), no
/// headers, the base64 text not percent-escaped. The crash host is the scheme, host and
/// port of the stored "tx_crash_url" when it holds a URL, else "http://" + the built-in
/// crash host. Nothing without a record (or when the URL does not form one).
TESSRA_EXPORT std::optional<platform::UrlRequest> requestWithJtCrashLogFile(
    const std::shared_ptr<JtCrashLogFile>& logFile);

}  // namespace tessrakite
