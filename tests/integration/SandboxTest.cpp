// tessra-sandbox, driven as a child process the way scripts and the demo use it.

#include <gtest/gtest.h>
#include <httplib.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "ChildProcess.hpp"
#include "TestEnv.hpp"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using tessrakite::test::Sandbox;
using namespace std::chrono_literals;

std::string readText(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

int statusOf(const httplib::Result& result) { return result ? result->status : -1; }

class SandboxTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(tessrakite::test::binary("tessra-sandbox")))
            GTEST_SKIP() << "tessra-sandbox is not built (tools disabled)";
        start();
    }
    void start() {
        sandbox_ = std::make_unique<Sandbox>();
        ASSERT_TRUE(sandbox_->ready());
        https_ = std::make_unique<httplib::SSLClient>("127.0.0.1", sandbox_->port("TESSRA_TRACKING_HOST"));
        https_->set_ca_cert_path(sandbox_->exported("TESSRA_CA_BUNDLE").c_str());
        https_->enable_server_certificate_verification(true);
        http_ = std::make_unique<httplib::Client>("127.0.0.1", sandbox_->port("TESSRA_AD_HOST"));
        https_->set_read_timeout(20);
        http_->set_read_timeout(20);
    }
    httplib::Result activity(const std::string& body = "{}") {
        return https_->Post("/v2/activity?type=mobile", body, "application/json");
    }
    json requests(const std::string& path) {
        auto result = https_->Get("/_sandbox/requests?path=" + path);
        return result && result->status == 200 ? json::parse(result->body) : json();
    }

    std::unique_ptr<Sandbox> sandbox_;
    std::unique_ptr<httplib::SSLClient> https_;
    std::unique_ptr<httplib::Client> http_;
};

TEST_F(SandboxTest, AnnouncesItsHostsAndServesTheConfigurationDocumentThen304) {
    const std::string https = sandbox_->exported("TESSRA_TRACKING_HOST");
    const std::string http = sandbox_->exported("TESSRA_AD_HOST");
    EXPECT_NE(https, http);
    EXPECT_EQ(sandbox_->exported("TESSRA_CDN_HOST"), https);
    EXPECT_EQ(sandbox_->exported("TESSRA_WEB_HOST"), https);
    EXPECT_EQ(sandbox_->exported("TESSRA_CRASH_HOST"), http);

    auto first = https_->Get("/tag/app-key.json");
    ASSERT_EQ(statusOf(first), 200);
    EXPECT_EQ(json::parse(first->body)["consent"], true);
    const std::string lastModified = first->get_header_value("Last-Modified");
    ASSERT_FALSE(lastModified.empty());
    auto again = https_->Get("/tag/app-key.json", {{"If-Modified-Since", lastModified}});
    EXPECT_EQ(statusOf(again), 304);
    EXPECT_TRUE(again->body.empty());
}

TEST_F(SandboxTest, AnswersActivityPostsWith201AndListsThem) {
    ASSERT_EQ(statusOf(activity(R"({"code":1})")), 201);
    const json listed = requests("/v2/activity");
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0]["method"], "POST");
    EXPECT_EQ(listed[0]["query"], "type=mobile");
    EXPECT_EQ(listed[0]["body"], R"({"code":1})");
    EXPECT_EQ(listed[0]["status"], 201);
    // Also printed on stdout, one JSON line per request.
    EXPECT_TRUE(sandbox_->process().waitForLine(
        [](const std::string& line) {
            const json printed = json::parse(line, nullptr, false);
            return printed.is_object() && printed.value("path", "") == "/v2/activity";
        },
        10s));
    EXPECT_EQ(statusOf(http_->Delete("/_sandbox/requests")), 200);
    EXPECT_EQ(requests(""), json::array());
}

TEST_F(SandboxTest, ScriptedFaultsHitTheNextRequestOnly) {
    struct Case {
        const char* fault;
        std::function<httplib::Result()> send;
        int faultStatus;  // -1: the connection breaks
        int healthyStatus;
    };
    const std::vector<Case> cases = {
        {R"({"route": "/v2/activity", "count": 1, "status": 500})", [&] { return activity(); }, 500, 201},
        {R"({"route": "/v2/users", "drop": true})",
         [&] { return https_->Post("/v2/users?type=mobile", "{}", "application/json"); }, -1, 201},
        {R"({"route": "/tag/", "truncate": true})", [&] { return https_->Get("/tag/app-key.json"); }, -1, 200},
        {R"({"route": "/v1/display/", "drop": true})", [&] { return http_->Get("/v1/display/track"); }, -1, 200},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fault);
        ASSERT_EQ(statusOf(https_->Post("/_sandbox/fault", c.fault, "application/json")), 201);
        EXPECT_EQ(statusOf(c.send()), c.faultStatus);
        EXPECT_EQ(statusOf(c.send()), c.healthyStatus);
    }
    const json faulted = requests("/v2/activity");
    ASSERT_EQ(faulted.size(), 2u);
    EXPECT_EQ(faulted[0]["fault"]["status"], 500);
    EXPECT_FALSE(faulted[1].contains("fault"));

    for (const char* bad : {"not json", R"({"route": "v2", "status": 500})", R"({"route": "/v2", "stauts": 500})"}) {
        SCOPED_TRACE(bad);
        auto answer = http_->Post("/_sandbox/fault", bad, "application/json");
        ASSERT_EQ(statusOf(answer), 400);
        EXPECT_TRUE(json::parse(answer->body).contains("error"));
    }
}

TEST_F(SandboxTest, HttpSideServesAdFeedImagesTrackersAndCrashUploads) {
    auto feed = http_->Get("/v1/display/track-id?page=demo&out=json");
    ASSERT_EQ(statusOf(feed), 200);
    const json md = json::parse(feed->body)["items"][0]["md"];
    EXPECT_EQ(md["img"].get<std::string>().rfind("http://" + sandbox_->exported("TESSRA_AD_HOST") + "/img/", 0), 0u);
    auto png = http_->Get("/img/ad.png");
    ASSERT_EQ(statusOf(png), 200);
    EXPECT_EQ(png->get_header_value("Content-Type"), "image/png");
    EXPECT_EQ(statusOf(http_->Get("/t/impression?l2=sandbox-1")), 204);
    EXPECT_EQ(statusOf(http_->Post("/post.php?ver=1.0&code=11", "stack=eA==", "application/x-www-form-urlencoded")),
              200);
    EXPECT_EQ(statusOf(http_->Get("/v2/activity")), 404);  // HTTPS-only route
}

TEST_F(SandboxTest, StopsCleanlyOnSigtermAndSigintKeepingItsLog) {
    for (int signal : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(signal);
        if (signal != SIGTERM) start();
        ASSERT_EQ(statusOf(activity()), 201);
        EXPECT_EQ(sandbox_->process().stop(signal, 30s), 0);
        const std::string log = readText(sandbox_->state() / "requests.jsonl");
        EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
    }
}

TEST_F(SandboxTest, RefusesBadArgumentsAndATakenPort) {
    Sandbox bogus({"--bogus"});
    EXPECT_FALSE(bogus.ready());
    EXPECT_EQ(bogus.process().wait(30s), 2);
    Sandbox second({"--https-port", std::to_string(sandbox_->port("TESSRA_TRACKING_HOST"))});
    EXPECT_FALSE(second.ready());
    EXPECT_EQ(second.process().wait(30s), 1);
}

}  // namespace
