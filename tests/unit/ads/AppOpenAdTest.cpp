#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include <tessrakite/ads/AppOpenAd.hpp>
#include <tessrakite/core/TessraBuilder.hpp>
#include <tessrakite/core/TessraQuill.hpp>

#include "SdkFixture.hpp"

namespace tessrakite {
namespace {

using test::Answer;
using Json = nlohmann::ordered_json;

constexpr const char* kFeedPath = "/v1/display/track-1";

struct Listener : AppOpenAdDelegate {
    void didFailToLoadAd() override { calls.push_back("didFailToLoadAd"); }
    void addWillPresentFullScreenContent() override { calls.push_back("addWillPresentFullScreenContent"); }
    void adDidDismissFullScreenContent() override { calls.push_back("adDidDismissFullScreenContent"); }
    std::vector<std::string> calls;  // main queue only
};

class AppOpen : public test::SdkFixture {
protected:
    void SetUp() override {
        SdkFixture::SetUp();
        test::installMainBundle(home->path(), "com.example.sample", {{"TessraQuillTrackID", PlistValue("track-1")}});
        ::setenv("TESSRA_AD_HOST", backend->httpHost().c_str(), 1);
        backend->on("GET", "/t/*", Answer::withStatus(204));
        backend->on("GET", "/img/ad.png", Answer::text(png()).header("Content-Type", "image/png"));
        backend->on("GET", "/img/missing.png", Answer::withStatus(404));
        backend->on("GET", "/img/not-an-image.png", Answer::text("<html>busy</html>"));
        headless.effects->setSink([this](const std::string& name, const Json&) { effects.push_back(name); });
        headless.window->setRootViewController(root);
        headless.window->makeKeyAndVisible();
        TessraQuill::initialize(TessraBuilder{std::string(kApiKey)}.mavo().analytics(false).build());
        pump();
        ad->delegate = listener;
    }
    void TearDown() override {
        headless.effects->setSink(nullptr);
        SdkFixture::TearDown();
        ::unsetenv("TESSRA_AD_HOST");
    }
    std::string png() const {
        std::shared_ptr<std::uint8_t> pixels(new std::uint8_t[2 * 2 * 4](), std::default_delete<std::uint8_t[]>());
        const auto file = home->path() / "ad.png";
        EXPECT_FALSE(platform::Image(2, 2, pixels).writePNG(file));
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
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
        backend->on("GET", kFeedPath, Answer::json(Json{{"items", Json::array({{{"md", md}}})}}.dump()));
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
    std::vector<std::string> trackerHits() const {
        std::vector<std::string> hits;
        for (const auto& r : backend->requests())
            if (r.path.rfind("/t/", 0) == 0) hits.push_back(r.target());
        return hits;
    }
    bool printed(const std::string& line) const {
        const auto lines = console->lines();
        return std::find(lines.begin(), lines.end(), line) != lines.end();
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
        EXPECT_EQ(ad->isPresented, c.shown);
        EXPECT_EQ(ad->isLoading, !c.shown) << "a stale or missing ad starts a load";
        pump();
        EXPECT_EQ(backend->requestsTo(kFeedPath).size(), c.shown ? 0u : 1u);
        if (c.shown) root->dismiss(false);
    }
}

TEST_F(AppOpen, ASecondLoadWhileOneRunsSendsNothing) {
    serve("/img/ad.png");
    ad->loadAppOpenAd("App_Open");
    ad->loadAppOpenAd("App_Open");
    pump();
    EXPECT_EQ(backend->requestsTo(kFeedPath).size(), 1u);
    EXPECT_EQ(backend->requestsTo(kFeedPath)[0].param("as"), "App_Open");
    EXPECT_EQ(listener->calls, std::vector<std::string>{"addWillPresentFullScreenContent"});
    EXPECT_TRUE(ad->isObjetReady);
    EXPECT_EQ(trackerHits(), std::vector<std::string>{"/t/imp?v=abc"});
}

TEST_F(AppOpen, ShownAdFiresItsViewTrackerAndDismissalReloadsAtOnce) {
    loadReady();
    ad->tryDisplayAd(root);
    ASSERT_TRUE(ad->appOpenController);
    pump();
    EXPECT_EQ(trackerHits(), std::vector<std::string>{"/t/view?v=abc"});
    backend->clearRequests();

    EXPECT_TRUE(ad->appOpenController->appOpenAdView->continueButton()->tap());
    EXPECT_FALSE(ad->isPresented);
    EXPECT_FALSE(ad->isObjetReady);
    EXPECT_FALSE(ad->appOpenController);
    EXPECT_FALSE(ad->mavoObject);
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
        EXPECT_FALSE(ad->isObjetReady);
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
        EXPECT_EQ(printed("No click tracker"), c.noTrackerLine);
        ASSERT_EQ(headless.application->openedURLs().size(), opened + 1);
        EXPECT_EQ(headless.application->openedURLs().back(), "https://example.com/landing?id=abc");
        root->dismiss(false);
    }
}

}  // namespace
}  // namespace tessrakite
