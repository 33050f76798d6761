// The prompt page exactly as the SDK builds it (read back from tessra-host), with the SDK's
// own console bridge, run in WebKitGTK, its remote script served by tessra-sandbox over TLS.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "ChildProcess.hpp"
#include "TestEnv.hpp"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;
using tessrakite::test::binary;
using tessrakite::test::ChildProcess;
using tessrakite::test::Sandbox;
using tessrakite::test::TempFolder;
using namespace std::chrono_literals;

std::optional<std::string> onPath(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::string folders = path ? path : "";
    for (std::size_t start = 0; start <= folders.size();) {
        const auto end = std::min(folders.find(':', start), folders.size());
        const fs::path candidate = fs::path(folders.substr(start, end - start)) / program;
        if (fs::exists(candidate)) return candidate.string();
        start = end + 1;
    }
    return std::nullopt;
}

void writeFile(const fs::path& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

struct Page {
    std::string html;
    std::string bridge;
};

struct PageRun {
    std::optional<int> exitCode;
    std::vector<Json> messages;  // {"channel", "body"}
    std::vector<std::string> on(const std::string& channel) const {
        std::vector<std::string> out;
        for (const auto& m : messages)
            if (m["channel"] == channel) out.push_back(m["body"].is_string() ? m["body"].get<std::string>() : m["body"].dump());
        return out;
    }
};

class PromptPage : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* tool : {"tessra-host", "tessra-sandbox", "tessra-page-driver"})
            ASSERT_TRUE(fs::exists(binary(tool))) << binary(tool) << " is not built";
        if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) {
            xvfbRun = onPath("xvfb-run");
            ASSERT_TRUE(xvfbRun) << "the browser engine needs a display: none is set and xvfb-run is not installed "
                                    "(Debian package xvfb)";
        }
        sandbox = std::make_unique<Sandbox>();
        ASSERT_TRUE(sandbox->ready()) << "tessra-sandbox did not start";
    }

    /// The page the SDK's prompt view loads with `document` stored, and its console bridge.
    Page pageFor(const std::optional<std::string>& document) {
        TempFolder home;
        auto env = sandbox->environment();
        env["TESSRA_HOME"] = home.path().string();
        ChildProcess host(binary("tessra-host"), {}, env);
        std::string script;
        if (document)
            script += Json{{"op", "store.set"}, {"key", "tx_autoconf"}, {"type", "string"}, {"value", *document}}.dump() + "\n";
        script += R"({"op":"root","class":"HomeScreen"})" "\n"
                  R"({"op":"prompt.custom","enabled":true})" "\n"
                  R"({"op":"askForNotificationPermissionWith"})" "\n"
                  R"({"op":"prompt.page","id":"page"})" "\n";
        host.write(script);
        host.closeInput();
        EXPECT_EQ(host.wait(30s), 0);
        Page page;
        for (const auto& line : host.lines()) {
            const auto json = Json::parse(line, nullptr, false);
            if (json.is_discarded()) continue;
            if (json.contains("platform") && json["platform"] == "userScript") page.bridge = json["source"];
            if (json.contains("id") && json["id"] == "page" && json["result"].is_string()) page.html = json["result"];
        }
        return page;
    }

    /// Runs the page in the engine, then `evals` in order; ends when a message contains `quitOn`.
    PageRun run(const Page& page, const std::vector<std::string>& evals, const std::string& quitOn,
            const std::vector<std::string>& extra = {}) {
        TempFolder files;
        writeFile(files.path() / "page.html", page.html);
        writeFile(files.path() / "bridge.js", page.bridge);
        std::vector<std::string> words = {"--html", (files.path() / "page.html").string(),
                                          "--user-script", (files.path() / "bridge.js").string(),
                                          "--trust", "127.0.0.1=" + (sandbox->state() / "ca" / "server.pem").string(),
                                          "--quit-on", quitOn, "--timeout-ms", "20000"};
        for (const auto& e : evals) words.insert(words.end(), {"--eval", e});
        words.insert(words.end(), extra.begin(), extra.end());
        fs::path program = binary("tessra-page-driver");
        if (xvfbRun) {
            words.insert(words.begin(), {"-a", "-s", "-screen 0 1280x1024x24", program.string()});
            program = *xvfbRun;
        }
        ChildProcess driver(program, words);
        PageRun result;
        result.exitCode = driver.wait(60s);
        for (const auto& line : driver.lines()) {
            auto json = Json::parse(line, nullptr, false);
            if (json.is_object() && json.contains("channel")) result.messages.push_back(json);
        }
        return result;
    }

    std::optional<std::string> xvfbRun;
    std::unique_ptr<Sandbox> sandbox;
};

// A document whose prompt the remote script shows at once.
const std::string kDocument =
    R"({"push_config":{"enabled":true,"prompts":[{"id":"p1","options":{"title":"Hello","delay":0}}]},"url":{}})";

TEST_F(PromptPage, PageEventsPostPnsOkOnJSBridge) {
    const auto page = pageFor(R"({"push_config":{"enabled":false}})");
    ASSERT_NE(page.html.find("var _TXPC = {\"push_config\":{\"enabled\":false}};"), std::string::npos) << page.html;
    struct Case {
        std::string eval;
        Json posted;
    };
    const Case cases[] = {
        {R"(var e = new Event("pns.htmlOK"); e.txData = {"a": 1, "b": ["x"]}; window.dispatchEvent(e);)",
         Json::parse(R"({"event":"pns.ok","data":{"a":1,"b":["x"]}})")},
        {R"(window.dispatchEvent(new Event("pns.htmlOK"));)", Json::parse(R"({"event":"pns.ok","data":{}})")},
        {R"(window.dispatchEvent(new Event("pns.show"));)", Json::parse(R"({"event":"pns.ok"})")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.eval);
        const auto result = run(page, {c.eval}, "pns.ok");
        EXPECT_EQ(result.exitCode, 0);
        const auto posted = result.on("JSBridge");
        ASSERT_EQ(posted.size(), 1u);
        // A JSON text, as the SDK decodes it.
        EXPECT_EQ(Json::parse(posted[0]), c.posted);
    }
}

TEST_F(PromptPage, ConsoleBridgeReportsLinesAndUncaughtErrors) {
    const auto page = pageFor(R"({"push_config":{"enabled":false}})");
    const auto result = run(page,
                            {R"(console.log("a", 1, undefined, {"k": [1, 2]}, null, true);)",
                             R"(console.warn("careful");)", R"(console.error(new Date(0).getTime());)",
                             R"(console.debug("x".repeat(3500), "y");)",
                             R"(window.dispatchEvent(new ErrorEvent("error", {message: "boom", filename: "page.js", lineno: 3, colno: 7}));)",
                             // A real throw. A page loaded without a base URL has no origin to show
                             // error details to, so the engine reports it as "Script error." at :0:0.
                             R"js(var s = document.createElement("script"); s.textContent = "throw new Error('real')";
                                  document.body.appendChild(s); undefined;)js"},
                            "Uncaught: Script error.");
    EXPECT_EQ(result.exitCode, 0);
    const auto lines = result.on("logging");
    auto has = [&](const std::string& line) { return std::find(lines.begin(), lines.end(), line) != lines.end(); };
    EXPECT_TRUE(has("📗 JS log: a, 1, undefined, {\"k\":[1,2]}, null, true")) << testing::PrintToString(lines);
    EXPECT_TRUE(has("📙 JS warning: careful"));
    EXPECT_TRUE(has("📕 JS error: 0"));
    EXPECT_TRUE(has("📘 JS debug: " + std::string(3000, 'x') + ", y"));
    EXPECT_TRUE(has("💥 JS Uncaught: boom at page.js:3:7"));
    const std::regex uncaught("💥 JS Uncaught: .+ at .*:[0-9]+:[0-9]+");
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return std::regex_match(l, uncaught); }))
        << testing::PrintToString(lines);
}

TEST_F(PromptPage, NoStoredDocumentIsAnUncaughtErrorAndNoPrompt) {
    const auto page = pageFor(std::nullopt);
    ASSERT_NE(page.html.find("var _TXPC = ;"), std::string::npos);
    const auto result = run(page, {}, "Uncaught");
    EXPECT_EQ(result.exitCode, 0);
    const std::regex uncaught("💥 JS Uncaught: .+ at .*:[0-9]+:[0-9]+");
    const auto lines = result.on("logging");
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return std::regex_match(l, uncaught); }))
        << testing::PrintToString(lines);
    EXPECT_TRUE(result.on("JSBridge").empty());
}

TEST_F(PromptPage, SandboxPromptAcceptedOrRefusedAnswersTheApp) {
    const auto page = pageFor(kDocument);
    // The remote script comes from the sandbox's HTTPS side; clicking a button once it shows.
    const auto click = [](const std::string& id) {
        return "var t = setInterval(function () { var b = document.getElementById('" + id +
               "'); if (b) { clearInterval(t); b.click(); } }, 50);";
    };
    const auto accepted = run(page, {click("tx-prompt-allow")}, "pns.ok");
    ASSERT_EQ(accepted.on("JSBridge").size(), 1u) << testing::PrintToString(accepted.on("logging"));
    EXPECT_EQ(Json::parse(accepted.on("JSBridge")[0]),
              Json::parse(R"({"event":"pns.ok","data":{"prompt":"p1","source":"tessra-sandbox"}})"));
    const auto refused = run(page, {click("tx-prompt-deny")}, "pns.denied");
    ASSERT_EQ(refused.on("JSBridge").size(), 1u);
    EXPECT_EQ(Json::parse(refused.on("JSBridge")[0])["event"], "pns.denied");
}

TEST_F(PromptPage, SnapshotShowsTheSandboxPrompt) {
    const auto page = pageFor(
        R"({"push_config":{"enabled":true,"prompts":[{"id":"welcome","options":{"title":"Never miss a beat","text":"Turn on notifications for news, offers and reminders.","allowText":"Allow","denyText":"Not now","delay":0}}]}})");
    const fs::path png = fs::path(binary("tessra-page-driver")).parent_path().parent_path() / "prompt.png";
    fs::remove(png);
    const auto result = run(page, {}, "never", {"--snapshot", png.string(), "--settle-ms", "1500"});
    EXPECT_EQ(result.exitCode, 0);
    std::ifstream in(png, std::ios::binary);
    std::string head(8, '\0');
    in.read(head.data(), 8);
    EXPECT_EQ(head, "\x89PNG\r\n\x1a\n");
    const auto shown = result.on("logging");
    EXPECT_TRUE(std::find(shown.begin(), shown.end(), "📗 JS log: tessra prompt shown: welcome") != shown.end())
        << testing::PrintToString(shown);
}

}  // namespace
