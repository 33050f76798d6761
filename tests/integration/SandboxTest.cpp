// tessra-sandbox, driven as a child process the way scripts and the demo use it.

#include <gtest/gtest.h>
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "TestEnv.hpp"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace std::chrono_literals;

class TempFolder {
public:
    TempFolder() {
        std::random_device random;
        path_ = fs::temp_directory_path() /
                ("tessra-sandbox-test-" + std::to_string(::getpid()) + "-" + std::to_string(random()));
        fs::create_directories(path_);
    }
    ~TempFolder() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

std::string readText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeText(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

/// The sandbox binary as a child process: its announced environment, its stdout lines, its exit.
class SandboxProcess {
public:
    explicit SandboxProcess(const std::vector<std::string>& arguments = {}) {
        const std::string binary = tessrakite::test::binary("tessra-sandbox").string();
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
        std::vector<std::string> words{binary};
        words.insert(words.end(), arguments.begin(), arguments.end());
        // Without one the sandbox makes a temporary state folder and keeps it; give it ours.
        if (std::find(arguments.begin(), arguments.end(), "--state") == arguments.end()) {
            ownState_ = std::make_unique<TempFolder>();
            words.insert(words.end(), {"--state", ownState_->path().string()});
        }
        std::vector<char*> argv;
        for (auto& word : words) argv.push_back(word.data());
        argv.push_back(nullptr);
        if (posix_spawn(&pid_, binary.c_str(), &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        ::close(fds[1]);
        out_ = fds[0];
        if (pid_ > 0) readUntilReady();
        drain_ = std::thread([this] { drain(); });
    }

    ~SandboxProcess() {
        if (pid_ > 0 && !exitCode_) stop(SIGTERM);
        if (drain_.joinable()) drain_.join();
        if (out_ >= 0) ::close(out_);
    }

    SandboxProcess(const SandboxProcess&) = delete;
    SandboxProcess& operator=(const SandboxProcess&) = delete;

    bool ready() const { return ready_; }
    std::string exported(const std::string& name) const {
        const auto found = exports_.find(name);
        return found == exports_.end() ? std::string() : found->second;
    }
    int port(const std::string& hostVariable) const {
        const std::string host = exported(hostVariable);
        return std::stoi(host.substr(host.rfind(':') + 1));
    }
    fs::path caBundle() const { return exported("TESSRA_CA_BUNDLE"); }

    std::unique_ptr<httplib::SSLClient> https() const {
        auto client = std::make_unique<httplib::SSLClient>("127.0.0.1", port("TESSRA_TRACKING_HOST"));
        client->set_ca_cert_path(caBundle().c_str());
        client->enable_server_certificate_verification(true);
        client->set_connection_timeout(10);
        client->set_read_timeout(20);
        return client;
    }

    std::unique_ptr<httplib::Client> http() const {
        auto client = std::make_unique<httplib::Client>("127.0.0.1", port("TESSRA_AD_HOST"));
        client->set_connection_timeout(10);
        client->set_read_timeout(20);
        return client;
    }

    /// Sends `signal` and waits for the exit; the exit code, or nothing when it did not end in time.
    std::optional<int> stop(int signal) {
        ::kill(pid_, signal);
        const auto deadline = std::chrono::steady_clock::now() + 30s;
        int status = 0;
        while (::waitpid(pid_, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                ::kill(pid_, SIGKILL);
                ::waitpid(pid_, &status, 0);
                exitCode_ = -1;
                return std::nullopt;
            }
            std::this_thread::sleep_for(10ms);
        }
        exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return exitCode_;
    }

    /// Waits for the process to end by itself (bad arguments, a port taken).
    std::optional<int> exitCode() {
        if (!exitCode_) {
            int status = 0;
            if (::waitpid(pid_, &status, 0) == pid_)
                exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        return exitCode_;
    }

    /// Waits until a stdout line after "# ready" satisfies `match`.
    bool printed(const std::function<bool(const std::string&)>& match) const {
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (std::chrono::steady_clock::now() < deadline) {
            {
                std::lock_guard lock(mutex_);
                for (const auto& line : lines_)
                    if (match(line)) return true;
            }
            std::this_thread::sleep_for(10ms);
        }
        return false;
    }

private:
    void readUntilReady() {
        const auto deadline = std::chrono::steady_clock::now() + 60s;
        std::string pending;
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd descriptor{out_, POLLIN, 0};
            if (::poll(&descriptor, 1, 100) <= 0) continue;
            char buffer[4096];
            const ssize_t n = ::read(out_, buffer, sizeof buffer);
            if (n <= 0) return;
            pending.append(buffer, static_cast<std::size_t>(n));
            for (auto end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
                const std::string line = pending.substr(0, end);
                pending.erase(0, end + 1);
                if (line == "# ready") {
                    ready_ = true;
                    std::lock_guard lock(mutex_);
                    carry_ = pending;
                    return;
                }
                if (line.rfind("export ", 0) == 0) {
                    const auto equals = line.find('=');
                    std::string value = line.substr(equals + 1);
                    if (value.size() >= 2 && value.front() == '\'') value = value.substr(1, value.size() - 2);
                    exports_[line.substr(7, equals - 7)] = value;
                }
            }
        }
    }

    void drain() {
        std::string pending;
        {
            std::lock_guard lock(mutex_);
            pending = carry_;
        }
        char buffer[4096];
        for (;;) {
            const ssize_t n = ::read(out_, buffer, sizeof buffer);
            if (n <= 0) break;
            pending.append(buffer, static_cast<std::size_t>(n));
            std::lock_guard lock(mutex_);
            for (auto end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
                lines_.push_back(pending.substr(0, end));
                pending.erase(0, end + 1);
            }
        }
    }

    std::unique_ptr<TempFolder> ownState_;
    pid_t pid_ = -1;
    int out_ = -1;
    bool ready_ = false;
    std::optional<int> exitCode_;
    std::map<std::string, std::string> exports_;
    std::thread drain_;
    mutable std::mutex mutex_;
    std::string carry_;
    std::vector<std::string> lines_;
};

json requestsOf(const SandboxProcess& sandbox, const std::string& path) {
    auto result = sandbox.https()->Get("/_sandbox/requests?path=" + path);
    if (!result || result->status != 200) return json();
    return json::parse(result->body);
}

int statusOf(const httplib::Result& result) { return result ? result->status : -1; }

class SandboxTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(tessrakite::test::binary("tessra-sandbox")))
            GTEST_SKIP() << "tessra-sandbox is not built (tools disabled)";
    }
};

TEST_F(SandboxTest, AnnouncesItsHostsAndCertificateAuthority) {
    SandboxProcess sandbox;
    ASSERT_TRUE(sandbox.ready());
    const std::string https = sandbox.exported("TESSRA_TRACKING_HOST");
    const std::string http = sandbox.exported("TESSRA_AD_HOST");
    EXPECT_EQ(https.rfind("127.0.0.1:", 0), 0u);
    EXPECT_EQ(http.rfind("127.0.0.1:", 0), 0u);
    EXPECT_NE(https, http);
    EXPECT_EQ(sandbox.exported("TESSRA_CDN_HOST"), https);
    EXPECT_EQ(sandbox.exported("TESSRA_WEB_HOST"), https);
    EXPECT_EQ(sandbox.exported("TESSRA_CRASH_HOST"), http);
    EXPECT_NE(readText(sandbox.caBundle()).find("BEGIN CERTIFICATE"), std::string::npos);
}

TEST_F(SandboxTest, ServesTheConfigurationDocumentThen304WhenUnchanged) {
    SandboxProcess sandbox;
    ASSERT_TRUE(sandbox.ready());
    auto client = sandbox.https();

    auto first = client->Get("/tag/app-key.json", {{"If-Modified-Since", "Fri, 12 Jan 2024 09:42:01 GMT"}});
    ASSERT_EQ(statusOf(first), 200);
    const json document = json::parse(first->body);
    EXPECT_EQ(document["consent"], true);
    EXPECT_EQ(document["push_config"]["enabled"], true);
    const std::string lastModified = first->get_header_value("Last-Modified");
    ASSERT_FALSE(lastModified.empty());
    EXPECT_EQ(lastModified.substr(lastModified.size() - 4), " GMT");

    auto again = client->Get("/tag/app-key.json", {{"If-Modified-Since", lastModified}});
    EXPECT_EQ(statusOf(again), 304);
    EXPECT_TRUE(again->body.empty());

    EXPECT_EQ(statusOf(client->Get("/tag/app-key.json", {{"If-Modified-Since", "not a date"}})), 200);
    EXPECT_EQ(statusOf(client->Get("/tag/..%2Fca%2Fca.json")), 404);
}

TEST_F(SandboxTest, ServesDocumentsFromTheStateFolderWithItsOwnAddresses) {
    TempFolder state;
    writeText(state.path() / "config" / "custom.json", R"({"url": {"activity": "{{https}}/v2/activity?type=mobile"}})");
    writeText(state.path() / "campaigns" / "promo.json", R"({"p": [{"o": {"image": "{{http}}/img/promo.png"}}]})");
    SandboxProcess sandbox({"--state", state.path().string()});
    ASSERT_TRUE(sandbox.ready());
    auto client = sandbox.https();
    const std::string https = "https://" + sandbox.exported("TESSRA_TRACKING_HOST");
    const std::string http = "http://" + sandbox.exported("TESSRA_AD_HOST");

    auto config = client->Get("/tag/custom.json");
    ASSERT_EQ(statusOf(config), 200);
    EXPECT_EQ(json::parse(config->body)["url"]["activity"], https + "/v2/activity?type=mobile");

    auto campaign = client->Get("/v2/campaign/promo?c=1&ver=2.0");
    ASSERT_EQ(statusOf(campaign), 200);
    EXPECT_EQ(json::parse(campaign->body)["p"][0]["o"]["image"], http + "/img/promo.png");

    auto sample = client->Get("/v2/campaign/other?c=1&ver=2.0");
    ASSERT_EQ(statusOf(sample), 200);
    const json entry = json::parse(sample->body)["p"][0];
    EXPECT_FALSE(entry["t"].get<std::string>().empty());
    EXPECT_EQ(entry["o"]["image"].get<std::string>().rfind(http + "/img/", 0), 0u);
    EXPECT_EQ(entry["o"]["actions"].size(), 2u);
}

TEST_F(SandboxTest, AnswersActivityPostsWith201AndRecordsThem) {
    TempFolder state;
    SandboxProcess sandbox({"--state", state.path().string()});
    ASSERT_TRUE(sandbox.ready());
    auto client = sandbox.https();

    auto posted = client->Post("/v2/activity?type=mobile", R"({"code":1})", "application/json");
    ASSERT_EQ(statusOf(posted), 201);
    EXPECT_TRUE(json::parse(posted->body).is_object());

    const json requests = requestsOf(sandbox, "/v2/activity");
    ASSERT_EQ(requests.size(), 1u);
    const json& request = requests[0];
    EXPECT_EQ(request["scheme"], "https");
    EXPECT_EQ(request["method"], "POST");
    EXPECT_EQ(request["path"], "/v2/activity");
    EXPECT_EQ(request["query"], "type=mobile");
    EXPECT_EQ(request["headers"]["Content-Type"], "application/json");
    EXPECT_EQ(request["body"], R"({"code":1})");
    EXPECT_EQ(request["status"], 201);
    EXPECT_TRUE(request["ts"].is_number());
    EXPECT_FALSE(request["headers"].contains("REMOTE_ADDR"));

    EXPECT_TRUE(sandbox.printed([](const std::string& line) {
        const json printed = json::parse(line, nullptr, false);
        return printed.is_object() && printed.value("path", "") == "/v2/activity";
    }));
    EXPECT_NE(readText(state.path() / "requests.jsonl").find(R"("path":"/v2/activity")"), std::string::npos);

    EXPECT_EQ(statusOf(sandbox.http()->Delete("/_sandbox/requests")), 200);
    EXPECT_EQ(requestsOf(sandbox, ""), json::array());
}

TEST_F(SandboxTest, RecordsBinaryBodiesAsBase64) {
    SandboxProcess sandbox;
    ASSERT_TRUE(sandbox.ready());
    ASSERT_EQ(statusOf(sandbox.https()->Post("/v2/users?type=mobile", std::string("\xff\x00\x01", 3),
                                             "application/octet-stream")),
              201);
    const json requests = requestsOf(sandbox, "/v2/users");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0]["body"], "/wAB");
    EXPECT_EQ(requests[0]["body_base64"], true);
}

TEST_F(SandboxTest, ScriptedStatusAppliesToTheNextRequestsOnly) {
    SandboxProcess sandbox;
    ASSERT_TRUE(sandbox.ready());
    auto client = sandbox.https();
    ASSERT_EQ(statusOf(client->Post("/_sandbox/fault", R"({"route": "/v2/activity", "count": 1, "status": 500})",
                                    "application/json")),
              201);

    EXPECT_EQ(statusOf(client->Post("/v2/users?type=mobile", "{}", "application/json")), 201);
    EXPECT_EQ(statusOf(client->Post("/v2/activity?type=mobile", "{}", "application/json")), 500);
    EXPECT_EQ(statusOf(client->Post("/v2/activity?type=mobile", "{}", "application/json")), 201);

    const json requests = requestsOf(sandbox, "/v2/activity");
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0]["status"], 500);
    EXPECT_EQ(requests[0]["fault"]["status"], 500);
    EXPECT_EQ(requests[1]["status"], 201);
    EXPECT_FALSE(requests[1].contains("fault"));
}

TEST_F(SandboxTest, ScriptedDropAndTruncationBreakTheAnswer) {
    SandboxProcess sandbox;
    ASSERT_TRUE(sandbox.ready());
    struct Case {
        const char* fault;
        std::function<httplib::Result()> send;
        int healthyStatus;
    };
    auto https = sandbox.https();
    auto http = sandbox.http();
    const std::vector<Case> cases = {
        {R"({"route": "/v2/users", "drop": true})",
         [&] { return https->Post("/v2/users?type=mobile", "{}", "application/json"); }, 201},
        {R"({"route": "/tag/", "truncate": true})", [&] { return https->Get("/tag/app-key.json"); }, 200},
        {R"({"route": "/v1/display/", "drop": true})", [&] { return http->Get("/v1/display/track"); }, 200},
        {R"({"route": "/img/", "truncate": true})", [&] { return http->Get("/img/ad.png"); }, 200},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fault);
        ASSERT_EQ(statusOf(https->Post("/_sandbox/fault", c.fault, "application/json")), 201);
        const auto broken = c.send();
        EXPECT_FALSE(broken);
        EXPECT_EQ(broken.error(), httplib::Error::Read);
        EXPECT_EQ(statusOf(c.send()), c.healthyStatus);
    }
    const json dropped = requestsOf(sandbox, "/v2/users");
    ASSERT_EQ(dropped.size(), 2u);
    EXPECT_EQ(dropped[0]["fault"]["drop"], true);
}

TEST_F(SandboxTest, RejectsMalformedFaults) {
    SandboxProcess sandbox;
    ASSERT_TRUE(sandbox.ready());
    auto client = sandbox.http();
    for (const char* body : {"not json", "[]", "{}", R"({"route": "v2", "status": 500})",
                             R"({"route": "/v2", "status": "500"})", R"({"route": "/v2", "status": 99})",
                             R"({"route": "/v2", "count": 0, "status": 500})", R"({"route": "/v2", "delay": -1})",
                             R"({"route": "/v2", "drop": true, "status": 500})", R"({"route": "/v2"})",
                             R"({"route": "/v2", "stauts": 500})"}) {
        SCOPED_TRACE(body);
        auto answer = client->Post("/_sandbox/fault", body, "application/json");
        ASSERT_EQ(statusOf(answer), 400);
        EXPECT_TRUE(json::parse(answer->body).contains("error"));
    }
    auto faults = client->Get("/_sandbox/fault");
    ASSERT_EQ(statusOf(faults), 200);
    EXPECT_EQ(json::parse(faults->body), json::array());
}

TEST_F(SandboxTest, HttpSideServesAdFeedImagesTrackersAndCrashUploads) {
    SandboxProcess sandbox;
    ASSERT_TRUE(sandbox.ready());
    auto client = sandbox.http();
    const std::string http = "http://" + sandbox.exported("TESSRA_AD_HOST");

    auto feed = client->Get(
        "/v1/display/track-id?page=demo&sr=390x844&sa=390x844&po=3&rt=1649422465953.4434&cb=ax26w6of7s&ar=fpagc"
        "&as=Mobile_Banner&awh=390x844&ad=390x844&out=json");
    ASSERT_EQ(statusOf(feed), 200);
    const json md = json::parse(feed->body)["items"][0]["md"];
    EXPECT_EQ(md["img"].get<std::string>().rfind(http + "/img/", 0), 0u);
    for (const char* list : {"cpm_t", "cpv_t", "cpc_t"}) {
        const std::string tracker = md[list][0];
        EXPECT_EQ(tracker.rfind(http + "/t/", 0), 0u) << list;
        EXPECT_NE(tracker.find("${l2}"), std::string::npos) << list;
    }
    EXPECT_FALSE(md["l2"].get<std::string>().empty());

    auto png = client->Get("/img/ad.png");
    ASSERT_EQ(statusOf(png), 200);
    EXPECT_EQ(png->get_header_value("Content-Type"), "image/png");
    EXPECT_EQ(png->body.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
    auto gif = client->Get("/img/ad.gif");
    ASSERT_EQ(statusOf(gif), 200);
    EXPECT_EQ(gif->body.substr(0, 6), "GIF89a");
    EXPECT_EQ(gif->body.back(), '\x3b');

    EXPECT_EQ(statusOf(client->Get("/t/impression?l2=sandbox-1")), 204);
    EXPECT_EQ(statusOf(client->Post("/post.php?ver=1.0&addr=4096&code=11", "stack=dHlwZToxMQ==",
                                     "application/x-www-form-urlencoded")),
              200);
    EXPECT_EQ(statusOf(client->Get("/img/ad.bmp")), 404);
    EXPECT_EQ(statusOf(client->Get("/v2/activity")), 404);  // HTTPS-only route
}

TEST_F(SandboxTest, StopsCleanlyOnSigtermAndSigint) {
    for (int signal : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(signal);
        TempFolder state;
        SandboxProcess sandbox({"--state", state.path().string()});
        ASSERT_TRUE(sandbox.ready());
        ASSERT_EQ(statusOf(sandbox.https()->Post("/v2/activity?type=mobile", "{}", "application/json")), 201);
        EXPECT_EQ(sandbox.stop(signal), 0);
        const std::string log = readText(state.path() / "requests.jsonl");
        EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
        EXPECT_TRUE(json::parse(log.substr(0, log.find('\n'))).is_object());
    }
}

TEST_F(SandboxTest, ReusesItsCertificateAuthorityFromTheStateFolder) {
    TempFolder state;
    const fs::path ca = state.path() / "ca";
    std::string authority, certificate;
    {
        SandboxProcess sandbox({"--state", state.path().string()});
        ASSERT_TRUE(sandbox.ready());
        EXPECT_EQ(sandbox.caBundle(), ca / "ca.pem");
        authority = readText(ca / "ca.pem");
        certificate = readText(ca / "server.pem");
        EXPECT_EQ(fs::status(ca / "ca.key").permissions() & fs::perms::group_all, fs::perms::none);
        EXPECT_EQ(sandbox.stop(SIGTERM), 0);
    }
    {
        SandboxProcess sandbox({"--state", state.path().string()});
        ASSERT_TRUE(sandbox.ready());
        EXPECT_EQ(readText(ca / "ca.pem"), authority);
        EXPECT_EQ(readText(ca / "server.pem"), certificate);
        EXPECT_EQ(sandbox.stop(SIGTERM), 0);
    }
    writeText(ca / "server.pem", "not a certificate");
    SandboxProcess sandbox({"--state", state.path().string()});
    ASSERT_TRUE(sandbox.ready());
    EXPECT_EQ(readText(ca / "ca.pem"), authority);
    EXPECT_NE(readText(ca / "server.pem"), certificate);
    EXPECT_EQ(statusOf(sandbox.https()->Get("/tag/app-key.json")), 200);
}

TEST_F(SandboxTest, RefusesBadArgumentsAndTakenPorts) {
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"--https-port", "abc"}, {"--http-port", "70000"}, {"--bogus"},
                                               {"--state"}, {"--https-port=-1"}}) {
        SCOPED_TRACE(arguments[0]);
        SandboxProcess sandbox(arguments);
        EXPECT_FALSE(sandbox.ready());
        EXPECT_EQ(sandbox.exitCode(), 2);
    }
    SandboxProcess first;
    ASSERT_TRUE(first.ready());
    SandboxProcess second({"--https-port", std::to_string(first.port("TESSRA_TRACKING_HOST"))});
    EXPECT_FALSE(second.ready());
    EXPECT_EQ(second.exitCode(), 1);
}

}  // namespace
