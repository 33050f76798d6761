#include <gtest/gtest.h>

#include <chrono>

#include <tessrakite/core/TessraBuilder.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/core/TessraRequest.hpp>
#include <tessrakite/platform/ViewController.hpp>

#include "SdkFixture.hpp"
#include "core/FacadeState.hpp"

namespace tessrakite {
namespace {

using test::Answer;
using nlohmann::ordered_json;

class Reports : public test::SdkFixture {};

struct HomeScreen : platform::ViewController {};
struct SettingsUINavigationController : platform::ViewController {};
struct NamedScreen : platform::ViewController {
    explicit NamedScreen(std::string n) : name(std::move(n)) {}
    std::string typeName() const override { return name; }
    std::string name;
};

TEST_F(Reports, OpenReportCarriesTheAppTheSessionAndTheKeyAndItsCounterFallsToItsFloorAndRisesOnFailure) {
    start();
    auto posts = activityPosts();
    ASSERT_EQ(posts.size(), 2u);
    const auto& open = posts[1];
    EXPECT_EQ(open["code"], 205);
    EXPECT_EQ(open["app"], "com.example.sample");
    EXPECT_EQ(open["dl"], "app://com.example.sample/open");
    EXPECT_EQ(open["e"]["utm_ht"], "demo-key");
    EXPECT_EQ(open["cs"], (ordered_json{{"ns", 1},
                                        {"sid", "1700000000"},
                                        {"scn", 0},
                                        {"cid", storage().getStringFromStorage(StorageKey::uniqSessionId).value()}}));

    struct Case {
        std::optional<std::int64_t> before;
        bool reachable;
        std::optional<std::int64_t> after;
    };
    const Case cases[] = {{1, true, 1}, {5, true, 4}, {std::nullopt, true, std::nullopt}, {5, false, 6},
                          {std::nullopt, false, 1}};
    for (const auto& c : cases) {
        if (c.before)
            storage().set(StorageKey::openCounter, *c.before);
        else
            storage().remove(StorageKey::openCounter);
        if (!c.reachable) storage().set(StorageKey::activityUrl, "https://127.0.0.1:1/v2/activity");
        TessraQuill::tessraSendActivity(ActivityCode::open, {});
        pump();
        EXPECT_EQ(storage().getIntFromStorage(StorageKey::openCounter), c.after)
            << c.before.value_or(-1) << (c.reachable ? " reachable" : " unreachable");
        storage().set(StorageKey::activityUrl, "https://" + backend->httpsHost() + "/v2/activity?type=mobile");
    }
}

TEST_F(Reports, ScreenViewsReportTheScreensTypeAndSkipSystemControllers) {
    start();
    backend->clearRequests();
    HomeScreen home;
    SettingsUINavigationController navigation;
    NamedScreen keyboard("UIInputWindowController");
    NamedScreen profile("ProfileScreen");
    for (platform::ViewController* c : std::initializer_list<platform::ViewController*>{&home, &navigation, &keyboard, &profile}) {
        c->viewDidAppear(true);
        c->viewDidDisappear(true);
    }
    pump();
    auto posts = activityPosts();
    ASSERT_EQ(posts.size(), 2u);
    EXPECT_EQ(posts[0]["u"], home.typeName());
    EXPECT_NE(home.typeName().find("HomeScreen"), std::string::npos);
    EXPECT_EQ(posts[0]["cs"]["scn"], 1);
    EXPECT_EQ(posts[1]["u"], "ProfileScreen");
    EXPECT_EQ(posts[1]["cs"]["scn"], 2);
    EXPECT_EQ(TessraQuill::referrerPage(), home.typeName());

    // A second initialize turns screen tracking off.
    TessraQuill::initialize(TessraBuilder(std::string(kApiKey)).build());
    pump();
    backend->clearRequests();
    NamedScreen("Home").viewDidAppear(true);
    pump();
    EXPECT_TRUE(activityPosts().empty());
}

TEST_F(Reports, AnalyticsOffSendsAndKeepsNothingAndCountsNoScreens) {
    serveConfig(Answer::json(R"({"analytics": false, "push_config": {"enabled": true}})"));
    start(false, true);
    TessraQuill::track({{"a", 1}});
    EXPECT_TRUE(TessraQuill::getTrack().empty());
    NamedScreen("Home").viewDidAppear(true);
    TessraQuill::sendCustomEvent("purchase", PlistDictionary{{"sku", "a1"}});
    TessraQuill::tessraSendGeneralActivity(ActivityCode::notificationsRefused);
    pump();
    EXPECT_TRUE(activityPosts().empty());
    EXPECT_EQ(storage().getIntFromStorage(StorageKey::visitedPCount), 0);
}

TEST_F(Reports, CustomEventsAndNumberedActivities) {
    start();
    backend->clearRequests();
    TessraQuill::sendCustomEvent("purchase", PlistDictionary{{"sku", "a1"}, {"price", 9.5}});
    TessraQuill::tessraSendGeneralActivity(ActivityCode::notificationsRefused);
    pump();
    auto posts = activityPosts();
    ASSERT_EQ(posts.size(), 2u);
    // Two connections may carry them: they can arrive in either order.
    if (posts[0]["code"] != 205) std::swap(posts[0], posts[1]);
    EXPECT_EQ(posts[0]["msg"], "purchase");
    EXPECT_EQ(posts[0]["e"], (ordered_json{{"purchase", {{"price", 9.5}, {"sku", "a1"}}}}));
    EXPECT_EQ(posts[1]["code"], 501);

    serveActivity(Answer::withStatus(400));
    TessraQuill::sendCustomEvent("purchase", PlistValue(3));
    pump();
    EXPECT_TRUE(console->contains("error from custom event"));
    EXPECT_EQ(activityPosts().back()["e"], (ordered_json{{"purchase", {{"value", 3}}}}));
}

TEST_F(Reports, CampaignParametersAndScreenViewsBeforeAndAfterStartUp) {
    TessraQuill::tessraSendActivitySwizzle(205, "Home");
    EXPECT_TRUE(console->contains(detail::kInitializeBanner));
    TessraQuill::setUtm("source", "news");  // allowed before start-up
    EXPECT_EQ(TessraQuill::getUtm("source"), "Tessra not initialized");
    TessraQuill::removeUtm("source");
    start();
    EXPECT_EQ(TessraQuill::getUtm("source"), "news");
    EXPECT_EQ(TessraQuill::getUtm("medium"), "Error! Key: medium does not exist");
    TessraQuill::removeUtm("source");
    EXPECT_EQ(TessraQuill::getUtm("source"), "Error! Key: source does not exist");
    EXPECT_EQ(activityPosts()[0]["e"]["utm_source"], "news");
}

TEST_F(Reports, SessionEndsOnlyAtTerminationAndWaitsOnlyForItsReports) {
    start();
    auto center = headless.notificationCenter;
    namespace N = platform::AppNotification;
    center->post(N::didBecomeActive);  // the first activation only opens the session
    center->post(N::willResignActive);
    center->post(N::didEnterBackground);
    EXPECT_EQ(headless.application->activeBackgroundTasks(), std::vector<std::string>{"ksession"});
    center->post(N::didBecomeActive);
    EXPECT_TRUE(headless.application->activeBackgroundTasks().empty());

    center->post(N::didEnterBackground);
    backend->on("POST", "/v2/activity", Answer::json("{}", 201).after(std::chrono::milliseconds(300)));
    NamedScreen("Last").viewDidAppear(true);
    const auto begin = std::chrono::steady_clock::now();
    center->post(N::willTerminate);
    const auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(console->count("Session ended  2023-11-14 22:13:20 +0000"), 1u);
    EXPECT_EQ(backend->requestsTo("/v2/activity").size(), 3u);  // the screen view went out before the end
    EXPECT_LT(waited, std::chrono::seconds(10));
}

class Tracking : public test::SdkFixture {
protected:
    struct Outcome {
        std::optional<std::int64_t> status;
        std::optional<std::string> text;
        std::optional<platform::UrlError> error;
    };
    std::vector<Outcome> outcomes;
    TessraQuill::ExtraClsr recorder() {
        return [this](auto status, auto text, auto error) { outcomes.push_back({status, text, error}); };
    }
    std::size_t trackingPosts() {
        std::size_t n = 0;
        for (const auto& body : activityPosts()) n += body["u"] == "track";
        return n;
    }
};

TEST_F(Tracking, UnchangedMapIsPostedOnceUntilRemoved) {
    start();
    TessraQuill::track({{"a", 1}, {"b", true}, {"c", "x"}});
    EXPECT_EQ(TessraQuill::getTrackFor("z"), "Error! Key: z does not exist");
    TessraQuill::sendTrack(recorder());
    pump();
    TessraQuill::sendTrack(recorder());
    pump();
    EXPECT_EQ(trackingPosts(), 1u);
    ASSERT_EQ(outcomes.size(), 1u);
    EXPECT_EQ(outcomes[0].status, 201);
    EXPECT_EQ(outcomes[0].text, "Success");
    EXPECT_EQ(activityPosts().back()["e"], (ordered_json{{"a", "1"}, {"b", "true"}, {"c", "x"}}));

    TessraQuill::removeTrack();
    TessraQuill::sendTrack(recorder());
    pump();
    EXPECT_EQ(trackingPosts(), 2u);
    TessraQuill::removeTrackFor("a");
    EXPECT_TRUE(console->contains("Value for key: a successfully removed"));
}

TEST_F(Tracking, TransportErrorsAreRetriedThenReportedAndStatusErrorsAreNot) {
    start();
    serveActivity(Answer::withStatus(500));
    TessraQuill::track({{"a", 1}});
    TessraQuill::sendTrack(recorder());
    pump();
    ASSERT_EQ(outcomes.size(), 1u);
    EXPECT_EQ(outcomes[0].status, 500);
    EXPECT_EQ(outcomes[0].text, "Failed");
    EXPECT_EQ(trackingPosts(), 1u);

    storage().set(StorageKey::activityUrl, "https://127.0.0.1:1/v2/activity");
    TessraQuill::track({{"a", 2}});
    TessraQuill::sendTrack(recorder());
    for (int i = 0; i < 20; ++i) headless.platform->runLoop->runFor(0.5);
    ASSERT_EQ(outcomes.size(), 2u);
    EXPECT_TRUE(outcomes[1].error.has_value());
    EXPECT_EQ(TessraQuill::sendTrackCounter(), 0);
}

TEST_F(Tracking, PushOffPrintsTheBannerAndCallsNothing) {
    serveConfig(Answer::json(R"({"analytics": true})"));
    start(true, false);
    TessraQuill::track({{"a", 1}});
    TessraQuill::sendTrack(recorder());
    pump();
    EXPECT_TRUE(console->contains("Notification service is not enabled"));
    EXPECT_TRUE(outcomes.empty());
    EXPECT_EQ(trackingPosts(), 0u);
}

TEST_F(Tracking, TestTrackPostsAtOnceAndTouchesNothing) {
    start();
    TessraQuill::track({{"kept", 1}});
    TessraQuill::sendCustomTestTrack({{"probe", 2}}, recorder());
    pump();
    ASSERT_EQ(outcomes.size(), 1u);
    EXPECT_EQ(outcomes[0].status, 201);
    EXPECT_EQ(activityPosts().back()["e"], (ordered_json{{"probe", "2"}}));
    EXPECT_EQ(TessraQuill::getTrack(), (std::map<std::string, std::string>{{"kept", "1"}}));
    EXPECT_FALSE(storage().getArayOfStringDictsFromStorage(StorageKey::exPaDict).has_value());
    EXPECT_EQ(TessraQuill::sendTrackCounter(), 5);
}

}  // namespace
}  // namespace tessrakite
