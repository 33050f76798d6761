// tessra-host against tessra-sandbox, each its own process, the way the demo runs them.

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "ChildProcess.hpp"
#include "FakeBackend.hpp"
#include "TestEnv.hpp"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using tessrakite::test::binary;
using tessrakite::test::ChildProcess;
using tessrakite::test::Sandbox;
using tessrakite::test::TempFolder;
using namespace std::chrono_literals;

/// Runs tessra-host on a script with a fresh TESSRA_HOME; its output lines, parsed.
std::vector<json> runHost(const std::vector<std::string>& script, std::map<std::string, std::string> environment = {}) {
    TempFolder home;
    environment["TESSRA_HOME"] = home.path().string();
    ChildProcess host(binary("tessra-host"), {}, environment);
    std::string input;
    for (const auto& line : script) input += line + "\n";
    host.write(input);
    host.closeInput();
    EXPECT_EQ(host.wait(60s), 0) << "tessra-host did not exit cleanly";
    std::vector<json> lines;
    for (const auto& line : host.lines()) {
        lines.push_back(json::parse(line, nullptr, false));
        EXPECT_FALSE(lines.back().is_discarded()) << "not a JSON line: " << line;
    }
    return lines;
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
    std::ifstream log(sandbox.state() / "requests.jsonl");
    for (std::string line; std::getline(log, line);) {
        const json request = json::parse(line, nullptr, false);
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
    std::ifstream log(sandbox.state() / "requests.jsonl");
    for (std::string line; std::getline(log, line);) {
        const json request = json::parse(line, nullptr, false);
        if (request.is_object() && request.value("path", "") == "/v2/users") users.push_back(request);
    }
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
        {R"({"op": "screen", "class": "Home", "event": "sideways", "id": 6})", "screen", 6},
        {R"({"op": "registerToken", "hex": "xyz", "id": 7})", "registerToken", 7},
        {R"({"op": "wait", "seconds": "long", "id": 8})", "wait", 8},
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
    tessrakite::test::FakeBackend backend;
    backend.on("GET", "/tag/demo-key.json", tessrakite::test::Answer::json(R"({"analytics": true})"));
    backend.onSequence("POST", "/v2/activity",
                       {tessrakite::test::Answer::json("{}", 201), tessrakite::test::Answer::json("{}", 201)});
    backend.on("POST", "/v2/activity", tessrakite::test::Answer::json("{}", 201).after(30s));
    backend.on("POST", "/v2/users", tessrakite::test::Answer::json("{}", 201).after(30s));
    TempFolder home;
    ChildProcess host(binary("tessra-host"), {},
                      {{"TESSRA_HOME", home.path().string()},
                       {"TESSRA_TRACKING_HOST", backend.httpsHost()},
                       {"TESSRA_CDN_HOST", backend.httpsHost()},
                       {"TESSRA_CA_BUNDLE", tessrakite::test::testCaFile()}});
    host.write(R"({"op":"build","push":true,"analytics":true})"
               "\n"
               R"({"op":"initialize"})"
               "\n"
               R"({"op":"sendCustomEvent","key":"quit","value":1,"pump":false})"
               "\n"
               R"({"op":"registerToken","hex":"00ab10","pump":false})"
               "\n");
    ASSERT_TRUE(backend.waitForRequests(5));  // document, install, open, event, user record
    ASSERT_EQ(backend.requestsTo("/v2/users").size(), 1u);
    host.write(R"({"op":"exit"})"
               "\n");
    host.closeInput();
    EXPECT_EQ(host.wait(30s), 0) << "the host died at exit";
    for (const auto& line : host.lines())
        EXPECT_FALSE(json::parse(line, nullptr, false).is_discarded()) << "not a JSON line: " << line;
}

TEST_F(HostSandboxTest, TheSegmentationFaultIsARealOneAndItsRecordKeepsTheReportsCodeAndAddress) {
    TempFolder home;
    const std::map<std::string, std::string> environment = {{"TESSRA_HOME", home.path().string()}};
    {
        ChildProcess crashing(binary("tessra-host"), {}, environment);
        crashing.write("{\"op\":\"crash.registerLogger\"}\n{\"op\":\"crash.trigger\",\"kind\":\"SIGSEGV\"}\n");
        crashing.closeInput();
        EXPECT_EQ(crashing.wait(60s), 128 + SIGSEGV);
    }
    ChildProcess next(binary("tessra-host"), {}, environment);
    next.write("{\"op\":\"crash.logFile\"}\n{\"op\":\"crash.writeRecord\",\"fromReport\":true}\n");
    next.closeInput();
    EXPECT_EQ(next.wait(60s), 0);
    std::vector<json> lines;
    for (const auto& line : next.lines()) lines.push_back(json::parse(line, nullptr, false));

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
