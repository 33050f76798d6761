// tessra-host against tessra-sandbox, each its own process, the way the demo runs them.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "ChildProcess.hpp"
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

}  // namespace
