// tessra-sandbox, and tessra-host against it, each its own process, the way scripts and
// the demo run them.

#include <gtest/gtest.h>
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

// Static, so that it cannot clash with a decoder linked in from the library.
#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_STATIC
#define STBI_ONLY_JPEG
#define STBI_ONLY_PNG
#define STBI_ONLY_GIF
#include <stb/stb_image.h>

#include "ChildProcess.hpp"
#include "FakeBackend.hpp"
#include "TestEnv.hpp"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using tessrakite::test::Answer;
using tessrakite::test::binary;
using tessrakite::test::ChildProcess;
using tessrakite::test::FakeBackend;
using tessrakite::test::Sandbox;
using tessrakite::test::TempFolder;
using namespace std::chrono_literals;

int statusOf(const httplib::Result& result) { return result ? result->status : -1; }

/// Whether the bytes are a whole image, by a decoder independent of the SDK's.
bool decodes(const std::string& bytes) {
    int width = 0, height = 0, channels = 0;
    stbi_uc* pixels = stbi_load_from_memory(reinterpret_cast<const stbi_uc*>(bytes.data()),
                                            static_cast<int>(bytes.size()), &width, &height, &channels, 0);
    stbi_image_free(pixels);
    return pixels != nullptr;
}

class SandboxTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(binary("tessra-sandbox")))
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


TEST_F(SandboxTest, ServesRealImagesBrokenOnesUnderImageNamesAndAHugeOneAsAStream) {
    for (const std::string name :
         {"photo.jpg", "banner.jpeg", "card.png", "campaign.png", "ad.png", "ad.gif", "truncated.jpg", "html.jpg"}) {
        SCOPED_TRACE(name);
        auto answer = http_->Get("/img/" + name);
        ASSERT_EQ(statusOf(answer), 200);
        EXPECT_EQ(decodes(answer->body), name != "truncated.jpg" && name != "html.jpg");
    }
    EXPECT_EQ(statusOf(http_->Get("/img/missing.jpg")), 404);
    std::size_t huge = 0;
    auto streamed = http_->Get("/img/huge.jpg", [&](const char*, std::size_t length) {
        huge += length;
        return true;
    });
    EXPECT_EQ(statusOf(streamed), 200);
    EXPECT_GE(huge, 50u * 1024 * 1024);
}


// What the SDK makes of the campaign, its trackers included, is the extension test's
// business; here, the buttons the tour taps and the campaign that is not JSON.
TEST_F(SandboxTest, ThePhotoCampaignHasAWebAndADeepLinkButtonAndTheBrokenOneIsNotJson) {
    auto answer = https_->Get("/v2/campaign/photo?c=1&ver=2.0");
    ASSERT_EQ(statusOf(answer), 200);
    const json actions = json::parse(answer->body)["p"][0]["o"]["actions"];
    const std::string http = "http://" + sandbox_->exported("TESSRA_AD_HOST");
    EXPECT_EQ(actions[0]["url"].get<std::string>().rfind(http + "/landing", 0), 0u);
    EXPECT_EQ(actions[1]["url"].get<std::string>().rfind("tessra://", 0), 0u);

    auto broken = https_->Get("/v2/campaign/broken&ver=2.0");
    ASSERT_EQ(statusOf(broken), 200);
    EXPECT_TRUE(json::parse(broken->body, nullptr, false).is_discarded());
}


TEST_F(SandboxTest, StopsCleanlyOnSigtermAndSigintKeepingItsLog) {
    for (int signal : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(signal);
        if (signal != SIGTERM) start();
        ASSERT_EQ(statusOf(activity()), 201);
        EXPECT_EQ(sandbox_->process().stop(signal, 30s), 0);
        std::ifstream log(sandbox_->state() / "requests.jsonl");
        EXPECT_EQ(std::count(std::istreambuf_iterator<char>(log), {}, '\n'), 1);
    }
}


// ---- tessra-host against the sandbox ---------------------------------------------

/// Writes the script's lines to the host, then closes its input.
void feed(ChildProcess& host, const std::vector<std::string>& script) {
    for (const auto& line : script) host.write(line + "\n");
    host.closeInput();
}

/// The host's output lines, parsed; each must be JSON.
std::vector<json> outputOf(const ChildProcess& host) {
    std::vector<json> lines;
    for (const auto& line : host.lines()) {
        lines.push_back(json::parse(line, nullptr, false));
        EXPECT_FALSE(lines.back().is_discarded()) << "not a JSON line: " << line;
    }
    return lines;
}

/// Runs tessra-host on a script (with a fresh TESSRA_HOME unless given one); its output lines, parsed.
std::vector<json> runHost(const std::vector<std::string>& script, std::map<std::string, std::string> environment = {}) {
    TempFolder home;
    environment.try_emplace("TESSRA_HOME", home.path().string());
    ChildProcess host(binary("tessra-host"), {}, environment);
    feed(host, script);
    EXPECT_EQ(host.wait(60s), 0) << "tessra-host did not exit cleanly";
    return outputOf(host);
}

/// The requests the sandbox logged, in order.
std::vector<json> loggedRequests(const Sandbox& sandbox) {
    std::vector<json> requests;
    std::ifstream log(sandbox.state() / "requests.jsonl");
    for (std::string line; std::getline(log, line);) requests.push_back(json::parse(line, nullptr, false));
    return requests;
}

/// Index of the first line at or after `from` that holds all of `wanted`'s members, or (given a
/// string) the first console line starting with it; -1 if none. Console prefixes only: how a
/// status is joined to its message is the console's business.
long indexOf(const std::vector<json>& lines, const json& wanted, long from = 0) {
    const auto matches = [&](const json& line) {
        if (wanted.is_string()) {
            const json console = line.value("console", json());
            return console.is_string() && console.get<std::string>().rfind(wanted.get<std::string>(), 0) == 0;
        }
        for (const auto& [key, value] : wanted.items())
            if (!line.contains(key) || line[key] != value) return false;
        return true;
    };
    for (auto i = static_cast<std::size_t>(std::max(from, 0L)); i < lines.size(); ++i)
        if (lines[i].is_object() && matches(lines[i])) return static_cast<long>(i);
    return -1;
}

class HostSandboxTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(binary("tessra-host")) || !fs::exists(binary("tessra-sandbox")))
            GTEST_SKIP() << "tessra-host or tessra-sandbox is not built (tools disabled)";
    }
};

TEST_F(HostSandboxTest, FirstStartFetchesTheDocumentThenReportsTheInstallThenTheOpen) {
    Sandbox sandbox;
    ASSERT_TRUE(sandbox.ready());
    const auto lines = runHost({R"({"op":"build","push":true,"analytics":true})", R"({"op":"initialize","id":1})",
                                R"({"op":"getUtm","key":"ht","id":2})", R"({"op":"exit"})"},
                               sandbox.environment());

    // The host: start-up answered at once, then the reports' lines, then the next operation.
    const long started = indexOf(lines, {{"result", nullptr}, {"op", "initialize"}, {"id", 1}});
    ASSERT_GE(started, 0);
    const long install = indexOf(lines, "INSTALL SENT", started);
    const long open = indexOf(lines, "Open sent successfully", install);
    const long next = indexOf(lines, {{"result", "demo-key"}, {"op", "getUtm"}, {"id", 2}});
    EXPECT_GT(install, started);
    EXPECT_GT(open, install);
    EXPECT_GT(next, open);

    // The sandbox: the configuration document, then the installation (200), then the open (205).
    std::vector<std::string> seen;
    for (const json& request : loggedRequests(sandbox)) {
        ASSERT_TRUE(request.is_object());
        std::string text = request.value("method", "") + " " + request.value("path", "") + " " +
                           std::to_string(request.value("status", 0));
        if (request.value("path", "") == "/v2/activity") {
            const json body = json::parse(request.value("body", ""), nullptr, false);
            text += " code " + (body.is_object() && body.contains("code") ? body["code"].dump() : "?");
        }
        seen.push_back(text);
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"GET /tag/demo-key.json 200", "POST /v2/activity 201 code 200",
                                              "POST /v2/activity 201 code 205"}));
}

TEST_F(HostSandboxTest, TokenRegistrationReachesTheUserEndpointAndTheDelegate) {
    Sandbox sandbox;
    ASSERT_TRUE(sandbox.ready());
    const auto lines = runHost({R"({"op":"build","push":true,"analytics":true})", R"({"op":"initialize"})",
                                R"({"op":"authorization","granted":true,"status":"authorized"})",
                                R"({"op":"registerToken","hex":"00ab10"})", R"({"op":"registerToken","hex":"00ab10"})",
                                R"({"op":"exit"})"},
                               sandbox.environment());
    const long changed = indexOf(lines, {{"delegate", "notificationTokenChanged"}, {"args", {{"token", "00ab10"}}}});
    ASSERT_GE(changed, 0);
    const long registered = indexOf(lines, {{"delegate", "tessraInited"}, {"args", {{"inited", true}}}}, changed);
    ASSERT_GT(registered, changed);
    // The same token again is not sent again: the delegate only hears that all is well.
    EXPECT_GT(indexOf(lines, {{"delegate", "tessraInited"}, {"args", {{"inited", true}}}}, registered + 1), registered);

    std::vector<json> users;
    for (const json& request : loggedRequests(sandbox))
        if (request.is_object() && request.value("path", "") == "/v2/users") users.push_back(request);
    ASSERT_EQ(users.size(), 1u);
    EXPECT_EQ(users[0].value("status", 0), 201);
    EXPECT_EQ(json::parse(users[0].value("body", "{}")).value("token", ""), "00ab10");
}

TEST_F(HostSandboxTest, AnswersABadLineWithAnErrorLineAndGoesOn) {
    // No initialize: nothing here reaches the network.
    struct Case {
        std::string line;
        json op;
        json id;
    };
    const std::vector<Case> cases = {
        {"not json at all", nullptr, nullptr},
        {R"({"op": "setUtm", "key": "source"})", "setUtm", nullptr},
        {"[1, 2]", nullptr, nullptr},
        {R"({"id": 4, "no": "op"})", nullptr, 4},
        {R"({"op": "noSuchOperation", "id": "x"})", "noSuchOperation", "x"},
        {R"({"op": "registerToken", "hex": "xyz", "id": 7})", "registerToken", 7},
        // Nested far deeper than any payload: refused as it is read, not converted.
        {R"({"op": "parsePushObj", "id": 9, "userInfo": {"deep": )" + std::string(30'000, '[') +
             std::string(30'000, ']') + "}}",
         nullptr, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const auto lines = runHost({c.line, R"({"op":"getUtm","key":"source","id":"after"})"});
        const long error = indexOf(lines, {{"op", c.op}, {"id", c.id}});
        ASSERT_GE(error, 0);
        EXPECT_TRUE(lines[static_cast<std::size_t>(error)].value("error", json()).is_string());
        // The host goes on with the next line.
        EXPECT_GT(indexOf(lines, {{"result", "Tessra not initialized"}, {"op", "getUtm"}, {"id", "after"}}), error);
    }
}

TEST_F(HostSandboxTest, AHostQuittingWithRequestsInFlightExitsCleanly) {
    // A slow backend holds the custom event and the user record until after the app quit.
    FakeBackend backend;
    backend.on("GET", "/tag/demo-key.json", Answer::json(R"({"analytics": true})"));
    backend.onSequence("POST", "/v2/activity", {Answer::json("{}", 201), Answer::json("{}", 201)});
    backend.on("POST", "/v2/activity", Answer::json("{}", 201).after(30s));
    backend.on("POST", "/v2/users", Answer::json("{}", 201).after(30s));
    TempFolder home;
    ChildProcess host(binary("tessra-host"), {},
                      {{"TESSRA_HOME", home.path().string()},
                       {"TESSRA_TRACKING_HOST", backend.httpsHost()},
                       {"TESSRA_CDN_HOST", backend.httpsHost()},
                       {"TESSRA_CA_BUNDLE", tessrakite::test::testCaFile()}});
    for (const char* line : {R"({"op":"build","push":true,"analytics":true})", R"({"op":"initialize"})",
                             R"({"op":"sendCustomEvent","key":"quit","value":1,"pump":false})",
                             R"({"op":"registerToken","hex":"00ab10","pump":false})"})
        host.write(std::string(line) + "\n");
    ASSERT_TRUE(backend.waitForRequests(5));  // document, install, open, event, user record
    ASSERT_EQ(backend.requestsTo("/v2/users").size(), 1u);
    feed(host, {R"({"op":"exit"})"});
    EXPECT_EQ(host.wait(30s), 0) << "the host died at exit";
    outputOf(host);
}

TEST_F(HostSandboxTest, TheExtensionFillsACampaignPushAndTheAppOpensItOnce) {
    Sandbox sandbox;
    ASSERT_TRUE(sandbox.ready());
    TempFolder home;
    auto environment = sandbox.environment();
    environment["TESSRA_HOME"] = home.path().string();
    // The campaign as the sandbox serves it: what the message must show and report.
    httplib::SSLClient https("127.0.0.1", sandbox.port("TESSRA_TRACKING_HOST"));
    https.set_ca_cert_path(sandbox.exported("TESSRA_CA_BUNDLE").c_str());
    const auto served = https.Get("/v2/campaign/photo?c=1&ver=2.0");
    ASSERT_EQ(statusOf(served), 200);
    const json entry = json::parse(served->body)["p"][0];
    const std::string link = entry["o"]["data"]["url"];
    std::vector<std::string> trackers = entry["i"];
    for (const auto& url : entry["o"]["data"]["t"]) trackers.push_back(url);
    ASSERT_EQ(trackers.size(), 3u) << "an impression and two conversion trackers";

    // The app's first start stores the switches the extension reads.
    runHost({R"({"op":"build","push":true,"analytics":true})", R"({"op":"initialize"})"}, environment);

    const json push = {{"aps",
                        {{"alert", {{"title", "New kites"},
                                    {"e", "https://" + sandbox.exported("TESSRA_TRACKING_HOST") + "/v2/campaign/photo?c=1"}}},
                         {"mutable-content", 1}}}};
    ChildProcess extension(binary("tessra-host"), {"--extension", "NotificationService"}, environment);
    feed(extension, {json{{"op", "didReceiveNotification"}, {"identifier", "push-1"}, {"userInfo", push}}.dump()});
    ASSERT_EQ(extension.wait(60s), 0);
    const auto filled = outputOf(extension);
    const long handled = indexOf(filled, {{"callback", "contentHandler"}});
    ASSERT_GE(handled, 0);
    const json content = filled[static_cast<std::size_t>(handled)]["args"]["content"];
    EXPECT_EQ(content["title"], entry["t"]);
    EXPECT_EQ(content["body"], entry["o"]["body"]);
    ASSERT_EQ(content["attachments"].size(), 1u) << content;
    const std::string png = tessrakite::test::readFile(content["attachments"][0].value("url", ""));
    EXPECT_TRUE(png.starts_with("\x89PNG\r\n\x1a\n") && decodes(png));

    // The app: the message is delivered; a tap reports and opens it once.
    const auto lines = runHost({R"({"op":"notifications.delivered","id":"shown"})",
                                R"({"op":"pushTrackOpen","identifier":"push-1","id":1})",
                                R"({"op":"pushTrackOpen","identifier":"push-1","id":2})"},
                               environment);
    const long shown = indexOf(lines, {{"op", "notifications.delivered"}, {"id", "shown"}});
    ASSERT_GE(shown, 0);
    const json delivered = lines[static_cast<std::size_t>(shown)]["result"];
    ASSERT_EQ(delivered.size(), 1u) << delivered;
    EXPECT_EQ(delivered[0]["identifier"], "push-1");
    EXPECT_EQ(delivered[0]["content"]["attachments"], content["attachments"]);
    // Each tap completes with nothing handed back: the first opened the campaign's link (a
    // web link through the application, any other through the delegate), the second nothing.
    const json done = {{"callback", "pushTrackOpen"}, {"args", {{"url", nullptr}}}};
    const long secondDone = indexOf(lines, done, indexOf(lines, done) + 1);
    ASSERT_GE(secondDone, 0);
    const bool web = link.starts_with("http");
    const long opened = indexOf(lines, web ? json{{"platform", "openURL"}, {"url", link}}
                                           : json{{"delegate", "handleURL"}, {"args", {{"url", link}}}});
    EXPECT_GE(opened, 0) << link;
    EXPECT_LT(opened, secondDone);
    EXPECT_EQ(indexOf(lines, {{"platform", "openURL"}}, opened + 1), -1);
    EXPECT_EQ(indexOf(lines, {{"delegate", "handleURL"}}, opened + 1), -1);
    // Every tracker reached the sandbox once: the impression on arrival, the conversions at
    // the first tap.
    std::multiset<std::string> targets;
    for (const json& r : loggedRequests(sandbox))
        targets.insert(r.value("path", "") + (r.value("query", "").empty() ? "" : "?" + r.value("query", "")));
    for (const std::string& tracker : trackers)
        EXPECT_EQ(targets.count(tracker.substr(tracker.find("/t/"))), 1u) << tracker;
}

TEST_F(HostSandboxTest, TheSegmentationFaultIsARealOneAndItsRecordKeepsTheReportsCodeAndAddress) {
    TempFolder home;
    const std::map<std::string, std::string> environment = {{"TESSRA_HOME", home.path().string()}};
    {
        ChildProcess crashing(binary("tessra-host"), {}, environment);
        feed(crashing, {R"({"op":"crash.registerLogger"})", R"({"op":"crash.trigger","kind":"SIGSEGV"})"});
        EXPECT_EQ(crashing.wait(60s), 128 + SIGSEGV);
    }
    const auto lines = runHost({R"({"op":"crash.logFile"})", R"({"op":"crash.writeRecord","fromReport":true})"},
                               environment);

    const long report = indexOf(lines, {{"op", "crash.logFile"}});
    ASSERT_GE(report, 0);
    const std::string text = lines[static_cast<std::size_t>(report)].value("result", "");
    // A write to address 16, which is not mapped: not a raised signal (code -6, the pid).
    EXPECT_NE(text.find("\nCODE: " + std::to_string(SEGV_MAPERR) + "\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nInfo: signal:" + std::to_string(SIGSEGV) + "\naddress:0x00000010\n"), std::string::npos)
        << text;
    const long record = indexOf(lines, {{"op", "crash.writeRecord"}});
    ASSERT_GE(record, 0);
    const std::string file = lines[static_cast<std::size_t>(record)].value("result", "");
    EXPECT_EQ(fs::path(file).filename(), "record-16-" + std::to_string(SEGV_MAPERR)) << lines[static_cast<std::size_t>(record)];
}

}  // namespace
