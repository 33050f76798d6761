#pragma once

#include <memory>

#include <tessrakite/platform/UrlSession.hpp>

namespace tessrakite::platform {

/// UrlSession on libcurl. Data tasks share one multi handle driven by one worker thread
/// (its connection cache gives keep-alive reuse and HTTP/2 multiplexing). Synchronous
/// sends run on the caller's thread with easy handles from a small pool, so they never
/// wait for the worker and can be made from inside a completion.
class CurlUrlSession final : public UrlSession {
public:
    explicit CurlUrlSession(UrlSessionOptions options);
    ~CurlUrlSession() override;
    CurlUrlSession(const CurlUrlSession&) = delete;
    CurlUrlSession& operator=(const CurlUrlSession&) = delete;

    void dataTask(UrlRequest request, Completion completion) override;
    UrlResult sendSynchronous(const UrlRequest& request) override;
    std::size_t inFlight() const override;
    bool waitIdle(double seconds) override;

    struct State;

private:
    // Shared with the worker, which may outlive this object when the last reference is
    // dropped inside a completion.
    std::shared_ptr<State> state_;
};

}  // namespace tessrakite::platform
