#include "platform/CurlUrlSession.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cctype>
#include <cstdlib>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <optional>
#include <sstream>
#include <thread>
#include <unordered_map>
#include <vector>

#include <pthread.h>
#include <unistd.h>

#include <curl/curl.h>

#include <tessrakite/BuildConfig.hpp>

#include "crash/AlternateStack.hpp"

namespace tessrakite::platform {

static_assert(UrlError::timedOut == CURLE_OPERATION_TIMEDOUT);

namespace {

void stopSessionsAtExit();

void initializeCurlOnce() {
    // curl_global_init is not safe to race with itself on every libcurl build.
    static std::once_flag once;
    std::call_once(once, [] {
        curl_global_init(CURL_GLOBAL_DEFAULT);
        // Exit handlers run in reverse order of registration, so this one runs before the
        // cleanup OpenSSL registered while libcurl set it up: no worker is inside a TLS
        // exchange when OpenSSL is torn down.
        std::atexit(stopSessionsAtExit);
    });
}

std::optional<std::string> readWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream out;
    out << in.rdbuf();
    if (in.bad()) return std::nullopt;
    return out.str();
}

/// True when `dir` holds certificates under OpenSSL's subject-hash names ("1a2b3c4d.0").
bool isHashedCertificateDirectory(const char* dir) {
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
        const std::string name = entry.path().filename().string();
        auto hex = [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; };
        if (name.size() >= 10 && name[8] == '.' && std::all_of(name.begin(), name.begin() + 8, hex)) return true;
    }
    return false;
}

// The authorities a session trusts: the system's plus the extra one. libcurl takes a
// file or a blob, not both, so the extra authority goes in a blob and the system's come
// from its hashed directory, which OpenSSL reads lazily (a few ms per handshake instead
// of parsing the whole bundle, ~40 ms, on every new connection). Without such a directory
// the system bundle and the extra authority are concatenated into the blob.
struct Trust {
    std::string pem;         // empty: libcurl's built-in system store
    std::string directory;   // the system's hashed directory, next to `pem`
    std::string extraIssue;  // why the extra authority is not trusted, if it is not
};

Trust loadTrust(const std::string& extraCaFile) {
    Trust trust;
    if (extraCaFile.empty()) return trust;
    auto extra = readWholeFile(extraCaFile);
    if (!extra || extra->find("-----BEGIN CERTIFICATE-----") == std::string::npos) {
        trust.extraIssue = "the extra certificate authority " + extraCaFile + " could not be read";
        return trust;
    }
    static constexpr const char* kHashedDirectories[] = {"/etc/ssl/certs", "/etc/pki/tls/certs"};
    for (const char* dir : kHashedDirectories) {
        if (isHashedCertificateDirectory(dir)) {
            trust.directory = dir;
            trust.pem = std::move(*extra);
            return trust;
        }
    }
    static constexpr const char* kSystemBundles[] = {
        "/etc/ssl/certs/ca-certificates.crt",  // Debian, Ubuntu, Alpine
        "/etc/pki/tls/certs/ca-bundle.crt",    // Fedora, RHEL
        "/etc/ssl/ca-bundle.pem",              // openSUSE
        "/etc/ssl/cert.pem",                   // others
    };
    for (const char* bundle : kSystemBundles) {
        if (auto system = readWholeFile(bundle)) {
            trust.pem = std::move(*system);
            break;
        }
    }
    if (!trust.pem.empty() && trust.pem.back() != '\n') trust.pem += '\n';
    trust.pem += *extra;
    return trust;
}

struct Config {
    std::size_t maxResponseBytes = 0;
    Trust trust;
};

/// One exchange: the request, its buffers and what came back.
struct Transfer {
    explicit Transfer(UrlRequest r) : request(std::move(r)) {}
    ~Transfer() {
        if (headerList) curl_slist_free_all(headerList);
    }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    UrlRequest request;  // owns the body libcurl reads from
    UrlSession::Completion completion;
    CURL* easy = nullptr;
    curl_slist* headerList = nullptr;
    std::array<char, CURL_ERROR_SIZE> errorBuffer{};
    std::size_t maxBytes = 0;
    bool overCap = false;
    bool sendOnce = false;                // a method that must not reach the server twice
    std::optional<long> sentAtRedirect;   // the redirect count when the request last went out
    bool resendRefused = false;
    Data body;
    std::vector<std::pair<std::string, std::string>> headers;
};

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
    auto* t = static_cast<Transfer*>(user);
    const std::size_t length = size * count;
    if (length > t->maxBytes - t->body.size()) {
        t->overCap = true;
        return 0;  // anything but `length` aborts the transfer
    }
    try {
        t->body.insert(t->body.end(), data, data + length);
    } catch (...) {
        return 0;
    }
    return length;
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n'))
        s.remove_suffix(1);
    return s;
}

std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* user) {
    auto* t = static_cast<Transfer*>(user);
    const std::size_t length = size * count;
    std::string_view line = trim(std::string_view(data, length));
    if (line.substr(0, 5) == "HTTP/") {
        t->headers.clear();  // a new response (after a redirect or a 1xx): keep only the last one's
        return length;
    }
    auto colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0) return length;
    try {
        t->headers.emplace_back(std::string(trim(line.substr(0, colon))), std::string(trim(line.substr(colon + 1))));
    } catch (...) {
        return 0;
    }
    return length;
}

// libcurl sends a request again, on a new connection, when a reused connection dies
// before any answer. The server may have acted on the first copy, so a POST would arrive
// twice (two installs, an open reported once too often). Such a request goes out once
// per redirect hop; the second attempt is refused and the exchange fails.
int onPrereq(void* user, char*, char*, int, int) {
    auto* t = static_cast<Transfer*>(user);
    if (!t->sendOnce) return CURL_PREREQFUNC_OK;
    long redirects = 0;
    curl_easy_getinfo(t->easy, CURLINFO_REDIRECT_COUNT, &redirects);
    if (t->sentAtRedirect == redirects) {
        t->resendRefused = true;
        return CURL_PREREQFUNC_ABORT;
    }
    t->sentAtRedirect = redirects;
    return CURL_PREREQFUNC_OK;
}

int onProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return static_cast<const std::atomic<bool>*>(user)->load() ? 1 : 0;
}

bool isToken(std::string_view s) {
    return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
               c == '.' || c == '!' || c == '#' || c == '$' || c == '%' || c == '&' || c == '\'' || c == '*' ||
               c == '+' || c == '^' || c == '`' || c == '|' || c == '~';
    });
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; };
               return lower(x) == lower(y);
           });
}

long timeoutMilliseconds(double seconds) {
    if (!std::isfinite(seconds) || seconds <= 0) seconds = 60.0;  // the platform's default
    seconds = std::min(seconds, 1e6);
    return static_cast<long>(std::ceil(seconds * 1000.0));
}

/// Sets every option of one exchange on `easy`. Used for both paths.
CURLcode configure(CURL* easy, Transfer& t, const Config& config) {
    CURLcode rc = CURLE_OK;
    auto check = [&rc](CURLcode r) {
        if (rc == CURLE_OK) rc = r;
    };
    const UrlRequest& r = t.request;
    t.easy = easy;
    t.maxBytes = config.maxResponseBytes;

    check(curl_easy_setopt(easy, CURLOPT_URL, r.url.absoluteString().c_str()));
    check(curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https"));
    check(curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https"));
    check(curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L));
    check(curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 10L));
    // Several threads use libcurl; signals (SIGALRM for DNS timeouts) would hit any of them.
    check(curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L));
    const long timeout = timeoutMilliseconds(r.timeoutInterval);
    check(curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, timeout));
    check(curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, timeout));
    check(curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS)));
    check(curl_easy_setopt(easy, CURLOPT_PIPEWAIT, 1L));
    check(curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L));
    check(curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, ""));
    check(curl_easy_setopt(easy, CURLOPT_USERAGENT, "TessraKite/" TESSRA_SDK_VERSION_STRING));

    check(curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L));
    check(curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L));
    if (!config.trust.pem.empty()) {
        curl_blob blob{};
        blob.data = const_cast<char*>(config.trust.pem.data());
        blob.len = config.trust.pem.size();
        blob.flags = CURL_BLOB_NOCOPY;  // the session's Config outlives every transfer
        check(curl_easy_setopt(easy, CURLOPT_CAINFO_BLOB, &blob));
        if (!config.trust.directory.empty())
            check(curl_easy_setopt(easy, CURLOPT_CAPATH, config.trust.directory.c_str()));
    }

    // The cap: libcurl refuses an announced length over it; onBody stops the rest.
    check(curl_easy_setopt(easy, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(t.maxBytes)));
    check(curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &onBody));
    check(curl_easy_setopt(easy, CURLOPT_WRITEDATA, &t));
    check(curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &onHeader));
    check(curl_easy_setopt(easy, CURLOPT_HEADERDATA, &t));
    check(curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, t.errorBuffer.data()));

    std::string method = r.httpMethod.empty() ? std::string("GET") : r.httpMethod;
    std::transform(method.begin(), method.end(), method.begin(),
                   [](char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; });
    if (!isToken(method)) return CURLE_BAD_FUNCTION_ARGUMENT;
    const bool sendsBody = method == "POST" || method == "PUT" || method == "PATCH" || !r.httpBody.empty();
    t.sendOnce = method != "GET" && method != "HEAD";
    // Such a request only reuses a connection that has been idle for under a second.
    // Servers close idle connections after a few seconds, and over TLS libcurl cannot always
    // tell a closed connection from a live one before it sends; the request would then need
    // the second attempt it never gets. A fresh connection resumes the TLS session.
    // (libcurl counts whole idle seconds: 0 keeps only connections idle under one.)
    check(curl_easy_setopt(easy, CURLOPT_MAXAGE_CONN, t.sendOnce ? 0L : 118L));
    check(curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, &onPrereq));
    check(curl_easy_setopt(easy, CURLOPT_PREREQDATA, &t));
    if (method == "GET") {
        check(curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L));
    } else if (method == "HEAD") {
        check(curl_easy_setopt(easy, CURLOPT_NOBODY, 1L));
    } else {
        if (sendsBody) {
            check(curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(r.httpBody.size())));
            check(curl_easy_setopt(easy, CURLOPT_POSTFIELDS, r.httpBody.data()));
        }
        if (method != "POST") check(curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str()));
    }

    bool hasExpect = false;
    auto append = [&t](const std::string& line) {
        curl_slist* grown = curl_slist_append(t.headerList, line.c_str());
        if (!grown) return false;
        t.headerList = grown;
        return true;
    };
    for (const auto& [name, value] : r.headers) {
        // A CR or LF would let a value smuggle extra header lines; such fields are not sent.
        if (!isToken(name) || value.find_first_of("\r\n") != std::string::npos) continue;
        if (equalsIgnoringCase(name, "Expect")) hasExpect = true;
        // "Name;" is libcurl's spelling of a field with an empty value ("Name:" removes it).
        if (!append(value.empty() ? name + ";" : name + ": " + value)) return CURLE_OUT_OF_MEMORY;
    }
    // Posts go out at once instead of waiting for a "100 Continue" that many servers never send.
    if (!hasExpect && !append("Expect:")) return CURLE_OUT_OF_MEMORY;
    check(curl_easy_setopt(easy, CURLOPT_HTTPHEADER, t.headerList));
    return rc;
}

UrlResult failure(int code, std::string message) {
    UrlResult result;
    result.error = UrlError{code, std::move(message)};
    return result;
}

UrlResult cancelledResult() { return failure(UrlError::cancelled, "cancelled: the URL session shut down"); }

bool isTlsFailure(CURLcode rc) {
    return rc == CURLE_PEER_FAILED_VERIFICATION || rc == CURLE_SSL_CONNECT_ERROR || rc == CURLE_SSL_CACERT_BADFILE;
}

UrlResult resultOf(Transfer& t, CURLcode rc, const Config& config, bool cancelled) {
    if (t.overCap || rc == CURLE_FILESIZE_EXCEEDED)
        return failure(UrlError::bodyTooLarge,
                       "response body larger than the limit of " + std::to_string(t.maxBytes) + " bytes");
    if (t.resendRefused && rc == CURLE_ABORTED_BY_CALLBACK)
        return failure(CURLE_GOT_NOTHING, "the connection closed without an answer; the request is not sent again");
    if (cancelled && rc == CURLE_ABORTED_BY_CALLBACK) return cancelledResult();
    if (rc != CURLE_OK) {
        std::string message = t.errorBuffer[0] ? std::string(t.errorBuffer.data()) : curl_easy_strerror(rc);
        if (rc == CURLE_BAD_FUNCTION_ARGUMENT && t.errorBuffer[0] == 0) message = "invalid request";
        if (isTlsFailure(rc) && !config.trust.extraIssue.empty()) message += " (" + config.trust.extraIssue + ")";
        return failure(static_cast<int>(rc), std::move(message));
    }
    UrlResult result;
    HttpResponse response;
    curl_easy_getinfo(t.easy, CURLINFO_RESPONSE_CODE, &response.statusCode);
    response.headers = std::move(t.headers);
    result.response = std::move(response);
    result.data = std::move(t.body);
    return result;
}

void runCompletion(const UrlSession::Completion& completion, const UrlResult& result) {
    if (!completion) return;
    try {
        completion(result);
    } catch (...) {
        // A throwing completion must not take the worker (and every later task) with it.
    }
}

}  // namespace

constexpr long kMaxHostConnections = 2;

struct CurlUrlSession::State {
    explicit State(UrlSessionOptions options) {
        config.maxResponseBytes = options.maxResponseBytes;
        config.trust = loadTrust(options.extraCaFile);
        multi = curl_multi_init();
        share = curl_share_init();
        if (!multi || !share) {
            cleanup();
            throw std::bad_alloc();
        }
        curl_multi_setopt(multi, CURLMOPT_PIPELINING, static_cast<long>(CURLPIPE_MULTIPLEX));
        // A burst of reports queues for two kept-alive connections per host instead of
        // opening one connection (and one TLS handshake) per report.
        curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, kMaxHostConnections);
        // The synchronous path shares DNS answers and TLS sessions, never connections:
        // libcurl does not support one connection cache used by concurrent threads.
        curl_share_setopt(share, CURLSHOPT_LOCKFUNC, &State::lockShare);
        curl_share_setopt(share, CURLSHOPT_UNLOCKFUNC, &State::unlockShare);
        curl_share_setopt(share, CURLSHOPT_USERDATA, this);
        curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
        curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    }
    ~State() { cleanup(); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    void cleanup() {
        for (CURL* easy : idleEasy) curl_easy_cleanup(easy);
        idleEasy.clear();
        if (share) curl_share_cleanup(share);
        if (multi) curl_multi_cleanup(multi);
        share = nullptr;
        multi = nullptr;
    }

    static void lockShare(CURL*, curl_lock_data data, curl_lock_access, void* user) {
        static_cast<State*>(user)->shareLocks[static_cast<std::size_t>(data)].lock();
    }
    static void unlockShare(CURL*, curl_lock_data data, void* user) {
        static_cast<State*>(user)->shareLocks[static_cast<std::size_t>(data)].unlock();
    }

    bool onWorker() const { return currentWorker == this; }

    void taskFinished() {
        {
            std::lock_guard lock(idleMutex);
            --inFlightCount;
        }
        idleChanged.notify_all();
    }

    // Asks the worker to cancel what is in flight and end; synchronous sends are aborted.
    void requestStop() {
        std::lock_guard lock(mutex);
        stopping = true;
        abortSynchronous = true;
        if (multi) curl_multi_wakeup(multi);
    }

    // True once the worker has ended (its cancelled tasks completed) and no synchronous
    // send is running, or false after `timeout`.
    bool waitStopped(std::chrono::milliseconds timeout) {
        std::unique_lock lock(mutex);
        return stoppedChanged.wait_for(lock, timeout, [&] { return workerExited && synchronousSends == 0; });
    }

    // Once the worker has ended and no synchronous send runs: frees the kept-alive
    // connections and their TLS state while the TLS library is still there.
    void releaseConnections() {
        std::lock_guard lock(mutex);
        std::lock_guard poolLock(poolMutex);
        cleanup();
    }

    // Waits for the worker thread to be gone for good (not only done with its work), so
    // nothing of it is left running when the caller goes on or the process ends.
    void joinWorker() {
        std::lock_guard lock(threadMutex);
        if (worker.joinable() && worker.get_id() != std::this_thread::get_id()) worker.join();
    }

    void complete(std::unique_ptr<Transfer> transfer, const UrlResult& result) {
        auto completion = std::move(transfer->completion);
        transfer.reset();
        runCompletion(completion, result);
        taskFinished();  // only now, so a waiter sees what the completion queued
    }

    // ---- worker thread only ----

    void start(std::unique_ptr<Transfer> transfer) {
        CURL* easy = curl_easy_init();
        if (!easy) return complete(std::move(transfer), failure(CURLE_OUT_OF_MEMORY, "out of memory"));
        CURLcode rc = configure(easy, *transfer, config);
        if (rc == CURLE_OK && curl_multi_add_handle(multi, easy) != CURLM_OK) rc = CURLE_FAILED_INIT;
        if (rc != CURLE_OK) {
            UrlResult result = resultOf(*transfer, rc, config, false);
            curl_easy_cleanup(easy);
            return complete(std::move(transfer), result);
        }
        active.emplace(easy, std::move(transfer));
    }

    void collectFinished() {
        int left = 0;
        while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
            if (message->msg != CURLMSG_DONE) continue;
            CURL* easy = message->easy_handle;
            const CURLcode rc = message->data.result;
            auto it = active.find(easy);
            if (it == active.end()) continue;
            auto transfer = std::move(it->second);
            active.erase(it);
            // Removing first returns the connection to the cache, so a request the
            // completion makes can reuse it.
            curl_multi_remove_handle(multi, easy);
            UrlResult result = resultOf(*transfer, rc, config, false);
            curl_easy_cleanup(easy);
            complete(std::move(transfer), result);
        }
    }

    void cancelEverything() {
        std::vector<std::unique_ptr<Transfer>> stopped;
        for (auto& [easy, transfer] : active) {
            curl_multi_remove_handle(multi, easy);
            curl_easy_cleanup(easy);
            stopped.push_back(std::move(transfer));
        }
        active.clear();
        for (auto& transfer : stopped) complete(std::move(transfer), cancelledResult());
        // Completions may queue more tasks while we drain; those are cancelled as well.
        for (;;) {
            std::vector<std::unique_ptr<Transfer>> queued;
            {
                std::lock_guard lock(mutex);
                if (pending.empty()) {
                    workerDone = true;
                    break;
                }
                queued.swap(pending);
            }
            for (auto& transfer : queued) complete(std::move(transfer), cancelledResult());
        }
    }

    static void run(std::shared_ptr<State> self) {
        work(self);
        // Last: a waiter may go on (and the process end) as soon as this is set.
        {
            std::lock_guard lock(self->mutex);
            self->workerExited = true;
        }
        self->stoppedChanged.notify_all();
    }

    static void work(const std::shared_ptr<State>& self) {
        // A stack overflow on this thread still reaches the crash handler.
        crash::ThreadAlternateStack alternateStack;
        currentWorker = self.get();
        pthread_setname_np(pthread_self(), "tessra-url");
        for (;;) {
            std::vector<std::unique_ptr<Transfer>> incoming;
            {
                std::lock_guard lock(self->mutex);
                if (self->stopping) break;
                incoming.swap(self->pending);
            }
            for (auto& transfer : incoming) self->start(std::move(transfer));
            int running = 0;
            curl_multi_perform(self->multi, &running);
            self->collectFinished();
            // Returns early on socket activity, libcurl's own timers, or curl_multi_wakeup,
            // so the timeout only bounds how long an idle worker sleeps.
            curl_multi_poll(self->multi, nullptr, 0, 10000, nullptr);
        }
        self->cancelEverything();
        currentWorker = nullptr;
    }

    // ---- synchronous path ----

    CURL* takeEasy() {
        {
            std::lock_guard lock(poolMutex);
            if (!idleEasy.empty()) {
                CURL* easy = idleEasy.back();  // the most recent one holds the warmest connection
                idleEasy.pop_back();
                return easy;
            }
        }
        return curl_easy_init();
    }

    void giveBack(CURL* easy) {
        // Forget this exchange's options and buffers; live connections stay with the handle.
        curl_easy_reset(easy);
        {
            std::lock_guard lock(poolMutex);
            if (idleEasy.size() < kIdleEasyLimit) {
                try {
                    idleEasy.push_back(easy);
                    return;
                } catch (...) {
                }
            }
        }
        curl_easy_cleanup(easy);
    }

    static constexpr std::size_t kIdleEasyLimit = 4;
    static thread_local const State* currentWorker;

    const pid_t ownerProcess = ::getpid();
    std::mutex threadMutex;  // guards `worker`: the session's destructor and the exit handler
    std::thread worker;
    Config config;
    CURLM* multi = nullptr;
    CURLSH* share = nullptr;
    std::array<std::mutex, CURL_LOCK_DATA_LAST> shareLocks;

    // Guards pending, stopping, workerDone, workerExited, synchronousSends, and `multi`
    // once the worker is done. Taken before poolMutex.
    std::mutex mutex;
    std::vector<std::unique_ptr<Transfer>> pending;
    bool stopping = false;
    bool workerDone = false;
    bool workerExited = false;
    int synchronousSends = 0;
    std::condition_variable stoppedChanged;
    std::atomic<bool> abortSynchronous{false};

    std::atomic<std::size_t> inFlightCount{0};
    std::mutex idleMutex;
    std::condition_variable idleChanged;

    std::mutex poolMutex;
    std::vector<CURL*> idleEasy;

    std::unordered_map<CURL*, std::unique_ptr<Transfer>> active;  // worker only
};

thread_local const CurlUrlSession::State* CurlUrlSession::State::currentWorker = nullptr;

namespace {

// The live sessions, so that process exit can stop their workers. Never destroyed: the
// exit handler runs after the statics constructed later than libcurl's set-up are gone.
std::mutex& sessionsMutex() {
    static auto* m = new std::mutex;
    return *m;
}
std::vector<std::weak_ptr<CurlUrlSession::State>>& liveSessions() {
    static auto* sessions = new std::vector<std::weak_ptr<CurlUrlSession::State>>;
    return *sessions;
}

// A process that exits with requests in flight (offline, a slow backend) cancels them
// here: each completes with UrlError::cancelled on its worker while the SDK's state is
// still whole, and no worker or synchronous send is left inside libcurl afterwards.
void stopSessionsAtExit() {
    std::vector<std::shared_ptr<CurlUrlSession::State>> sessions;
    {
        // A child forked while another thread held the lock would wait for ever: give up.
        std::unique_lock lock(sessionsMutex(), std::try_to_lock);
        for (int tries = 0; !lock.owns_lock() && tries < 100; ++tries) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            lock.try_lock();
        }
        if (!lock.owns_lock()) return;
        for (auto& weak : liveSessions())
            if (auto state = weak.lock()) sessions.push_back(std::move(state));
    }
    // A forked child has none of its parent's threads: there is no worker to stop.
    std::erase_if(sessions, [](const auto& state) { return state->ownerProcess != ::getpid(); });
    for (auto& state : sessions) state->requestStop();
    // A completion that blocks must not hang the exit: five seconds for all sessions.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    for (auto& state : sessions) {
        // exit() called from a completion: this thread is the worker, which cannot end here.
        if (state->onWorker()) continue;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (!state->waitStopped(std::max(left, std::chrono::milliseconds(0)))) continue;
        state->joinWorker();
        state->releaseConnections();
    }
}

}  // namespace

CurlUrlSession::CurlUrlSession(UrlSessionOptions options) {
    initializeCurlOnce();
    state_ = std::make_shared<State>(std::move(options));
    {
        std::lock_guard lock(state_->threadMutex);
        state_->worker = std::thread(&State::run, state_);
    }
    try {
        std::lock_guard lock(sessionsMutex());
        auto& sessions = liveSessions();
        std::erase_if(sessions, [](const auto& weak) { return weak.expired(); });
        sessions.push_back(state_);
    } catch (...) {
        // Not stopped at exit; it still works.
    }
}

CurlUrlSession::~CurlUrlSession() {
    // A forked child has no worker of its parent's to stop or wait for.
    if (state_->ownerProcess != ::getpid()) return;
    state_->requestStop();
    if (state_->onWorker()) {
        // Dropped inside a completion: the worker finishes once that returns, and owns
        // the state until then.
        std::lock_guard lock(state_->threadMutex);
        state_->worker.detach();
        return;
    }
    state_->joinWorker();
}

void CurlUrlSession::dataTask(UrlRequest request, Completion completion) {
    bool counted = false;
    try {
        auto transfer = std::make_unique<Transfer>(std::move(request));
        transfer->completion = std::move(completion);
        ++state_->inFlightCount;
        counted = true;
        bool workerGone = false;
        {
            std::lock_guard lock(state_->mutex);
            if (state_->workerDone) {
                workerGone = true;
            } else {
                state_->pending.push_back(std::move(transfer));
                // Under the lock: once the worker is done, the exit handler may free the handle.
                curl_multi_wakeup(state_->multi);
            }
        }
        if (workerGone) state_->complete(std::move(transfer), cancelledResult());
    } catch (...) {
        if (counted) state_->taskFinished();
    }
}

UrlResult CurlUrlSession::sendSynchronous(const UrlRequest& request) {
    auto state = state_;  // the session may be dropped while we block
    {
        std::lock_guard lock(state->mutex);
        if (state->stopping) return cancelledResult();
        ++state->synchronousSends;
    }
    struct Done {
        State& state;
        ~Done() {
            {
                std::lock_guard lock(state.mutex);
                --state.synchronousSends;
            }
            state.stoppedChanged.notify_all();
        }
    } done{*state};
    try {
        Transfer transfer(request);
        struct Lease {
            State& state;
            CURL* easy;
            ~Lease() {
                if (easy) state.giveBack(easy);
            }
        } lease{*state, state->takeEasy()};
        if (!lease.easy) return failure(CURLE_OUT_OF_MEMORY, "out of memory");
        CURL* easy = lease.easy;
        CURLcode rc = configure(easy, transfer, state->config);
        auto check = [&rc](CURLcode r) {
            if (rc == CURLE_OK) rc = r;
        };
        check(curl_easy_setopt(easy, CURLOPT_SHARE, state->share));
        check(curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L));
        check(curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &onProgress));
        check(curl_easy_setopt(easy, CURLOPT_XFERINFODATA, &state->abortSynchronous));
        if (rc == CURLE_OK) rc = curl_easy_perform(easy);
        return resultOf(transfer, rc, state->config, state->abortSynchronous.load());
    } catch (...) {
        return failure(CURLE_OUT_OF_MEMORY, "out of memory");
    }
}

std::size_t CurlUrlSession::inFlight() const { return state_->inFlightCount.load(); }

bool CurlUrlSession::waitIdle(double seconds) {
    if (state_->onWorker()) return state_->inFlightCount.load() == 0;
    if (!std::isfinite(seconds) || seconds < 0) seconds = 0;
    seconds = std::min(seconds, 1e7);
    std::unique_lock lock(state_->idleMutex);
    return state_->idleChanged.wait_for(lock, std::chrono::duration<double>(seconds),
                                        [&] { return state_->inFlightCount.load() == 0; });
}

}  // namespace tessrakite::platform
