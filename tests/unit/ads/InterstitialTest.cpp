#include <gtest/gtest.h>

#include <tessrakite/BuildConfig.hpp>
#include <tessrakite/ads/InterstitialAD.hpp>
#include <tessrakite/platform/Window.hpp>

#include "AdFixture.hpp"

namespace tessrakite {
namespace {

using test::Answer;
using platform::DeviceOrientation;
using platform::Rect;
namespace Mask = platform::InterfaceOrientationMask;

/// Delegate calls and platform effects in the order they happened.
struct Log : InterstitialDelegate {
    void interstitialWillPresentScreen(InterstitialAD&) override { events.push_back("interstitialWillPresentScreen"); }
    void interstitialWillDismissScreen(InterstitialAD&) override { events.push_back("interstitialWillDismissScreen"); }
    void interstitialWillLeaveApplication(InterstitialAD&) override {
        events.push_back("interstitialWillLeaveApplication");
    }
    void interstitialClosed(InterstitialAD&) override { events.push_back("interstitialClosed"); }
    std::vector<std::string> events;
};

class Interstitial : public test::AdFixture {
protected:
    void SetUp() override {
        AdFixture::SetUp();
        serveFeed({{"l2", "abc"},
                   {"title", "Sandbox ad"},
                   {"url", "http://landing.example/${l2}"},
                   {"cpm_t", {backend->httpBase() + "/t/imp?l2=${l2}"}},
                   {"cpc_t", {backend->httpBase() + "/t/click?l2=${l2}"}}});
        headless.window->setRootViewController(std::make_shared<platform::ViewController>());
        headless.effects->setSink([this](const std::string& name, const Json& args) {
            if (name == "openURL") log->events.push_back("openURL " + args["url"].get<std::string>());
            if (name == "present" || name == "dismiss")
                log->events.push_back(name + (console->contains("CLOSE INTERSTITIAL AD") ? " after the line" : ""));
        });
        startWithAds();
    }
    /// A new ad whose feed answer has arrived, reporting to `log`.
    std::shared_ptr<InterstitialAD> loaded() {
        auto ad = InterstitialAD::create("Mobile_Interstitial");
        ad->setInterstitialDelegate(log);
        pump();
        return ad;
    }
    std::shared_ptr<Log> log = std::make_shared<Log>();
};

TEST_F(Interstitial, TheFeedAsksForTheScreenSizeFiresTheImpressionOnceAndTheAdShowsOnlyWhenReady) {
    auto ad = loaded();
    const auto feeds = backend->requests();
    ASSERT_FALSE(feeds.empty());
    EXPECT_NE(feeds[0].query.find("&as=Mobile_Interstitial&awh=390x844&ad=390x844&"), std::string::npos);
    EXPECT_EQ(ad->interstitialController->iti->textView()->text, "Sandbox ad");
    ad->showAd();
    EXPECT_TRUE(log->events.empty()) << "the host has not said it is ready";
    ad->interstitialController->isReady = true;
    ad->showAd();
    EXPECT_EQ(log->events, std::vector<std::string>{"present"});
    EXPECT_EQ(trackerHits(), std::vector<std::string>{"/t/imp?l2=abc"});
    ad->interstitialController->closeAd();
}

TEST_F(Interstitial, AFeedAnswerWithoutItemsGivesAnEmptyTitleAndNoImage) {
    backend->on("GET", kFeedPath, Answer::json(R"({"session_id":"s"})"));
    auto ad = loaded();
    auto iti = ad->interstitialController->iti;
    ASSERT_EQ(iti->subviews().size(), 2u);  // filled, not left empty
    EXPECT_EQ(iti->textView()->text, "");
    EXPECT_EQ(iti->imageView()->image, nullptr);
    EXPECT_TRUE(trackerHits().empty());
    ad->interstitialController->closeAd();
}

// The orientation at creation picks the supported ones; the content stacks in portrait and
// sits side by side otherwise.
TEST_F(Interstitial, OrientationsFollowTheOrientationAtCreationAndTheContentItsShape) {
    struct Case {
        DeviceOrientation orientation;
        Rect screen;
        unsigned mask;
        std::optional<Rect> image, text;
    };
    const std::vector<Case> cases = {
        {DeviceOrientation::portrait, {0, 0, 390, 844}, Mask::portrait, Rect{0, 0, 390, 422}, Rect{0, 422, 390, 422}},
        {DeviceOrientation::landscapeLeft, {0, 0, 844, 390}, Mask::landscape, Rect{0, 0, 422, 390}, Rect{422, 0, 422, 390}},
        {DeviceOrientation::faceUp, {0, 0, 390, 844}, Mask::portrait, {}, {}},
        {DeviceOrientation::faceDown, {0, 0, 844, 390}, Mask::landscape, {}, {}},
        {DeviceOrientation::unknown, {0, 0, 390, 844}, Mask::landscape, {}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.orientation));
        headless.device->setOrientation(c.orientation);
        headless.screen->setBounds(c.screen);
        auto ad = loaded();
        EXPECT_EQ(ad->interstitialController->supportedInterfaceOrientations(), c.mask);
        auto iti = ad->interstitialController->iti;
        iti->layoutIfNeeded();
        EXPECT_TRUE(!c.image || iti->imageView()->frame == *c.image);
        EXPECT_TRUE(!c.text || iti->textView()->frame == *c.text);
        ad->interstitialController->closeAd();
    }
}

TEST_F(Interstitial, UserActionsReachTheDelegate) {
    struct Case {
        const char* name;
        std::function<void(InterstitialAD&)> act;
        std::vector<std::string> events;
        bool screenDropped;
    };
    const std::string openDemo = std::string("openURL ") + TESSRA_DEFAULT_AD_DEMO_PAGE;
    const std::vector<Case> cases = {
        {"tap", [](InterstitialAD& ad) { ad.interstitialController->iti->tap(); },
         {"interstitialWillPresentScreen", openDemo}, false},
        {"resign active",
         [this](InterstitialAD&) { headless.notificationCenter->post(platform::AppNotification::willResignActive); },
         {"interstitialWillLeaveApplication"}, false},
        {"browser finished", [](InterstitialAD& ad) { ad.interstitialController->safariViewControllerDidFinish(); },
         {"interstitialWillDismissScreen"}, true},
        {"close button", [](InterstitialAD& ad) { ad.interstitialController->closeButton()->tap(); },
         {"interstitialClosed", "dismiss after the line"}, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto ad = loaded();
        ad->interstitialController->isReady = true;
        ad->showAd();
        auto screen = ad->interstitialController;
        log->events.clear();
        console->clear();
        backend->clearRequests();
        c.act(*ad);
        pump();
        EXPECT_EQ(log->events, c.events);
        EXPECT_EQ(ad->interstitialController == nullptr, c.screenDropped);
        EXPECT_TRUE(trackerHits().empty());  // a tap fires no click tracker
        EXPECT_EQ(console->contains("Open Ad"), std::string(c.name) == "tap");
        if (!c.screenDropped) {
            screen->closeAd();
        } else if (screen->presentingViewController()) {
            screen->dismiss(false);
        }
    }
}

TEST_F(Interstitial, ReleasingAClosedAdPrintsDeinited) {
    auto ad = loaded();
    const auto description = ad->description();
    ad->interstitialController->closeAd();
    console->clear();
    ad.reset();
    EXPECT_TRUE(console->contains("DEINITED " + description));
}

}  // namespace
}  // namespace tessrakite
