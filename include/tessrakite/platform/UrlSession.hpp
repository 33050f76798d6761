#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/PlistValue.hpp>
#include <tessrakite/platform/Url.hpp>

namespace tessrakite::platform {

struct TESSRA_EXPORT UrlRequest {
    Url url;
    std::string httpMethod = "GET";
    std::vector<std::pair<std::string, std::string>> headers;
    std::string httpBody;
    double timeoutInterval = 60.0;  // seconds, for the whole exchange

    explicit UrlRequest(Url u) : url(std::move(u)) {}
    /// Sets a header, replacing any earlier value of that field (names are case-insensitive).
    void setValue(std::string value, std::string forHTTPHeaderField);
};

struct TESSRA_EXPORT HttpResponse {
    long statusCode = 0;
    std::vector<std::pair<std::string, std::string>> headers;
    /// Case-insensitive header lookup; repeated fields are joined with ", ".
    std::optional<std::string> value(std::string_view forHTTPHeaderField) const;
};

/// A transport failure (no HTTP answer, timeout, TLS, body over the cap, ...).
struct TESSRA_EXPORT UrlError {
    static constexpr int bodyTooLarge = -1;  // the response body exceeded maxResponseBytes
    static constexpr int cancelled = -2;     // the session shut down before the exchange ended
    static constexpr int timedOut = 28;      // libcurl's CURLE_OPERATION_TIMEDOUT

    int code = 0;  // libcurl's code, or one of the negative codes above
    std::string message;
    std::string localizedDescription() const { return message; }
};

/// Exactly one of `error` and `response` is set; `data` comes with a response.
struct TESSRA_EXPORT UrlResult {
    std::optional<Data> data;
    std::optional<HttpResponse> response;
    std::optional<UrlError> error;
};

/// The process's HTTP client. Completions of data tasks run on the session's one worker
/// thread; a synchronous send blocks the caller (never call it on the main queue).
class TESSRA_EXPORT UrlSession {
public:
    using Completion = std::function<void(const UrlResult&)>;
    virtual ~UrlSession() = default;
    /// Queues the exchange; callable from any thread. The completion runs on the worker.
    virtual void dataTask(UrlRequest request, Completion completion) = 0;
    /// One exchange on the calling thread; safe from any thread, the worker included.
    virtual UrlResult sendSynchronous(const UrlRequest& request) = 0;
    /// Data tasks started and not yet completed (their completions included).
    virtual std::size_t inFlight() const = 0;
    /// Blocks until no data task is in flight or `seconds` pass; true when idle.
    /// On the worker thread it does not wait (the worker cannot become idle while blocked).
    virtual bool waitIdle(double seconds) = 0;
};

struct TESSRA_EXPORT UrlSessionOptions {
    /// An extra certificate authority (PEM) trusted next to the system's.
    std::string extraCaFile;
    std::size_t maxResponseBytes = 0;  // 0: the build's default
    /// Options from the environment: TESSRA_CA_BUNDLE.
    static UrlSessionOptions fromEnvironment();
};

/// The libcurl session: one multi handle driven by one worker thread. Destroying it
/// completes the tasks still in flight with UrlError::cancelled.
TESSRA_EXPORT std::shared_ptr<UrlSession> makeCurlUrlSession(UrlSessionOptions options);

enum class DeploymentHost { tracking, cdn, ad, crash, web };
/// host[:port] of a deployment host: the environment variable (TESSRA_TRACKING_HOST, ...)
/// when set and not empty, else the value fixed at build time.
TESSRA_EXPORT std::string deploymentHost(DeploymentHost which);

}  // namespace tessrakite::platform
