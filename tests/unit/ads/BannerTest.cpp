#include <gtest/gtest.h>

#include <tessrakite/ads/BannerView.hpp>
#include <tessrakite/platform/Image.hpp>
#include <tessrakite/platform/ViewController.hpp>

#include "AdFixture.hpp"
#include "GifBuilder.hpp"

namespace tessrakite {
namespace {

using test::Answer;

/// Every delegate call as its name, with the thread it came on.
struct Recorder : AdBannerDelegate, test::CallLog {
    void adBannerDidReceiveAd(BannerView&) override { note("received"); }
    void bannerView(BannerView&, const TessraRequest::AdError&) override { note("failed"); }
    void adBannerWillPresentScreen(BannerView&) override { note("willPresent"); }
    void adBannerWillDismissScreen(BannerView&) override { note("willDismiss"); }
    void adBannerWillLeaveApplication(BannerView&) override { note("willLeave"); }
    void adBannerClosed(BannerView&) override { note("closed"); }
};

class Banner : public test::AdFixture {
protected:
    void SetUp() override {
        AdFixture::SetUp();
        headless.window->windowSafeAreaInsets = {47, 0, 34, 0};
        headless.window->setRootViewController(screen);
        startWithAds();
    }
    /// A banner on the screen, laid out, as a host adds one.
    std::shared_ptr<BannerView> place(BannerSize size = BannerSize::small, bool closeIcon = false) {
        auto banner = std::make_shared<BannerView>(size, "Mobile_Banner", closeIcon, recorder);
        screen->view()->addSubview(banner);
        headless.window->layoutIfNeeded();
        return banner;
    }
    /// Serves a feed whose creative is `img` (a path on the backend), with every tracker.
    void serveAd(const std::string& img) {
        const auto base = backend->httpBase();
        serveFeed({{"l2", "abc"},
                   {"img", base + img},
                   {"url", base + "/landing?c=${l2}"},
                   {"cpm_t", {base + "/t/imp?x=${l2}"}},
                   {"cpv_t", {base + "/t/view?x=${l2}"}},
                   {"cpc_t", {base + "/t/click?x=${l2}"}}});
    }

    std::shared_ptr<platform::ViewController> screen = std::make_shared<platform::ViewController>();
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
};

TEST_F(Banner, SizesFollowTheTableAndAdaptiveFollowsTheScreenHeight) {
    struct Case {
        BannerSize size;
        double screenHeight;
        platform::Size expected;
    };
    const std::vector<Case> cases = {
        {BannerSize::large, 844, {320, 250}},   {BannerSize::adaptive, 667, {320, 32}},
        {BannerSize::adaptive, 844, {320, 50}}, {BannerSize::adaptive, 926, {320, 90}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.screenHeight);
        headless.screen->setBounds({0, 0, 390, c.screenHeight});
        BannerView banner(c.size, "id", false, {});
        EXPECT_EQ(banner.bannerCGSize, c.expected);
    }
}

TEST_F(Banner, SitsCentredOnTheSafeAreaBottomBeforeAndAfterTurning) {
    for (bool closeIcon : {false, true}) {
        SCOPED_TRACE(closeIcon);
        headless.device->setOrientation(platform::DeviceOrientation::portrait);
        auto banner = place(BannerSize::small, closeIcon);
        EXPECT_EQ(banner->frame, (platform::Rect{35, 844 - 34 - 50, 320, 50}));
        EXPECT_EQ(banner->imageView->frame, (platform::Rect{0, 0, 320, 50}));
        EXPECT_EQ(banner->closeButton->frame, (platform::Rect{295, 5, 15, 15}));
        EXPECT_EQ(banner->closeButton->isHidden, !closeIcon);

        headless.device->setOrientation(platform::DeviceOrientation::landscapeLeft);
        const auto window = headless.window->frame;
        const auto insets = headless.window->safeAreaInsets();
        EXPECT_EQ(banner->frame, (platform::Rect{(844 - 320) / 2.0, window.height - insets.bottom - 50, 320, 50}));
        banner->removeFromSuperview();
    }
}

TEST_F(Banner, AStillCreativeShowsWithItsTrackersAndATapOpensTheLandingPage) {
    serveAd("/img/ad.png");
    // The image answers late, so the impression is surely in before the view.
    backend->on("GET", "/img/ad.png", Answer::text(pngBytes()).after(std::chrono::milliseconds(100)));
    auto banner = place();
    banner->loadAd();
    pump();

    const auto feed = backend->requestsTo(kFeedPath);
    ASSERT_EQ(feed.size(), 1u);
    EXPECT_NE(feed[0].query.find("&as=Mobile_Banner&awh=320x50&ad=320x50&"), std::string::npos) << feed[0].query;
    EXPECT_EQ(recorder->taken(), std::vector<std::string>{"received@main"});
    EXPECT_EQ(trackerHits(), (std::vector<std::string>{"/t/imp?x=abc", "/t/view?x=abc"}));
    EXPECT_FALSE(banner->isHidden);
    ASSERT_TRUE(banner->imageView->image);

    backend->clearRequests();
    banner->loadAd();  // visible: nothing is sent
    pump();
    EXPECT_TRUE(backend->requests().empty());

    EXPECT_TRUE(banner->tap());
    pump();
    EXPECT_EQ(headless.application->openedURLs(), std::vector<std::string>{backend->httpBase() + "/landing?c=abc"});
    EXPECT_EQ(recorder->taken(), std::vector<std::string>{"willPresent@main"});
    EXPECT_EQ(trackerHits(), std::vector<std::string>{"/t/click?x=abc"});
}

TEST_F(Banner, AGifCreativePlaysItsFramesInTheImageView) {
    // As the sandbox's ad.gif: 16 x 16, two frames, looping.
    const auto gif = test::makeGif(16, 16, {{255, 0, 0}, {0, 0, 255}}, 0,
                                   {test::GifFramePlan::filled(0, 0, 16, 16, 0), test::GifFramePlan::filled(0, 0, 16, 16, 1)});
    serveAd("/img/ad.gif");
    backend->on("GET", "/img/ad.gif", Answer::text(std::string(gif.begin(), gif.end())).header("Content-Type", "image/gif"));
    auto banner = place();
    banner->loadAd();
    pump();
    headless.platform->runLoop->runFor(0.05);
    ASSERT_TRUE(banner->imageView->image);
    const auto first = banner->imageView->image;
    headless.platform->runLoop->runFor(0.1);
    EXPECT_NE(banner->imageView->image, first) << "the next frame";
    // Only the still image unhides the banner and counts as a view.
    EXPECT_TRUE(banner->isHidden);
    EXPECT_EQ(trackerHits(), std::vector<std::string>{"/t/imp?x=abc"});

    backend->on("GET", kFeedPath, Answer::dropped());
    banner->loadAd();  // stops the playback before loading again
    pump();
    const auto stopped = banner->imageView->image;
    headless.platform->runLoop->runFor(0.3);
    EXPECT_EQ(banner->imageView->image, stopped);
}

TEST_F(Banner, EventsReachTheDelegateAndCloseHidesAndClears) {
    serveAd("/img/ad.png");
    backend->on("GET", "/img/ad.png", Answer::text(pngBytes()));
    auto observers = [&] {
        return headless.notificationCenter->observerCount(platform::AppNotification::willResignActive) +
               headless.notificationCenter->observerCount(platform::DeviceNotification::orientationDidChange);
    };
    const auto before = observers();
    auto banner = place(BannerSize::small, true);
    banner->loadAd();
    pump();
    recorder->taken();

    headless.notificationCenter->post(platform::AppNotification::willResignActive);
    banner->safariViewControllerDidFinish();
    EXPECT_TRUE(banner->closeButton->tap());
    EXPECT_EQ(recorder->taken(), (std::vector<std::string>{"willLeave@main", "willDismiss@main", "closed@main"}));
    EXPECT_TRUE(banner->isHidden);
    EXPECT_FALSE(banner->imageView->image);

    banner->loadAd();  // closed banners load again
    pump();
    EXPECT_EQ(backend->requestsTo(kFeedPath).size(), 2u);
    EXPECT_FALSE(banner->isHidden);

    banner->removeFromSuperview();
    banner.reset();
    EXPECT_EQ(observers(), before) << "a released banner observes nothing";
}

TEST_F(Banner, AFeedFailureReachesTheDelegateAndIsPrinted) {
    backend->on("GET", kFeedPath, Answer::dropped());
    auto banner = place();
    console->clear();
    banner->loadAd();
    pump();
    EXPECT_EQ(recorder->taken(), std::vector<std::string>{"failed@session"});
    const auto lines = console->lines();
    ASSERT_EQ(lines.size(), 2u) << "the request's line and the banner's";
    EXPECT_EQ(lines[0], lines[1]) << "both the error's description";
    EXPECT_TRUE(banner->isHidden);
}

TEST_F(Banner, LayingOutABannerWithoutAParentIsAFatalStop) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto banner = std::make_shared<BannerView>(BannerSize::small, "id", false, recorder);
    EXPECT_DEATH(banner->layoutIfNeeded(), "Fatal error: BannerView: a banner is laid out only inside a parent view");
}

}  // namespace
}  // namespace tessrakite
