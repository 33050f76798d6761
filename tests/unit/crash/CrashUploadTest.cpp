// Crash records: their archive, and their upload against the fake backend on 127.0.0.1.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include <nlohmann/json.hpp>

#include <tessrakite/core/StorageManager.hpp>
#include <tessrakite/crash/Base64.hpp>
#include <tessrakite/crash/JtCrashLogFile.hpp>
#include <tessrakite/crash/JtCrashLogger.hpp>
#include <tessrakite/crash/JtCrashReporter.hpp>
#include <tessrakite/crash/JtCrashRequest.hpp>
#include <tessrakite/platform/Platform.hpp>
#include <tessrakite/platform/headless/HeadlessPlatform.hpp>

#include "CrashChild.hpp"
#include "FakeBackend.hpp"
#include "TestEnv.hpp"

namespace tessrakite::test {
namespace {

// The store's suite is named after the first bundle identifier a process sees.
const char* const kBundleId = "com.example.crashupload";

std::shared_ptr<JtCrashLogFile> signalRecord() {
    auto r = std::make_shared<JtCrashLogFile>();
    r->type = 2;
    r->address = 0xDEADBEEF;
    r->code = -6;
    r->callStack = std::vector<std::string>{"libc.so.6(raise+0x1) [0x1]", "app(+0x2) [0x2]"};
    r->appVersion = "2.5";
    r->info = "signal:6\naddress:0x00001234\n[0x1234]";
    r->buildVersion = "77";
    return r;
}

class CrashUpload : public ::testing::Test {
protected:
    void SetUp() override {
        installMainBundle(home_.path(), kBundleId, {{"CFBundleShortVersionString", "2.5"}});
        if (const char* previous = std::getenv("TESSRA_CRASH_HOST")) previousHost_ = previous;
        ::setenv("TESSRA_CRASH_HOST", backend_.httpHost().c_str(), 1);
        session_ = platform::makeCurlUrlSession(trustingTestCa());
        platform::headless::HeadlessOptions options;
        options.urlSession = session_;
        platform::setCurrentPlatform(platform::headless::makeHeadlessPlatform(options).platform);
        StorageManager().remove(StorageKey::crashUrl);
        folder_ = JtCrashLogger::getLogPath();
    }
    void TearDown() override {
        platform::setCurrentPlatform(nullptr);
        if (previousHost_)
            ::setenv("TESSRA_CRASH_HOST", previousHost_->c_str(), 1);
        else
            ::unsetenv("TESSRA_CRASH_HOST");
    }

    // Runs reportLogs and waits for its uploads.
    void reportAndWait() {
        auto queue = JtCrashReporter::reportLogs();
        ASSERT_TRUE(queue);
        ASSERT_TRUE(queue->waitUntilAllOperationsAreFinished(30));
    }

    std::filesystem::path record(const char* name) const { return std::filesystem::path(folder_) / name; }

    ScopedHome home_;
    FakeBackend backend_;
    std::optional<std::string> previousHost_;
    std::shared_ptr<platform::UrlSession> session_;
    std::string folder_;
};


// Nothing listens on the built-in host: the stored URL gives only host and port (its https,
// path and query are dropped), and the backend's port speaks plain HTTP.
TEST_F(CrashUpload, TheRequestLineQueryAndBodyAreExactAndTheStoredUrlGivesOnlyHostAndPort) {
    ::setenv("TESSRA_CRASH_HOST", "127.0.0.1:1", 1);
    StorageManager().set(StorageKey::crashUrl, "https://" + backend_.httpHost() + "/elsewhere/upload?x=1");
    backend_.on("POST", "/post.php", Answer::withStatus(200));
    ASSERT_TRUE(signalRecord()->writeToFile(record("first.json")));
    ConsoleCapture console;

    reportAndWait();

    ASSERT_EQ(backend_.requests().size(), 1u);
    const auto request = backend_.requests()[0];
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target(), "/post.php?ver=2.5&addr=3735928559&code=4294967290");
    ASSERT_EQ(request.body.substr(0, 6), "stack=");
    EXPECT_EQ(decodeBase64(request.body.substr(6)),
              "type:2\nsignal:6\naddress:0x00001234\n[0x1234]\nlibc.so.6(raise+0x1) [0x1]\napp(+0x2) [0x2]");
    EXPECT_FALSE(std::filesystem::exists(record("first.json"))) << "a 200 removes the file";
    EXPECT_EQ(console.lines(), std::vector<std::string>{"first.json"});
}

TEST_F(CrashUpload, OnlyA200DeletesTheRecord) {
    for (int status : {500, 201, 204, 404}) {
        SCOPED_TRACE(status);
        backend_.clearScripts();
        backend_.onSequence("POST", "/post.php", {Answer::withStatus(status), Answer::withStatus(200)});
        ASSERT_TRUE(signalRecord()->writeToFile(record("kept.json")));
        reportAndWait();
        EXPECT_TRUE(std::filesystem::exists(record("kept.json")));
        reportAndWait();
        EXPECT_FALSE(std::filesystem::exists(record("kept.json"))) << "a later 200 removes it";
    }
    EXPECT_EQ(backend_.requests().size(), 8u);
}

TEST_F(CrashUpload, RecordsInSubfoldersAreUploadedButNeverThePlainTextReport) {
    backend_.on("POST", "/post.php", Answer::withStatus(200));
    std::ofstream(record("crash.txt")) << "FROM signal: Sample\nVERSION: 1.0BUILD: 1\nTYPE: 2\n";
    std::filesystem::create_directories(record("older"));
    ASSERT_TRUE(signalRecord()->writeToFile(record("older/one.json")));
    ASSERT_TRUE(signalRecord()->writeToFile(record("two.json")));
    ConsoleCapture console;

    reportAndWait();

    EXPECT_EQ(backend_.requests().size(), 2u);
    EXPECT_TRUE(std::filesystem::exists(record("crash.txt")));
    EXPECT_FALSE(std::filesystem::exists(record("older/one.json")));
    EXPECT_FALSE(std::filesystem::exists(record("two.json")));
    auto lines = console.lines();
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines, (std::vector<std::string>{"crash.txt", "older", "older/one.json", "two.json"}));
}

TEST_F(CrashUpload, RequestsForBareRecordsAndWithAStoredTextThatIsNoUrl) {
    EXPECT_FALSE(requestWithJtCrashLogFile(nullptr));
    // Absent values read "(null)", as the placeholders show them; a stored text that is no URL
    // leaves the built-in host.
    StorageManager().set(StorageKey::crashUrl, "not a url");
    auto bare = std::make_shared<JtCrashLogFile>();
    bare->type = 1;
    auto request = requestWithJtCrashLogFile(bare);
    ASSERT_TRUE(request);
    EXPECT_TRUE(request->headers.empty());
    EXPECT_EQ(request->url.absoluteString(), backend_.httpBase() + "/post.php?ver=(null)&addr=0&code=0");
    EXPECT_EQ(request->httpBody, "stack=dHlwZToxCihudWxsKQoobnVsbCk=");
}

// ---- the record's archive ----------------------------------------------------------

class CrashLogFileArchive : public ::testing::Test {
protected:
    std::filesystem::path file(const char* name) const { return home_.path() / name; }
    ScopedHome home_;
};

TEST_F(CrashLogFileArchive, KeepsTheSevenKeysAndOnlyThose) {
    JtCrashLogFile full = *signalRecord();
    full.name = "n";
    full.reason = "r";
    full.time = "2024-01-01 00:00:00";
    full.deviceModel = "x86_64";
    ASSERT_TRUE(full.writeToFile(file("record")));
    EXPECT_FALSE(full.writeToFile(home_.path() / "no" / "such" / "record"));

    const auto archive = nlohmann::json::parse(readFile(file("record").string()));
    std::vector<std::string> names;  // a JSON object lists its keys sorted
    for (const auto& item : archive.items()) names.push_back(item.key());
    EXPECT_EQ(names, (std::vector<std::string>{"address", "appVersion", "buildVersion", "callStack", "code",
                                               "info", "type"}));
    auto back = JtCrashLogFile::createFromLogFileName(file("record"));
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, *signalRecord());
}


TEST_F(CrashLogFileArchive, AnythingElseYieldsNoRecord) {
    const std::pair<const char*, std::string> cases[] = {
        {"a plain-text report", "FROM signal: Sample\nVERSION: 1.0BUILD: 1\nTYPE: 2\n"},
        {"garbage", "\x01\x02garbage\xff"},
        {"empty", ""},
        {"a JSON array", "[1,2,3]"},
        {"a missing key", R"({"type":2,"address":1,"code":0,"callStack":[],"appVersion":"1","info":"i"})"},
        {"a wrong type", R"({"type":"2","address":1,"code":0,"callStack":[],"appVersion":"1","info":"i","buildVersion":"1"})"},
        {"a number out of range", R"({"type":2,"address":-1,"code":0,"callStack":[],"appVersion":"1","info":"i","buildVersion":"1"})"},
        {"a stack of numbers", R"({"type":2,"address":1,"code":0,"callStack":[1],"appVersion":"1","info":"i","buildVersion":"1"})"},
    };
    for (const auto& [name, text] : cases) {
        SCOPED_TRACE(name);
        std::ofstream(file("record"), std::ios::binary) << text;
        EXPECT_EQ(JtCrashLogFile::createFromLogFileName(file("record")), nullptr);
    }
    EXPECT_EQ(JtCrashLogFile::createFromLogFileName(file("missing")), nullptr);
    EXPECT_EQ(JtCrashLogFile::createFromLogFileName(home_.path()), nullptr) << "a folder";
}

}  // namespace
}  // namespace tessrakite::test
