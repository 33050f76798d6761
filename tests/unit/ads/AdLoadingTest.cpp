#include <gtest/gtest.h>

#include <mutex>
#include <regex>

#include <tessrakite/BuildConfig.hpp>
#include <tessrakite/ads/TessraAdLoader.hpp>

#include "AdFixture.hpp"

namespace tessrakite {
namespace {

using test::Answer;

/// Every delegate call and completion as one line, with the thread it came on.
struct Recorder : TessraAdLoaderDelegate, test::CallLog {
    void adLoader(TessraAdLoader&, const std::string& error) override { note("fail:" + error); }
    void adLoaderDidFinishLoading(TessraAdLoader&, const MavoObject&) override { note("finish"); }
};

class AdLoading : public test::AdFixture {
protected:
    /// Loads once with a fresh loader and returns what the delegate and completion heard.
    std::vector<std::string> load() {
        auto loader = std::make_shared<TessraAdLoader>(nullptr, NativeAdSize::medium);
        auto recorder = std::make_shared<Recorder>();
        loader->setDelegate(recorder);
        loader->loadAd([recorder](std::optional<MavoObject> ad, auto error) {
            recorder->note(ad && !error ? "completion" : "completion without ad");
        });
        pump();
        return recorder->taken();
    }
    bool printed(const std::string& start) const {
        for (const auto& line : console->lines())
            if (line.rfind(start, 0) == 0) return true;
        return false;
    }
};

TEST_F(AdLoading, TheFeedURLCarriesTheScreenNowAndTheAdSizeFromCreation) {
    struct Case {
        platform::Rect atCreation, atLoad;
        NativeAdSize size;
        const char* screen;
        const char* ad;
    };
    const std::vector<Case> cases = {
        {{0, 0, 390, 844}, {0, 0, 390, 844}, NativeAdSize::fullScreen, "390x844", "390x844"},
        {{0, 0, 1024.9, 768.2}, {0, 0, 1024.9, 768.2}, NativeAdSize::small, "1024x768", "1024x768"},
        {{0, 0, 390, 844}, {0, 0, 844, 390}, NativeAdSize::medium, "844x390", "390x844"},  // turned after creation
    };
    startWithAds();
    serveFeed({{"img", "x"}});
    for (const auto& c : cases) {
        SCOPED_TRACE(c.screen);
        backend->clearRequests();
        headless.screen->setBounds(c.atCreation);
        auto loader = std::make_shared<TessraAdLoader>(nullptr, c.size);
        headless.screen->setBounds(c.atLoad);
        loader->loadAd(nullptr);
        pump();
        const auto requests = backend->requestsTo(kFeedPath);
        ASSERT_EQ(requests.size(), 1u);
        EXPECT_FALSE(requests[0].tls) << "the feed is plain HTTP";
        EXPECT_EQ(requests[0].query, std::string("page=") + TESSRA_AD_PAGE + "&sr=" + c.screen + "&sa=" + c.screen +
                                         "&po=3&rt=1649422465953.4434&cb=ax26w6of7s&ar=fpagc&as=Mobile_Banner&awh=" +
                                         c.ad + "&ad=" + c.ad + "&out=json");
    }
}

TEST_F(AdLoading, AnswersReachTheDelegateAndTheImpressionTracker) {
    const std::string tracker = backend->httpBase() + "/t/imp?a=${l2}&b=${l2}";
    struct Case {
        const char* name;
        Answer answer;
        std::vector<std::string> calls;
        std::vector<std::string> trackers;
        const char* line = nullptr;  // start of a console line that must be printed
    };
    const std::vector<Case> cases = {
        {"ad", Answer::json(feed({{"l2", "abc"}, {"cpm_t", {tracker, "http://unused"}}}).dump()),
         {"finish@main", "completion@main"}, {"/t/imp?a=abc&b=abc"}},
        {"empty items", Answer::json(R"({"items": []})"), {"finish@main", "completion@main"}, {}},
        {"no md", Answer::json(R"({"items": [{"s": true}]})"), {"finish@main", "completion@main"}, {}},
        {"no cpm_t", Answer::json(feed({{"l2", "abc"}, {"cpc_t", {tracker}}}).dump()),
         {"finish@main", "completion@main"}, {}},
        {"status 500", Answer::json(feed({{"l2", "abc"}, {"cpm_t", {tracker}}}).dump(), 500), {}, {}},
        {"wrong type", Answer::json(R"({"items": [{"md": {"cmpid": "7"}}]})"), {"fail:Error@session"}, {},
         "typeMismatch"},
        {"not JSON", Answer::text("<html>busy</html>"), {"fail:Error@session"}, {}, "dataCorrupted"},
        {"transport error", Answer::dropped(), {"fail:Error@session"}, {}},
    };
    startWithAds();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        backend->clearRequests();
        console->clear();
        backend->on("GET", kFeedPath, c.answer);
        EXPECT_EQ(load(), c.calls);
        EXPECT_EQ(trackerHits(), c.trackers);
        if (c.line) {
            EXPECT_TRUE(printed(c.line)) << c.line;
        }
        if (std::string(c.name) == "transport error") {
            EXPECT_EQ(console->lines().size(), 1u) << "its description";
        }
    }
}

TEST_F(AdLoading, NothingLoadsUntilStartUpFinishedWithAdsOn) {
    serveFeed({{"img", "x"}});
    EXPECT_EQ(load(), std::vector<std::string>{}) << "not initialised";
    startWithAds(false);
    console->clear();
    EXPECT_EQ(load(), std::vector<std::string>{}) << "mavo off";
    EXPECT_TRUE(backend->requestsTo(kFeedPath).empty());
    EXPECT_TRUE(console->lines().empty());
}

TEST_F(AdLoading, ALoaderReleasedInFlightHearsNothing) {
    startWithAds();
    backend->on("GET", kFeedPath, Answer::json(feed({{"img", "x"}}).dump()).after(std::chrono::milliseconds(200)));
    auto recorder = std::make_shared<Recorder>();
    auto loader = std::make_shared<TessraAdLoader>(nullptr, NativeAdSize::fullScreen);
    loader->setDelegate(recorder);
    loader->loadAd([&](auto, auto) { recorder->note("completion"); });
    loader.reset();
    pump();
    EXPECT_EQ(backend->requestsTo(kFeedPath).size(), 1u);
    EXPECT_TRUE(recorder->taken().empty());
}

TEST_F(AdLoading, TrackersSucceedOnlyWith204AndNeedBothParts) {
    const std::string url = backend->httpBase() + "/t/click?x=${l2}&y=${l2}";
    struct Case {
        const char* name;
        std::optional<std::string> tracker, suffix;
        Answer answer;
        std::vector<std::string> hits;
        std::vector<std::string> results;
    };
    const std::vector<Case> cases = {
        {"204", url, "abc", Answer::withStatus(204), {"/t/click?x=abc&y=abc"}, {"true"}},
        {"200", url, "abc", Answer::withStatus(200), {"/t/click?x=abc&y=abc"}, {}},
        {"suffix holding the placeholder", url, "${l2}", Answer::withStatus(204), {"/t/click?x=${l2}&y=${l2}"}, {"true"}},
        {"no tracker", std::nullopt, "abc", Answer::withStatus(204), {}, {}},
        {"no suffix", url, std::nullopt, Answer::withStatus(204), {}, {}},
        {"not a URL", std::string("not a url ${l2}"), "abc", Answer::withStatus(204), {}, {}},
        {"transport error", url, "abc", Answer::dropped(), {}, {"false"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        backend->clearRequests();
        backend->on("GET", "/t/click", c.answer);
        std::mutex mutex;
        std::vector<std::string> results;
        TessraRequest().sendTracker(c.tracker, c.suffix, [&](bool ok, std::optional<platform::UrlError> error) {
            std::lock_guard lock(mutex);
            results.push_back(ok ? "true" : error ? "false" : "false without error");
        });
        pump();
        std::lock_guard lock(mutex);
        EXPECT_EQ(results, c.results);
        if (std::string(c.name) != "transport error") {
            EXPECT_EQ(trackerHits(), c.hits);
        }
    }
}

TEST_F(AdLoading, FeedRecordsCodeInTheFeedsKeyOrderAndEachGetsItsOwnViewId) {
    // Keys out of order, nulls, and a key the record does not know.
    const auto text = R"({"ts": "1", "items": [{"e": "x", "md": {"creid": 2, "cpm_t": ["m"], "title": "T", "l2": "v",
                          "img": "i", "cmpid": 1, "phone": null, "extra": 3}, "s": true, "w": 3}], "elapsed": null})";
    const auto first = Json::parse(text).get<MavoObject>();
    const auto second = Json::parse(text).get<MavoObject>();
    EXPECT_EQ(Json(first).dump(),
              R"({"items":[{"md":{"l2":"v","img":"i","cmpid":1,"title":"T","cpm_t":["m"],"creid":2},"s":true,"w":3,)"
              R"("e":"x"}],"ts":"1"})");
    EXPECT_TRUE(std::regex_match(first.viewId, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")));
    EXPECT_NE(first.viewId, second.viewId);
    EXPECT_EQ(first.getImageUrl(), "i");
    EXPECT_EQ(Json::parse("{}").get<MavoObject>().getImageUrl(), std::nullopt);

    for (const char* wrong : {R"({"elapsed": "1"})", R"({"items": {}})", R"({"items": [{"s": 1}]})",
                              R"({"items": [{"md": {"cpv_t": [null]}}]})", R"({"items": [{"md": {"creid": 1.5}}]})"}) {
        SCOPED_TRACE(wrong);
        EXPECT_THROW((void)Json::parse(wrong).get<MavoObject>(), DecodingError);
    }
}

TEST_F(AdLoading, FatalStops) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto empty = Json::parse(R"({"items": []})").get<MavoObject>();
    EXPECT_DEATH((void)empty.getImageUrl(), "Fatal error: Index out of range");
    for (const PlistDictionary& info : {PlistDictionary{}, PlistDictionary{{"TessraQuillTrackID", PlistValue(7)}}}) {
        test::installMainBundle(home->path(), "com.example.sample", info);
        EXPECT_DEATH(TessraRequest().loadAd({390, 844, 390, 844}, "Mobile_Banner", nullptr),
                     "Fatal error: \"TessraQuillTrackID\"");
    }
    headless.screen->setBounds({0, 0, std::nan(""), 844});
    EXPECT_DEATH(TessraAdLoader(nullptr, NativeAdSize::small), "Fatal error: Double value cannot be converted");
}

}  // namespace
}  // namespace tessrakite
