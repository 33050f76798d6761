#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <tessrakite/platform/UrlSession.hpp>

namespace tessrakite::test {

/// One request as the fake backend received it.
struct RecordedRequest {
    std::string method;
    std::string path;   // without the query
    std::string query;  // raw, without "?"; empty when there is none
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    int remotePort = 0;  // the client's port: equal ports mean one reused connection
    bool tls = false;

    /// Case-insensitive; repeated fields are joined with ", ".
    std::optional<std::string> header(std::string_view name) const;
    /// A query parameter, percent-decoded.
    std::optional<std::string> param(std::string_view name) const;
    /// path, plus "?" and the query when there is one.
    std::string target() const;
};

/// How the backend answers one request.
struct Answer {
    int status = 200;
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
    std::chrono::milliseconds delay{0};  // waited before answering (cut short when the backend stops)
    bool drop = false;                   // close the connection without answering
    bool chunked = false;                // send the body without a Content-Length

    static Answer json(std::string body, int status = 200);
    static Answer text(std::string body, int status = 200);
    static Answer withStatus(int status);
    static Answer dropped();

    Answer& header(std::string name, std::string value);
    Answer& after(std::chrono::milliseconds wait);
    Answer& inChunks();
};

/// cpp-httplib servers on 127.0.0.1 (ephemeral ports): one HTTPS with the test
/// authority's certificate, one plain HTTP. Both share the scripts and the record.
///
///   FakeBackend backend;
///   backend.on("GET", "/cfg/key.json", Answer::json(R"({"consent":true})"));
///   backend.onSequence("POST", "/v2/activity", {Answer::withStatus(500), Answer::withStatus(201)});
///   ... backend.httpsBase() + "/cfg/key.json" ...
///   ASSERT_TRUE(backend.waitForRequests(1));
///   EXPECT_EQ(backend.requests()[0].header("If-Modified-Since"), "...");
///
/// A route is a method and a path; a path ending in "*" matches by prefix. The answers
/// queued with onSequence come first, in order; then the route's fixed answer; an
/// unscripted request gets 404. Like many servers, it compresses text and
/// JSON answers for clients that accept it (the session decodes them). Thread-safe.
class FakeBackend {
public:
    struct Options {
        std::string certificate = "tls/server.pem";  // under tests/data
        std::string privateKey = "tls/server.key";
        int keepAliveSeconds = 30;  // how long an idle connection stays open
    };

    FakeBackend();
    explicit FakeBackend(Options options);
    ~FakeBackend();
    FakeBackend(const FakeBackend&) = delete;
    FakeBackend& operator=(const FakeBackend&) = delete;

    std::string httpsHost() const;  // "127.0.0.1:PORT"
    std::string httpHost() const;
    std::string httpsBase() const;  // "https://127.0.0.1:PORT"
    std::string httpBase() const;

    void on(std::string method, std::string path, Answer answer);
    void onSequence(std::string method, std::string path, std::vector<Answer> answers);
    void clearScripts();

    /// Every request so far, in arrival order (recorded before any delay or drop).
    std::vector<RecordedRequest> requests() const;
    std::vector<RecordedRequest> requestsTo(std::string_view path) const;
    /// True once at least `count` requests have arrived; false after `timeout`.
    bool waitForRequests(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(20)) const;
    void clearRequests();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

/// The PEM file of the authority behind the backend's default certificate.
std::string testCaFile();
/// Session options that trust the test authority.
platform::UrlSessionOptions trustingTestCa(std::size_t maxResponseBytes = 0);

}  // namespace tessrakite::test
