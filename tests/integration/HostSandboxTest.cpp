// tessra-host against tessra-sandbox, each its own process, the way the demo runs them.

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "ChildProcess.hpp"
#include "TestEnv.hpp"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using tessrakite::test::binary;
using tessrakite::test::ChildProcess;
using namespace std::chrono_literals;

class TempFolder {
public:
    TempFolder() {
        std::random_device random;
        path_ = fs::temp_directory_path() /
                ("tessra-host-test-" + std::to_string(::getpid()) + "-" + std::to_string(random()));
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

/// The sandbox on free ports with its own state folder; `environment()` is what it announced.
class Sandbox {
public:
    Sandbox() : process_(binary("tessra-sandbox"), {"--state", (state_.path() / "state").string()}) {
        ready_ = process_.waitForLine([](const std::string& line) { return line == "# ready"; }, 60s);
        for (const auto& line : process_.lines()) {
            if (line.rfind("export ", 0) != 0) continue;
            const auto equals = line.find('=');
            std::string value = line.substr(equals + 1);
            if (value.size() >= 2 && value.front() == '\'') value = value.substr(1, value.size() - 2);
            environment_[line.substr(7, equals - 7)] = value;
        }
    }
    ~Sandbox() { process_.stop(SIGTERM, 30s); }
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    bool ready() const { return ready_; }
    const std::map<std::string, std::string>& environment() const { return environment_; }

    /// The requests it recorded, oldest first (the log is written before each answer).
    std::vector<json> requests() const {
        std::vector<json> out;
        std::ifstream in(state_.path() / "state" / "requests.jsonl");
        for (std::string line; std::getline(in, line);) out.push_back(json::parse(line, nullptr, false));
        return out;
    }

private:
    TempFolder state_;
    ChildProcess process_;
    bool ready_ = false;
    std::map<std::string, std::string> environment_;
};

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

/// Index of the first line at or after `from` that holds all of `wanted`'s members; -1 if none.
long indexOf(const std::vector<json>& lines, const json& wanted, long from = 0) {
    for (auto i = static_cast<std::size_t>(std::max(from, 0L)); i < lines.size(); ++i) {
        bool all = lines[i].is_object();
        for (auto it = wanted.begin(); all && it != wanted.end(); ++it)
            all = lines[i].contains(it.key()) && lines[i][it.key()] == it.value();
        if (all) return static_cast<long>(i);
    }
    return -1;
}

/// Index of the first console line at or after `from` that starts with `prefix`; -1 if none.
/// Prefixes only: how a status is joined to its message is the console's business.
long indexOfConsole(const std::vector<json>& lines, const std::string& prefix, long from = 0) {
    for (auto i = static_cast<std::size_t>(std::max(from, 0L)); i < lines.size(); ++i)
        if (lines[i].is_object() && lines[i].contains("console") && lines[i]["console"].is_string() &&
            lines[i]["console"].get<std::string>().rfind(prefix, 0) == 0)
            return static_cast<long>(i);
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
    const long install = indexOfConsole(lines, "INSTALL SENT", started);
    const long open = indexOfConsole(lines, "Open sent successfully", install);
    const long next = indexOf(lines, {{"result", "demo-key"}, {"op", "getUtm"}, {"id", 2}});
    EXPECT_GT(install, started);
    EXPECT_GT(open, install);
    EXPECT_GT(next, open);

    // The sandbox: the configuration document, then the installation (200), then the open (205).
    std::vector<std::string> seen;
    for (const auto& request : sandbox.requests()) {
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
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const auto lines = runHost({c.line, R"({"op":"getUtm","key":"source","id":"after"})"});
        const long error = indexOf(lines, {{"op", c.op}, {"id", c.id}});
        ASSERT_GE(error, 0);
        EXPECT_TRUE(lines[static_cast<std::size_t>(error)].contains("error"));
        EXPECT_TRUE(lines[static_cast<std::size_t>(error)]["error"].is_string());
        // The host goes on with the next line.
        EXPECT_GT(indexOf(lines, {{"result", "Tessra not initialized"}, {"op", "getUtm"}, {"id", "after"}}), error);
    }
}

}  // namespace
