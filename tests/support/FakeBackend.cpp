#include "FakeBackend.hpp"

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <httplib.h>

#include "TestEnv.hpp"

namespace tessrakite::test {
namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

std::optional<int> portOf(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
    if (address.ss_family == AF_INET6) return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
    return std::nullopt;
}

/// Shuts down this process's sockets whose local port is `localPort` (and whose peer
/// port is `remotePort`, when given). cpp-httplib hands a handler no socket, so the
/// connection is found by its ports.
void shutdownSockets(int localPort, std::optional<int> remotePort) {
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ec)) {
        int fd = -1;
        try {
            fd = std::stoi(entry.path().filename().string());
        } catch (...) {
            continue;
        }
        sockaddr_storage local{}, peer{};
        socklen_t localLength = sizeof local, peerLength = sizeof peer;
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) != 0) continue;
        if (portOf(local) != localPort) continue;
        if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0) continue;
        if (remotePort && portOf(peer) != *remotePort) continue;
        ::shutdown(fd, SHUT_RDWR);
    }
}

/// One thread per connection: the library's fixed pool would let idle keep-alive
/// connections starve new ones.
class ThreadPerConnection final : public httplib::TaskQueue {
public:
    void enqueue(std::function<void()> fn) override {
        std::lock_guard lock(mutex_);
        threads_.emplace_back(std::move(fn));
    }
    void shutdown() override {
        std::vector<std::thread> threads;
        {
            std::lock_guard lock(mutex_);
            threads.swap(threads_);
        }
        for (auto& t : threads) t.join();
    }

private:
    std::mutex mutex_;
    std::vector<std::thread> threads_;
};

struct Route {
    std::deque<Answer> queued;
    std::optional<Answer> fixed;
};

bool pathMatches(const std::string& pattern, const std::string& path) {
    if (!pattern.empty() && pattern.back() == '*')
        return path.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0;
    return pattern == path;
}

}  // namespace

// ---- RecordedRequest ----

std::optional<std::string> RecordedRequest::header(std::string_view name) const {
    std::optional<std::string> joined;
    for (const auto& [key, value] : headers) {
        if (!equalsIgnoringCase(key, name)) continue;
        if (joined)
            *joined += ", " + value;
        else
            joined = value;
    }
    return joined;
}

std::optional<std::string> RecordedRequest::param(std::string_view name) const {
    httplib::Params params;
    httplib::detail::parse_query_text(query, params);
    auto it = params.find(std::string(name));
    if (it == params.end()) return std::nullopt;
    return it->second;
}

std::string RecordedRequest::target() const { return query.empty() ? path : path + "?" + query; }

// ---- Answer ----

Answer Answer::json(std::string body, int status) {
    Answer a;
    a.status = status;
    a.body = std::move(body);
    a.headers.emplace_back("Content-Type", "application/json");
    return a;
}

Answer Answer::text(std::string body, int status) {
    Answer a;
    a.status = status;
    a.body = std::move(body);
    a.headers.emplace_back("Content-Type", "text/plain");
    return a;
}

Answer Answer::withStatus(int status) {
    Answer a;
    a.status = status;
    return a;
}

Answer Answer::dropped() {
    Answer a;
    a.drop = true;
    return a;
}

Answer& Answer::header(std::string name, std::string value) {
    headers.emplace_back(std::move(name), std::move(value));
    return *this;
}

Answer& Answer::after(std::chrono::milliseconds wait) {
    delay = wait;
    return *this;
}

Answer& Answer::inChunks() {
    chunked = true;
    return *this;
}

// ---- FakeBackend ----

struct FakeBackend::Impl {
    explicit Impl(const Options& options)
        : https(testData(options.certificate).c_str(), testData(options.privateKey).c_str()) {
        // A client that gives up (a timeout) leaves the server writing to a closed socket.
        static std::once_flag ignorePipe;
        std::call_once(ignorePipe, [] { std::signal(SIGPIPE, SIG_IGN); });
        if (!https.is_valid()) throw std::runtime_error("FakeBackend: cannot load " + options.certificate);
        setUp(http, options.keepAliveSeconds);
        setUp(https, options.keepAliveSeconds);
        httpPortNumber = http.bind_to_any_port("127.0.0.1");
        httpsPortNumber = https.bind_to_any_port("127.0.0.1");
        if (httpPortNumber <= 0 || httpsPortNumber <= 0) throw std::runtime_error("FakeBackend: cannot bind");
        httpThread = std::thread([this] { http.listen_after_bind(); });
        httpsThread = std::thread([this] { https.listen_after_bind(); });
        // stop() only works once the servers run; wait so an early destructor cannot hang.
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while ((!http.is_running() || !https.is_running()) && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    ~Impl() {
        {
            std::lock_guard lock(mutex);
            stopping = true;
        }
        changed.notify_all();
        http.stop();
        https.stop();
        // Idle keep-alive connections would hold their threads until the keep-alive timeout.
        shutdownSockets(httpPortNumber, std::nullopt);
        shutdownSockets(httpsPortNumber, std::nullopt);
        httpThread.join();
        httpsThread.join();
    }

    void setUp(httplib::Server& server, int keepAliveSeconds) {
        const bool tls = &server == &https;
        server.new_task_queue = [] { return new ThreadPerConnection; };
        server.set_tcp_nodelay(true);  // headers and body go out in separate writes
        server.set_keep_alive_max_count(1000);
        server.set_keep_alive_timeout(keepAliveSeconds);
        auto handler = [this, tls](const httplib::Request& request, httplib::Response& response) {
            handle(request, response, tls);
        };
        const std::string any = ".*";
        server.Get(any, handler);
        server.Post(any, handler);
        server.Put(any, handler);
        server.Patch(any, handler);
        server.Delete(any, handler);
        server.Options(any, handler);
    }

    void handle(const httplib::Request& request, httplib::Response& response, bool tls) {
        RecordedRequest recorded;
        recorded.method = request.method;
        auto question = request.target.find('?');
        recorded.path = request.target.substr(0, question);
        if (question != std::string::npos) recorded.query = request.target.substr(question + 1);
        for (const auto& [name, value] : request.headers) {
            // The library adds the socket's addresses as pseudo headers; the client sent none.
            if (name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT")
                continue;
            recorded.headers.emplace_back(name, value);
        }
        recorded.body = request.body;
        recorded.remotePort = request.remote_port;
        recorded.tls = tls;

        Answer answer = answerFor(recorded);
        {
            std::unique_lock lock(mutex);
            if (answer.delay.count() > 0) changed.wait_for(lock, answer.delay, [this] { return stopping; });
            if (stopping) answer.drop = true;
        }
        if (answer.drop) {
            shutdownSockets(request.local_port, request.remote_port);
            return;
        }
        response.status = answer.status;
        std::string contentType;
        for (const auto& [name, value] : answer.headers) {
            if (equalsIgnoringCase(name, "Content-Type"))
                contentType = value;
            else
                response.headers.emplace(name, value);
        }
        if (contentType.empty() && !answer.body.empty()) contentType = "application/octet-stream";
        if (answer.chunked) {
            auto body = std::make_shared<std::string>(std::move(answer.body));
            response.set_chunked_content_provider(contentType, [body](std::size_t offset, httplib::DataSink& sink) {
                constexpr std::size_t kChunk = 16 * 1024;
                if (offset < body->size()) {
                    const std::size_t n = std::min(kChunk, body->size() - offset);
                    if (!sink.write(body->data() + offset, n)) return false;
                }
                if (offset + kChunk >= body->size()) sink.done();
                return true;
            });
        } else if (!answer.body.empty() || !contentType.empty()) {
            response.set_content(answer.body, contentType);
        }
    }

    Answer answerFor(const RecordedRequest& recorded) {
        std::lock_guard lock(mutex);
        requests.push_back(recorded);
        changed.notify_all();
        if (Route* route = find(recorded.method, recorded.path)) {
            if (!route->queued.empty()) {
                Answer next = std::move(route->queued.front());
                route->queued.pop_front();
                return next;
            }
            if (route->fixed) return *route->fixed;
        }
        return Answer::text("no script for " + recorded.method + " " + recorded.path, 404);
    }

    Route& route(std::string method, std::string path) { return routes[{std::move(method), std::move(path)}]; }

    /// The exact path's route, else the longest matching prefix pattern's.
    Route* find(const std::string& method, const std::string& path) {
        auto exact = routes.find({method, path});
        if (exact != routes.end()) return &exact->second;
        Route* best = nullptr;
        std::size_t bestLength = 0;
        for (auto& [key, route] : routes) {
            if (key.first != method || !pathMatches(key.second, path)) continue;
            if (!best || key.second.size() > bestLength) {
                best = &route;
                bestLength = key.second.size();
            }
        }
        return best;
    }

    httplib::Server http;
    httplib::SSLServer https;
    int httpPortNumber = 0;
    int httpsPortNumber = 0;
    std::thread httpThread;
    std::thread httpsThread;

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    bool stopping = false;
    std::vector<RecordedRequest> requests;
    std::map<std::pair<std::string, std::string>, Route> routes;
};

FakeBackend::FakeBackend() : FakeBackend(Options{}) {}
FakeBackend::FakeBackend(Options options) : impl_(std::make_unique<Impl>(options)) {}
FakeBackend::~FakeBackend() = default;

std::string FakeBackend::httpsHost() const { return "127.0.0.1:" + std::to_string(impl_->httpsPortNumber); }
std::string FakeBackend::httpHost() const { return "127.0.0.1:" + std::to_string(impl_->httpPortNumber); }
std::string FakeBackend::httpsBase() const { return "https://" + httpsHost(); }
std::string FakeBackend::httpBase() const { return "http://" + httpHost(); }

void FakeBackend::on(std::string method, std::string path, Answer answer) {
    std::lock_guard lock(impl_->mutex);
    Route& route = impl_->route(std::move(method), std::move(path));
    route.fixed = std::move(answer);
}

void FakeBackend::onSequence(std::string method, std::string path, std::vector<Answer> answers) {
    std::lock_guard lock(impl_->mutex);
    Route& route = impl_->route(std::move(method), std::move(path));
    for (auto& a : answers) route.queued.push_back(std::move(a));
}

void FakeBackend::clearScripts() {
    std::lock_guard lock(impl_->mutex);
    impl_->routes.clear();
}

std::vector<RecordedRequest> FakeBackend::requests() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->requests;
}

std::vector<RecordedRequest> FakeBackend::requestsTo(std::string_view path) const {
    std::lock_guard lock(impl_->mutex);
    std::vector<RecordedRequest> out;
    for (const auto& r : impl_->requests)
        if (r.path == path) out.push_back(r);
    return out;
}

bool FakeBackend::waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(impl_->mutex);
    return impl_->changed.wait_for(lock, timeout, [&] { return impl_->requests.size() >= count; });
}

void FakeBackend::clearRequests() {
    std::lock_guard lock(impl_->mutex);
    impl_->requests.clear();
}

std::string testCaFile() { return testData("tls/test-ca.pem").string(); }

platform::UrlSessionOptions trustingTestCa(std::size_t maxResponseBytes) {
    platform::UrlSessionOptions options;
    options.extraCaFile = testCaFile();
    options.maxResponseBytes = maxResponseBytes;
    return options;
}

}  // namespace tessrakite::test
