// Crash upload against the fake backend on 127.0.0.1.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include <tessrakite/core/StorageManager.hpp>
#include <tessrakite/crash/Base64.hpp>
#include <tessrakite/crash/JtCrashLogFile.hpp>
#include <tessrakite/crash/JtCrashLogger.hpp>
#include <tessrakite/crash/JtCrashReportOperation.hpp>
#include <tessrakite/crash/JtCrashReporter.hpp>
#include <tessrakite/crash/JtCrashRequest.hpp>
#include <tessrakite/platform/Platform.hpp>
#include <tessrakite/platform/headless/HeadlessPlatform.hpp>

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

TEST_F(CrashUpload, AnEmptyFolderQueuesNothing) {
    ConsoleCapture console;
    auto queue = JtCrashReporter::reportLogs();
    ASSERT_TRUE(queue);
    EXPECT_EQ(queue->operationCount(), 0u);
    EXPECT_TRUE(queue->waitUntilAllOperationsAreFinished(1));
    EXPECT_TRUE(backend_.requests().empty());
    EXPECT_TRUE(console.lines().empty());
}

TEST_F(CrashUpload, TheRequestLineQueryAndBodyAreExact) {
    backend_.on("POST", "/post.php", Answer::withStatus(200));
    ASSERT_TRUE(signalRecord()->writeToFile(record("first.json")));
    ConsoleCapture console;

    reportAndWait();

    ASSERT_EQ(backend_.requests().size(), 1u);
    const auto request = backend_.requests()[0];
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.path, "/post.php");
    EXPECT_EQ(request.query, "ver=2.5&addr=3735928559&code=4294967290");
    EXPECT_EQ(request.body,
              "stack=dHlwZToyCnNpZ25hbDo2CmFkZHJlc3M6MHgwMDAwMTIzNApbMHgxMjM0XQpsaWJjLnNvLjYocmFpc2UrMHgxKSBbMHgx"
              "XQphcHAoKzB4MikgWzB4Ml0=");
    EXPECT_EQ(decodeBase64(request.body.substr(6)),
              "type:2\nsignal:6\naddress:0x00001234\n[0x1234]\nlibc.so.6(raise+0x1) [0x1]\napp(+0x2) [0x2]");
    EXPECT_FALSE(std::filesystem::exists(record("first.json"))) << "a 200 removes the file";
    EXPECT_EQ(console.lines(), std::vector<std::string>{"first.json"});
}

TEST_F(CrashUpload, A500KeepsTheFileAndALater200RemovesIt) {
    backend_.onSequence("POST", "/post.php", {Answer::withStatus(500), Answer::withStatus(200)});
    ASSERT_TRUE(signalRecord()->writeToFile(record("kept.json")));

    reportAndWait();
    EXPECT_EQ(backend_.requests().size(), 1u);
    EXPECT_TRUE(std::filesystem::exists(record("kept.json")));

    reportAndWait();
    EXPECT_EQ(backend_.requests().size(), 2u);
    EXPECT_FALSE(std::filesystem::exists(record("kept.json")));
}

TEST_F(CrashUpload, OnlyA200Deletes) {
    for (int status : {201, 204, 404}) {
        SCOPED_TRACE(status);
        backend_.clearScripts();
        backend_.on("POST", "/post.php", Answer::withStatus(status));
        ASSERT_TRUE(signalRecord()->writeToFile(record("r.json")));
        reportAndWait();
        EXPECT_TRUE(std::filesystem::exists(record("r.json")));
    }
}

TEST_F(CrashUpload, ThePlainTextReportIsNeverUploadedNorDeleted) {
    backend_.on("POST", "/post.php", Answer::withStatus(200));
    std::ofstream(record("crash.txt")) << "FROM signal: Sample\nVERSION: 1.0BUILD: 1\nTYPE: 2\n";
    ConsoleCapture console;

    reportAndWait();

    EXPECT_TRUE(backend_.requests().empty());
    EXPECT_TRUE(std::filesystem::exists(record("crash.txt")));
    EXPECT_EQ(console.lines(), std::vector<std::string>{"crash.txt"});
}

TEST_F(CrashUpload, RecordsInSubfoldersAreUploadedToo) {
    backend_.on("POST", "/post.php", Answer::withStatus(200));
    std::filesystem::create_directories(record("older"));
    ASSERT_TRUE(signalRecord()->writeToFile(record("older/one.json")));
    ASSERT_TRUE(signalRecord()->writeToFile(record("two.json")));
    ConsoleCapture console;

    reportAndWait();

    EXPECT_EQ(backend_.requests().size(), 2u);
    EXPECT_FALSE(std::filesystem::exists(record("older/one.json")));
    EXPECT_FALSE(std::filesystem::exists(record("two.json")));
    auto lines = console.lines();
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines, (std::vector<std::string>{"older", "older/one.json", "two.json"}));
}

TEST_F(CrashUpload, TheStoredCrashUrlGivesOnlyHostAndPortAndUploadsStayHttp) {
    // Nothing listens on the built-in host now. The stored URL says https, but the backend's
    // port speaks plain HTTP: only an http upload to /post.php reaches it and gets its 200.
    ::setenv("TESSRA_CRASH_HOST", "127.0.0.1:1", 1);
    StorageManager().set(StorageKey::crashUrl, "https://" + backend_.httpHost() + "/elsewhere/upload?x=1");
    backend_.on("POST", "/post.php", Answer::withStatus(200));
    ASSERT_TRUE(signalRecord()->writeToFile(record("r.json")));

    EXPECT_EQ(requestWithJtCrashLogFile(signalRecord())->url.absoluteString(),
              backend_.httpBase() + "/post.php?ver=2.5&addr=3735928559&code=4294967290");
    reportAndWait();

    ASSERT_EQ(backend_.requests().size(), 1u);
    EXPECT_EQ(backend_.requests()[0].target(), "/post.php?ver=2.5&addr=3735928559&code=4294967290");
    EXPECT_FALSE(std::filesystem::exists(record("r.json")));
}

TEST_F(CrashUpload, AStoredTextThatIsNoUrlFallsBackToTheBuiltInHost) {
    StorageManager().set(StorageKey::crashUrl, "not a url");
    backend_.on("POST", "/post.php", Answer::withStatus(200));
    ASSERT_TRUE(signalRecord()->writeToFile(record("r.json")));

    reportAndWait();

    EXPECT_EQ(backend_.requests().size(), 1u);
}

TEST_F(CrashUpload, RequestBuilder) {
    EXPECT_FALSE(requestWithJtCrashLogFile(nullptr));

    auto request = requestWithJtCrashLogFile(signalRecord());
    ASSERT_TRUE(request);
    EXPECT_EQ(request->httpMethod, "POST");
    EXPECT_EQ(request->url.absoluteString(), backend_.httpBase() + "/post.php?ver=2.5&addr=3735928559&code=4294967290");
    EXPECT_TRUE(request->headers.empty());

    // Absent values read "(null)", as the placeholders show them.
    auto bare = std::make_shared<JtCrashLogFile>();
    bare->type = 1;
    request = requestWithJtCrashLogFile(bare);
    ASSERT_TRUE(request);
    EXPECT_EQ(request->url.absoluteString(), backend_.httpBase() + "/post.php?ver=(null)&addr=0&code=0");
    EXPECT_EQ(request->httpBody, "stack=dHlwZToxCihudWxsKQoobnVsbCk=");
}

TEST_F(CrashUpload, AnOperationClearsItsQueueWhenDone) {
    auto queue = std::make_shared<OperationQueue>();
    auto operation = std::make_shared<JtCrashReportOperation>(record("missing.json").string(), session_);
    operation->setQueue(queue);
    EXPECT_EQ(operation->queue(), queue);
    queue->addOperation(operation);
    ASSERT_TRUE(queue->waitUntilAllOperationsAreFinished(10));
    EXPECT_TRUE(operation->isFinished());
    EXPECT_EQ(operation->queue(), nullptr);
    EXPECT_TRUE(backend_.requests().empty());
}

}  // namespace
}  // namespace tessrakite::test
