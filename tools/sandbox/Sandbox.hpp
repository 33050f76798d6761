#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include "Images.hpp"

namespace tessrakite::sandbox {

using Json = nlohmann::ordered_json;

struct Options {
    int httpsPort = 0;              // 0: a free port chosen by the system
    int httpPort = 0;
    std::filesystem::path state;    // empty: a fresh temporary folder
};

/// Every request the backend routes received, in memory for /_sandbox/requests, as JSON lines
/// on stdout and appended to requests.jsonl.
class RequestLog {
public:
    explicit RequestLog(const std::filesystem::path& file);
    void record(Json entry);
    /// Entries whose path starts with `pathPrefix` (all when empty).
    Json list(const std::string& pathPrefix) const;
    std::size_t clear();
    void flush();

private:
    mutable std::mutex mutex_;
    std::deque<Json> entries_;
    std::ofstream file_;
};

/// A scripted failure for the next `remaining` requests whose path starts with `route`.
struct Fault {
    std::string route;
    std::int64_t remaining = 1;
    std::optional<int> status;
    double delay = 0;
    bool drop = false;
    bool truncate = false;

    /// Reads the body of POST /_sandbox/fault; returns an explanation when it is not acceptable.
    static std::optional<Fault> parse(const std::string& body, std::string& error);
    Json effects() const;
    Json describe() const;
};

class FaultBook {
public:
    void add(Fault fault);
    /// Consumes one use of the first fault matching `path`, if any.
    std::optional<Fault> take(const std::string& path);
    Json list() const;
    std::size_t clear();

private:
    mutable std::mutex mutex_;
    std::vector<Fault> faults_;
};

/// The local development backend: HTTPS for tracking, configuration, campaigns and the prompt
/// script; plain HTTP for ads, images, trackers and crash uploads.
class Sandbox {
public:
    enum class Side { Https, Http, Both };

    /// Prepares the state folder and certificates and binds both ports (127.0.0.1 only).
    /// Throws std::runtime_error when any of that fails.
    explicit Sandbox(Options options);
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    /// Starts accepting connections on background threads.
    void start();
    /// Stops both servers, waits for their threads and flushes the request log. Idempotent.
    void stop();

    int httpsPort() const { return httpsPort_; }
    int httpPort() const { return httpPort_; }
    const std::filesystem::path& state() const { return state_; }
    /// The shell lines that point the SDK at this sandbox.
    std::vector<std::string> exportLines() const;

private:
    using Handler = void (Sandbox::*)(const httplib::Request&, httplib::Response&);
    struct Route {
        Side side;
        const char* method;
        const char* path;  // ending in "/": every path below it
        Handler handler;
    };
    static const std::vector<Route>& routes();

    void serve(Side side, const httplib::Request& req, httplib::Response& res);
    void route(Side side, const httplib::Request& req, httplib::Response& res);
    void record(Side side, const httplib::Request& req, int status, const std::optional<Fault>& fault);
    bool waitUnlessStopping(double seconds);
    std::string substitute(std::string text) const;
    std::shared_ptr<const ImageLibrary> images();
    std::optional<std::string> stateDocument(const std::string& folder, const std::string& name,
                                             std::time_t* modified = nullptr) const;

    // Backend routes.
    void configDocument(const httplib::Request& req, httplib::Response& res);
    void created(const httplib::Request& req, httplib::Response& res);
    void campaign(const httplib::Request& req, httplib::Response& res);
    void promptScript(const httplib::Request& req, httplib::Response& res);
    void adFeed(const httplib::Request& req, httplib::Response& res);
    void tracker(const httplib::Request& req, httplib::Response& res);
    void image(const httplib::Request& req, httplib::Response& res);
    void crashUpload(const httplib::Request& req, httplib::Response& res);
    void landing(const httplib::Request& req, httplib::Response& res);
    // Control routes.
    void listRequests(const httplib::Request& req, httplib::Response& res);
    void clearRequests(const httplib::Request& req, httplib::Response& res);
    void listFaults(const httplib::Request& req, httplib::Response& res);
    void addFault(const httplib::Request& req, httplib::Response& res);
    void clearFaults(const httplib::Request& req, httplib::Response& res);

    std::filesystem::path state_;
    std::filesystem::path authority_;
    std::time_t startedAt_ = 0;
    std::unique_ptr<httplib::SSLServer> https_;
    std::unique_ptr<httplib::Server> http_;
    int httpsPort_ = 0;
    int httpPort_ = 0;
    std::unique_ptr<RequestLog> log_;
    // Drawn on a thread of their own from start() on, so that "# ready" does not wait for them;
    // the first image request does. Null once drawn means drawing failed.
    std::thread imagesThread_;
    std::mutex imagesMutex_;
    std::condition_variable imagesDrawn_;
    bool imagesDone_ = false;
    std::shared_ptr<const ImageLibrary> images_;
    FaultBook faults_;
    std::thread httpsThread_;
    std::thread httpThread_;
    std::atomic<bool> httpsFinished_{false};
    std::atomic<bool> httpFinished_{false};

    std::mutex stopMutex_;
    std::condition_variable stopSignal_;
    bool stopping_ = false;
    bool stopped_ = false;

    std::atomic<std::uint64_t> adCounter_{0};
};

}  // namespace tessrakite::sandbox
