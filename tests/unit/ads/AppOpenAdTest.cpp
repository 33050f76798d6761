#include <gtest/gtest.h>

#include <tessrakite/ads/AppOpenAd.hpp>

#include "AdFixture.hpp"

namespace tessrakite {
namespace {

using test::Answer;

struct Listener : AppOpenAdDelegate {
    void didFailToLoadAd() override { calls.push_back("didFailToLoadAd"); }
    void addWillPresentFullScreenContent() override { calls.push_back("addWillPresentFullScreenContent"); }
    void adDidDismissFullScreenContent() override { calls.push_back("adDidDismissFullScreenContent"); }
    std::vector<std::string> calls;  // main queue only
};

class AppOpen : public test::AdFixture {
protected:
    void SetUp() override {
        AdFixture::SetUp();
        backend->on("GET", "/img/ad.png", Answer::text(pngBytes()).header("Content-Type", "image/png"));
        backend->on("GET", "/img/missing.png", Answer::withStatus(404));
        backend->on("GET", "/img/not-an-image.png", Answer::text("<html>busy</html>"));
        headless.effects->setSink([this](const std::string& name, const Json&) { effects.push_back(name); });
        headless.window->setRootViewController(root);
        headless.window->makeKeyAndVisible();
        startWithAds();
        ad->delegate = listener;
    }
    /// Serves one creative: the image at `imagePath`, l2 "abc", view and impression trackers.
    void serve(const std::string& imagePath, Json extra = Json::object()) {
        Json md = {{"l2", "abc"},
                   {"img", backend->httpBase() + imagePath},
                   {"title", "Fresh coffee"},
                   {"url", "https://example.com/landing?id=${l2}"},
                   {"cpm_t", {backend->httpBase() + "/t/imp?v=${l2}"}},
                   {"cpv_t", {backend->httpBase() + "/t/view?v=${l2}"}}};
        md.update(extra);
        serveFeed(md);
    }
    /// Loads and waits; the time the image arrived.
    double loadReady() {
        serve("/img/ad.png");
        ad->loadAppOpenAd("App_Open");
        pump();
        EXPECT_TRUE(ad->isObjetReady);
        backend->clearRequests();
        listener->calls.clear();
        return clock->now();
    }

    std::shared_ptr<platform::ViewController> root = std::make_shared<platform::ViewController>();
    std::shared_ptr<AppOpenAd> ad = std::make_shared<AppOpenAd>();
    std::shared_ptr<Listener> listener = std::make_shared<Listener>();
    std::vector<std::string> effects;
};

TEST_F(AppOpen, AReadyAdIsShownForFourHoursThenALoadStartsInstead) {
    struct Case {
        const char* name;
        bool load;
        double age;
        bool shown;
    };
    for (const auto& c : {Case{"saved 14400 s ago", true, 14400, true}, Case{"saved 14401 s ago", true, 14401, false},
                          Case{"never loaded", false, 0, false}}) {
        SCOPED_TRACE(c.name);
        ad = std::make_shared<AppOpenAd>();
        ad->delegate = listener;
        ad->placementId = "App_Open";
        clock->set(kStartTime);
        if (c.load) clock->set(loadReady() + c.age);
        effects.clear();
        backend->clearRequests();

        EXPECT_EQ(ad->checkForAd().has_value(), c.shown);
        ad->tryDisplayAd(root);
        EXPECT_EQ(effects, c.shown ? std::vector<std::string>{"present"} : std::vector<std::string>{});
        EXPECT_EQ(ad->isLoading, !c.shown) << "a stale or missing ad starts a load";
        pump();
        EXPECT_EQ(backend->requestsTo(kFeedPath).size(), c.shown ? 0u : 1u);
        if (c.shown) root->dismiss(false);
    }
}

TEST_F(AppOpen, OneLoadAtATimeThenTheShownAdFiresItsViewTrackerAndDismissalReloadsAtOnce) {
    serve("/img/ad.png");
    ad->loadAppOpenAd("App_Open");
    ad->loadAppOpenAd("App_Open");  // a second load while one runs sends nothing
    pump();
    const auto feeds = backend->requestsTo(kFeedPath);
    ASSERT_EQ(feeds.size(), 1u);
    EXPECT_EQ(feeds[0].param("as"), "App_Open");
    EXPECT_EQ(trackerHits(), std::vector<std::string>{"/t/imp?v=abc"});
    EXPECT_EQ(listener->calls, std::vector<std::string>{"addWillPresentFullScreenContent"});
    backend->clearRequests();
    listener->calls.clear();

    ad->tryDisplayAd(root);
    ASSERT_TRUE(ad->appOpenController);
    pump();
    EXPECT_EQ(trackerHits(), std::vector<std::string>{"/t/view?v=abc"});
    backend->clearRequests();

    EXPECT_TRUE(ad->appOpenController->appOpenAdView->continueButton()->tap());
    EXPECT_FALSE(ad->isPresented);
    EXPECT_TRUE(ad->isLoading) << "the next ad loads right after the dismissal";
    EXPECT_EQ(effects.back(), "dismiss");
    EXPECT_EQ(listener->calls,
              (std::vector<std::string>{"addWillPresentFullScreenContent", "adDidDismissFullScreenContent",
                                        "addWillPresentFullScreenContent"}));
    pump();
    EXPECT_EQ(backend->requestsTo(kFeedPath).size(), 1u);
    EXPECT_TRUE(ad->isObjetReady);
}

TEST_F(AppOpen, AnImageThatCannotBeHadLeavesNoAdAndTellsTheDelegate) {
    for (const char* path : {"/img/missing.png", "/img/not-an-image.png"}) {
        SCOPED_TRACE(path);
        listener->calls.clear();
        serve(path);
        ad->loadAppOpenAd("App_Open");
        pump();
        EXPECT_EQ(listener->calls,
                  (std::vector<std::string>{"addWillPresentFullScreenContent", "didFailToLoadAd"}));
        EXPECT_FALSE(ad->isLoading);
        EXPECT_FALSE(ad->checkForAd());
    }
}

TEST_F(AppOpen, ATapFiresTheClickTrackerOrSaysThereIsNoneThenOpensTheLandingPage) {
    struct Case {
        const char* name;
        Json extra;
        std::vector<std::string> hits;
        bool noTrackerLine;
    };
    const std::vector<Case> cases = {
        {"click tracker", {{"cpc_t", {backend->httpBase() + "/t/click?v=${l2}"}}}, {"/t/click?v=abc"}, false},
        {"none", Json::object(), {}, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ad = std::make_shared<AppOpenAd>();
        serve("/img/ad.png", c.extra);
        ad->loadAppOpenAd("App_Open");
        pump();
        ad->tryDisplayAd(root);
        ASSERT_TRUE(ad->appOpenController);
        pump();
        backend->clearRequests();
        const auto opened = headless.application->openedURLs().size();
        console->clear();

        EXPECT_TRUE(ad->appOpenController->appOpenAdView->adImageView()->tap());
        pump();
        EXPECT_EQ(trackerHits(), c.hits);
        EXPECT_EQ(console->contains("No click tracker"), c.noTrackerLine);
        ASSERT_EQ(headless.application->openedURLs().size(), opened + 1);
        EXPECT_EQ(headless.application->openedURLs().back(), "https://example.com/landing?id=abc");
        root->dismiss(false);
    }
}

}  // namespace
}  // namespace tessrakite
