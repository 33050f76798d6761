#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <regex>
#include <thread>

#include <tessrakite/core/TessraBuilder.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/platform/ViewController.hpp>

#include "SdkFixture.hpp"
#include "core/FacadeState.hpp"

namespace tessrakite {
namespace {

using test::Answer;

/// A backend next door: every request is answered at once from a thread of its own, the
/// document GET with `document`, a post with 201.
class InstantSession final : public platform::UrlSession {
public:
    explicit InstantSession(std::string document) : document_(std::move(document)) {}
    ~InstantSession() override {
        std::vector<std::thread> threads;
        {
            std::lock_guard lock(mutex_);
            threads.swap(threads_);
        }
        for (auto& t : threads) t.join();
    }
    void dataTask(platform::UrlRequest request, Completion completion) override {
        ++inFlight_;
        std::lock_guard lock(mutex_);
        threads_.emplace_back([this, get = request.httpMethod == "GET", completion = std::move(completion)] {
            platform::UrlResult result;
            result.response = platform::HttpResponse{get ? 200 : 201, {}};
            const std::string body = get ? document_ : "{}";
            result.data = Data(body.begin(), body.end());
            completion(result);
            --inFlight_;
        });
    }
    platform::UrlResult sendSynchronous(const platform::UrlRequest&) override { return {}; }
    std::size_t inFlight() const override { return inFlight_; }
    bool waitIdle(double seconds) override {
        const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (inFlight_ > 0 && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return inFlight_ == 0;
    }

private:
    const std::string document_;
    std::atomic<std::size_t> inFlight_{0};
    std::mutex mutex_;
    std::vector<std::thread> threads_;
};

class Startup : public test::SdkFixture {
protected:
    /// A later launch of the same installation: new process state, same store.
    void relaunch() {
        detail::resetFacadeForTesting();
        backend->clearRequests();
        console->clear();
    }
};

TEST_F(Startup, FirstStartFetchesTheDocumentThenReportsInstallAndOpen) {
    start();
    auto requests = backend->requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].target(), "/tag/demo-key.json");
    EXPECT_EQ(requests[1].target(), "/v2/activity?type=mobile");
    EXPECT_EQ(activityCodes(), (std::vector<std::int64_t>{200, 205}));
    EXPECT_TRUE(console->contains("INSTALL SENT  201"));
    EXPECT_EQ(storage().getStringFromStorage(StorageKey::lastModified), "Tue, 14 Nov 2023 22:13:20 GMT");
}

TEST_F(Startup, SecondStartIsANewSessionThatSendsTheStoredDateAndAnUnchangedDocumentKeepsItsCache) {
    start();
    const auto autoconf = storage().getStringFromStorage(StorageKey::autoconf);
    const auto lastModified = storage().getStringFromStorage(StorageKey::lastModified);
    const auto uniq = storage().getStringFromStorage(StorageKey::uniqSessionId).value_or("");
    EXPECT_TRUE(std::regex_match(uniq, std::regex(R"(1700000000\.[0-9]{10})"))) << uniq;
    relaunch();
    clock->advance(3600);
    serveConfig(Answer::withStatus(304));
    start();
    EXPECT_EQ(storage().getIntFromStorage(StorageKey::sessionNum), 2);
    EXPECT_EQ(storage().getStringFromStorage(StorageKey::sessionId), "1700003600");
    EXPECT_EQ(storage().getStringFromStorage(StorageKey::uniqSessionId), uniq);
    EXPECT_EQ(backend->requests()[0].header("If-Modified-Since"), lastModified);
    EXPECT_EQ(storage().getStringFromStorage(StorageKey::autoconf), autoconf);
    EXPECT_EQ(storage().getStringFromStorage(StorageKey::lastModified), lastModified);
    EXPECT_EQ(activityCodes(), (std::vector<std::int64_t>{205}));
    EXPECT_TRUE(console->contains("ENTER OPEN ACTIVITY"));
}

TEST_F(Startup, FailedInstallationIsReportedAgainAtTheNextStart) {
    serveActivity(Answer::withStatus(500));
    start();
    EXPECT_TRUE(console->contains("error Install code"));
    EXPECT_NE(storage().getBool(StorageKey::reg), true);
    EXPECT_EQ(activityCodes(), (std::vector<std::int64_t>{200}));

    relaunch();
    serveActivity(Answer::json("{}", 201));
    start();
    EXPECT_EQ(activityCodes(), (std::vector<std::int64_t>{200, 205}));
}

TEST_F(Startup, OfflineStartStillFinishesWithTheHostConfiguration) {
    ::setenv("TESSRA_CDN_HOST", "127.0.0.1:1", 1);  // nothing listens there
    start();
    EXPECT_TRUE(TessraQuill::initialized());
    ASSERT_TRUE(TessraQuill::config());
    bool printed = false;
    for (const auto& line : console->lines()) printed |= line.rfind("Error took place ", 0) == 0;
    EXPECT_TRUE(printed);
    EXPECT_FALSE(storage().getStringFromStorage(StorageKey::autoconf).has_value());
}

TEST_F(Startup, TheDocumentMovesEndpointsItNamesAndKeepsTheOthers) {
    const auto users = "https://" + backend->httpsHost() + "/v2/users?type=mobile";
    serveConfig(Answer::json(R"({"consent": true, "analytics": true, "push_config": {"enabled": true},
        "url": {"activity": "https://)" + backend->httpsHost() + R"(/v3/activity", "user": "", "crash": "http://crash.example/post"}})"));
    backend->on("POST", "/v3/activity", Answer::json("{}", 201));
    start();
    EXPECT_EQ(storage().getStringFromStorage(StorageKey::userUrl), users);
    EXPECT_EQ(storage().getBool(StorageKey::consent), true);
    EXPECT_EQ(backend->requestsTo("/v3/activity").size(), 2u);
}

TEST_F(Startup, DocumentSwitchesAreStoredForTheExtensions) {
    serveConfig(Answer::json(R"({"analytics": false, "push_config": {"enabled": true}})"));
    TessraQuill::initialize(TessraBuilder(std::string(kApiKey)).analytics(true).build());
    pump();
    EXPECT_EQ(storage().getBool(StorageKey::analytics), false);
    // The host's own object stays the active configuration.
    EXPECT_TRUE(TessraQuill::config()->analytics());
    EXPECT_TRUE(activityPosts().empty());
}

TEST_F(Startup, FirstStartKeepsTheEndpointsOfAnImmediateAnswer) {
    const std::string moved = "https://moved.example/v9/activity?type=mobile";
    headless = platform::headless::makeHeadlessPlatform(
        {clock, std::make_shared<InstantSession>(R"({"analytics": true, "url": {"activity": ")" + moved + R"("}})")});
    platform::setCurrentPlatform(headless.platform);
    for (std::int64_t launch = 1; launch <= 40; ++launch) {
        relaunch();
        TessraQuill::clearInstallationData();  // every launch is a first start
        TessraQuill::initialize(TessraBuilder(std::string(kApiKey)).build());
        // A host reading the session right after the call sees this launch's.
        EXPECT_EQ(storage().getIntFromStorage(StorageKey::sessionNum), launch);
        pump();
        ASSERT_EQ(storage().getStringFromStorage(StorageKey::activityUrl), moved) << "launch " << launch;
    }
}

TEST_F(Startup, ADocumentWithoutSwitchesKeepsTheHostsChoices) {
    serveConfig(Answer::json(R"({"consent": false})"));
    storage().set(StorageKey::schId, "reminder-1");  // the reminder an earlier launch scheduled
    TessraQuill::initialize(TessraBuilder(std::string(kApiKey)).analytics(false).scheduleNotifications(3600).build());
    pump();
    EXPECT_EQ(storage().getBool(StorageKey::analytics), false);
    EXPECT_TRUE(activityPosts().empty());
    EXPECT_EQ(storage().getScheduledId(), "reminder-1");
    EXPECT_EQ(storage().getScheduledTime(), 3600.0);
}

TEST_F(Startup, AKeyThatIsNotUrlSafeStillNamesItsDocument) {
    backend->on("GET", "/tag/*", Answer::json(R"({"analytics": true})"));
    const std::pair<std::string, std::string> cases[] = {
        {"demo key", "/tag/demo%20key.json"},
        {"a#b?c=d", "/tag/a%23b%3Fc%3Dd.json"},
        {"\xD0\xBA/1%", "/tag/%D0%BA%2F1%25.json"},
        {"key\n", ""},  // an Info.plist's trailing newline: the server refuses the name, start-up goes on
    };
    for (const auto& [key, target] : cases) {
        relaunch();
        TessraQuill::initialize(TessraBuilder(key).build());
        pump();
        EXPECT_TRUE(TessraQuill::initialized()) << key;
        auto requests = backend->requests();
        if (target.empty()) continue;
        ASSERT_FALSE(requests.empty()) << key;
        EXPECT_EQ(requests[0].target(), target);
    }
}

TEST_F(Startup, EmptyKeyPrintsTheBannerButStillCountsTheSession) {
    TessraQuill::initialize(TessraBuilder(std::string()).build());
    // Both before the call returns.
    EXPECT_TRUE(console->contains("\n***************\n Missing ApiKey! \n***************\n"));
    EXPECT_EQ(storage().getIntFromStorage(StorageKey::sessionNum), 1);
    pump();
    EXPECT_FALSE(TessraQuill::initialized());
    EXPECT_TRUE(backend->requests().empty());
    EXPECT_TRUE(platform::ViewController::appearanceHooksInstalled());
}

TEST_F(Startup, FirstStartWritesTheDefaultEndpointsAndClearingInstallationWritesThemAgain) {
    start();
    const auto activity = "https://" + backend->httpsHost() + "/v2/activity?type=mobile";
    EXPECT_EQ(storage().getStringFromStorage(StorageKey::configUrl), "https://" + backend->httpsHost() + "/tag");
    storage().set(StorageKey::activityUrl, "https://elsewhere.invalid/a");

    TessraQuill::clearInstallationData();
    EXPECT_EQ(storage().getBool(StorageKey::reg), false);
    EXPECT_FALSE(headless.application->isRegisteredForRemoteNotifications());
    relaunch();
    start();
    EXPECT_EQ(storage().getStringFromStorage(StorageKey::activityUrl), activity);
    EXPECT_EQ(activityCodes(), (std::vector<std::int64_t>{200, 205}));
}

TEST_F(Startup, InvalidConfigurationBaseIsAFatalStop) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    storage().set(StorageKey::reg, true);
    storage().set(StorageKey::configUrl, "not a url");
    EXPECT_DEATH(
        {
            TessraQuill::initialize(TessraBuilder(std::string(kApiKey)).build());
            pump();
        },
        "Fatal error: The configuration base URL \"not a url\"");
}

}  // namespace
}  // namespace tessrakite
