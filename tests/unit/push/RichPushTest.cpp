#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <thread>

#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/push/CategoryHelper.hpp>

#include "SdkFixture.hpp"

namespace tessrakite {
namespace {

using nlohmann::ordered_json;
using platform::UNMutableNotificationContent;
using test::Answer;

class RecordingDelegate : public TessraQuillDelegate {
public:
    void handleURL(const Url& url) override {
        std::lock_guard lock(mutex);
        urls.push_back(url.absoluteString());
    }
    std::mutex mutex;
    std::vector<std::string> urls;
};

class RichPush : public test::SdkFixture {
protected:
    void SetUp() override {
        SdkFixture::SetUp();
        storage().set(StorageKey::push, true);
        backend->on("GET", "/t/*", Answer::withStatus(204));
    }

    void tap(const std::string& id, const std::string& action = platform::UNNotificationDefaultActionIdentifier,
             bool open = true, std::optional<std::string>* handedBack = nullptr) {
        platform::UNNotificationResponse response;
        response.notification.request.identifier = id;
        response.actionIdentifier = action;
        TessraQuill::pushTrackOpen(open, response, [&](std::optional<std::string> url) {
            if (handedBack) *handedBack = url;
        });
        pump();
    }

    std::vector<std::string> hitsUnder(const std::string& prefix) const {
        std::vector<std::string> hits;
        for (const auto& r : backend->requests())
            if (r.path.rfind(prefix, 0) == 0) hits.push_back(r.path);
        return hits;
    }
    /// Sorted: trackers fired together may arrive in any order.
    std::vector<std::string> trackerHits() const {
        auto hits = hitsUnder("/t/");
        std::sort(hits.begin(), hits.end());
        return hits;
    }
    std::string tracker(const std::string& name) const { return backend->httpBase() + "/t/" + name; }
};

TEST_F(RichPush, DirectPushFillsTitleBodyAndSound) {
    struct Case {
        ordered_json n;
        std::optional<std::string> sound;
    };
    const std::vector<Case> cases = {
        {{{"body", "Hi"}}, "default"},
        {{{"body", "Hi"}, {"sound", "ding"}}, "ding.wav"},
        {{{"body", "Hi"}, {"sound", "ding.wav"}}, "ding.wav.wav"},
        {{{"body", "Hi"}, {"sound", "ding"}, {"silent", true}}, std::nullopt},
        {{{"body", "Hi"}, {"silent", false}}, "default"},
    };
    int n = 0;
    for (const auto& c : cases) {
        ordered_json push = {{"aps", {{"alert", {{"title", "Hello"}, {"n", c.n}}}}}};
        auto content = receive(push, "direct-" + std::to_string(n++));
        EXPECT_EQ(content.sound, c.sound) << c.n.dump();
        EXPECT_EQ(content.title, "Hello");
        EXPECT_EQ(content.body, "Hi");
    }
}

TEST_F(RichPush, OnlyHttpUrlsOfJpegOrPngAreDownloaded) {
    backend->on("GET", "/img/*", Answer::text("not an image"));
    struct Case {
        std::string path;
        bool downloaded;
    };
    for (const auto& c : {Case{"/img/a.jpeg", true}, Case{"/img/a.jpg", true}, Case{"/img/a.png", true},
                          Case{"/img/a.gif", false}, Case{"/img/a.PNG", false}, Case{"/img/a.png?x=1", false}}) {
        for (const bool upperScheme : {false, true}) {
            backend->clearRequests();
            console->clear();
            std::string url = backend->httpBase() + c.path;
            if (upperScheme) url.replace(0, 4, "HTTP");
            auto content = receive(campaign({{"image", url}}), "img");
            const bool expected = c.downloaded && !upperScheme;
            EXPECT_EQ(hitsUnder("/img/").size(), expected ? 1u : 0u) << url;
            EXPECT_EQ(console->contains("Download Started"), expected) << url;
            // Not an image: the message still shows, without an attachment.
            EXPECT_EQ(console->contains("Image can't be downloaded"), expected) << url;
            EXPECT_TRUE(content.attachments.empty());
        }
    }
}

TEST_F(RichPush, AnImageThatDecodesBecomesThePngAttachmentAnythingElseIsLeftOut) {
    // A 3 x 2 picture written as PNG by the platform's own writer.
    std::shared_ptr<std::uint8_t> pixels(new std::uint8_t[3 * 2 * 4], std::default_delete<std::uint8_t[]>());
    for (int i = 0; i < 3 * 2 * 4; ++i) pixels.get()[i] = static_cast<std::uint8_t>(i * 10);
    const auto source = home->path() / "source.png";
    ASSERT_FALSE(platform::Image(3, 2, pixels).writePNG(source));
    const std::string png = test::readFile(source);
    struct Case {
        const char* name;
        Answer answer;
        bool attached;
    };
    const std::vector<Case> cases = {
        {"png", Answer::text(png).header("Content-Type", "image/png"), true},
        {"404 page", Answer::text("<html>not found</html>", 404), false},
        {"truncated", Answer::text(png.substr(0, png.size() / 2)), false},
        {"over the body limit", Answer::text(std::string(17u << 20, 'x')), false},
        {"dropped", Answer::dropped(), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        console->clear();
        backend->on("GET", "/img/photo.png", c.answer);
        auto content = receive(campaign({{"image", backend->httpBase() + "/img/photo.png"}, {"body", "Shown"}}), "pic");
        EXPECT_EQ(content.body, "Shown") << "the message shows either way";
        EXPECT_EQ(console->contains("Image can't be downloaded"), !c.attached);
        ASSERT_EQ(content.attachments.size(), c.attached ? 1u : 0u);
        if (!c.attached) continue;
        const std::string bytes = test::readFile(content.attachments[0].url);
        auto image = platform::Image::decode(Data(bytes.begin(), bytes.end()));
        ASSERT_TRUE(image);
        EXPECT_EQ(std::memcmp(image->rgba(), pixels.get(), 3 * 2 * 4), 0);
    }
}

TEST_F(RichPush, ACampaignEndpointIsFetchedAndRemembered) {
    backend->on("GET", "/campaign/7",
                Answer::json(campaign({{"body", "From the campaign"}}, "Fetched").dump()));
    const std::string e = backend->httpsBase() + "/campaign/7?id=7";
    auto content = receive({{"aps", {{"alert", {{"title", "Push"}, {"e", e}, {"mavo", true}}}}}}, "fetched");
    EXPECT_EQ(content.title, "Fetched");
    EXPECT_EQ(content.body, "From the campaign");
    EXPECT_EQ(PlistValue(content.userInfo).toJSON()["p"][0]["t"], "Fetched") << "the opening app finds the campaign";
    EXPECT_EQ(storage().getE(), e);
    EXPECT_EQ(storage().getBool(StorageKey::mavo), true);

    // A campaign host that is down still shows the push as it came.
    backend->on("GET", "/campaign/7", Answer::dropped());
    content = receive({{"aps", {{"alert", {{"title", "Push"}, {"e", e}}}}}}, "down");
    EXPECT_EQ(content.title, "");
    EXPECT_EQ(storage().getBool(StorageKey::mavo), false);
}

TEST_F(RichPush, ANewerMessageOfATagReplacesTheOlderOne) {
    receive(campaign({{"tag", "sale"}}), "first");
    receive(campaign({{"tag", "other"}}), "unrelated");
    ASSERT_EQ(headless.userNotificationCenter->delivered().size(), 2u);
    receive(campaign({{"tag", "sale"}}), "second");
    std::vector<std::string> delivered;
    for (const auto& n : headless.userNotificationCenter->delivered()) delivered.push_back(n.request.identifier);
    EXPECT_EQ(delivered, (std::vector<std::string>{"unrelated", "second"}));
    auto tags = storage().getTagsFromStorage(StorageKey::tags);
    ASSERT_TRUE(tags);
    EXPECT_EQ((*tags)["sale"], std::vector<std::string>{"second"});
    EXPECT_EQ((*tags)["other"], std::vector<std::string>{"unrelated"});
}

TEST_F(RichPush, BadgeCounter) {
    struct Case {
        const char* name;
        bool push;
        std::optional<std::int64_t> stored;
        bool add;
        std::optional<std::int64_t> after;  // stored and shown
    };
    const std::vector<Case> cases = {
        {"first add", true, std::nullopt, true, 1},   {"add", true, 4, true, 5},
        {"decrease never stored", true, std::nullopt, false, std::nullopt},
        {"decrease below zero", true, 0, false, -1}, {"push off", false, 4, true, 4},
    };
    for (const auto& c : cases) {
        for (const bool onContent : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (onContent ? " on content" : " on icon"));
            storage().set(StorageKey::push, c.push);
            if (c.stored)
                storage().set(StorageKey::badge, *c.stored);
            else
                storage().remove(StorageKey::badge);
            headless.application->setApplicationIconBadgeNumber(99);
            UNMutableNotificationContent content;
            auto* target = onContent ? &content : nullptr;
            c.add ? TessraQuill::addNotificationCount(target) : TessraQuill::decreseNotificationCount(target);
            EXPECT_EQ(storage().getIntFromStorage(StorageKey::badge), c.after);
            const bool shown = c.push && c.after;
            EXPECT_EQ(content.badge, onContent && shown ? c.after : std::nullopt);
            EXPECT_EQ(headless.application->applicationIconBadgeNumber(), !onContent && shown ? *c.after : 99);
        }
    }
}

TEST_F(RichPush, ContentSizeFollowsTheLayoutKind) {
    struct Case {
        ordered_json userInfo;
        double height;
    };
    for (const auto& c : {Case{campaign({{"el", 3}}), 120}, Case{campaign({{"el", 2}}), 312},
                          Case{{{"aps", {{"alert", {{"title", "t"}, {"n", {{"el", 3}}}}}}}}, 120},
                          Case{ordered_json::object(), 312}}) {
        platform::UNNotification notification;
        notification.request.identifier = "n";
        notification.request.content.userInfo = *PlistValue::fromJSON(c.userInfo).asDictionary();
        EXPECT_EQ(TessraQuill::getPreferedContentSize(notification), (platform::Size{390, c.height})) << c.userInfo;
    }
}

TEST_F(RichPush, ButtonsBecomeACategoryAndTheOldestOfOurOwnIsPruned) {
    headless.userNotificationCenter->setNotificationCategories({{"host.reply", {}, {}, 0}});
    auto content = receive(campaign({{"actions",
                                      {{{"action", "a"}, {"title", "No"}, {"url", "https://x.test/no"}},
                                       {{"action", "b"}, {"title", "NO"}},
                                       {{"action", "c"}, {"title", "Nope"}, {"url", "https://x.test/nope"}}}}}),
                           "buttons");
    auto categories = headless.userNotificationCenter->categories();
    auto ours = std::find_if(categories.begin(), categories.end(),
                             [&](const auto& c) { return c.identifier == content.categoryIdentifier; });
    ASSERT_NE(ours, categories.end());
    ASSERT_EQ(ours->actions.size(), 3u);
    using platform::UNNotificationActionOptions::destructive;
    using platform::UNNotificationActionOptions::foreground;
    EXPECT_EQ(ours->actions[0].options, destructive);
    EXPECT_EQ(ours->actions[1].options, destructive);
    EXPECT_EQ(ours->actions[2].options, foreground);
    EXPECT_EQ(ours->actions[2].identifier, "Nope");
    auto urls = storage().getUrlsFromStorage();
    ASSERT_TRUE(urls);
    EXPECT_EQ((*urls)["buttons"], (std::map<std::string, std::string>{{"Nope", "https://x.test/nope"}}));

    // 128 more messages: the first of ours goes, the host's own category stays.
    const std::string first = content.categoryIdentifier;
    for (int i = 0; i < 128; ++i)
        CategoryHelper::shared().registerCategory({"Tessra_categ_x" + std::to_string(i), {}, {}, 0});
    std::vector<std::string> ids;
    for (const auto& c : headless.userNotificationCenter->categories()) ids.push_back(c.identifier);
    EXPECT_EQ(ids.size(), 129u);
    EXPECT_NE(std::find(ids.begin(), ids.end(), "host.reply"), ids.end());
    EXPECT_EQ(std::find(ids.begin(), ids.end(), first), ids.end());
}

TEST_F(RichPush, OpeningReportsConversionsOnceAndOpensTheLink) {
    auto delegate = std::make_shared<RecordingDelegate>();
    TessraQuill::setTessraDelegate(delegate);
    const ordered_json message = {
        {"data", {{"url", "https://shop.test/sale"}, {"t", {tracker("c1"), tracker("c2")}}}},
        {"actions", {{{"action", "buy"}, {"title", "Buy"}, {"url", "shop://cart"}}}}};
    struct Case {
        const char* name;
        std::string action;
        bool open;
        std::vector<std::string> opened, handled;
        std::optional<std::string> handedBack;
    };
    const std::vector<Case> cases = {
        {"plain tap", platform::UNNotificationDefaultActionIdentifier, true, {"https://shop.test/sale"}, {}, std::nullopt},
        {"deep-link button", "Buy", true, {}, {"shop://cart"}, std::nullopt},
        {"handed back", "Buy", false, {}, {}, "shop://cart"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        receive(campaign(message), "open");
        backend->clearRequests();
        const auto openedBefore = headless.application->openedURLs().size();
        delegate->urls.clear();
        std::optional<std::string> handedBack;
        tap("open", c.action, c.open, &handedBack);
        EXPECT_EQ(trackerHits(), (std::vector<std::string>{"/t/c1", "/t/c2"}));
        auto opened = headless.application->openedURLs();
        EXPECT_EQ(std::vector<std::string>(opened.begin() + static_cast<std::ptrdiff_t>(openedBefore), opened.end()),
                  c.opened);
        EXPECT_EQ(delegate->urls, c.handled);
        EXPECT_EQ(handedBack, c.handedBack);
        EXPECT_FALSE(storage().getUrlsFromStorage()->count("open"));
        EXPECT_FALSE(storage().getCoversionsFromStorage()->count("open"));

        // The second open finds nothing left to report or open.
        backend->clearRequests();
        tap("open", c.action, c.open);
        EXPECT_TRUE(trackerHits().empty());
        EXPECT_EQ(headless.application->openedURLs().size(), openedBefore + c.opened.size());
    }

    // With push off nothing is reported or opened, and the host's completion still runs.
    receive(campaign(message), "off");
    storage().set(StorageKey::push, false);
    backend->clearRequests();
    const auto openedBefore = headless.application->openedURLs().size();
    std::optional<std::string> handedBack = "untouched";
    tap("off", platform::UNNotificationDefaultActionIdentifier, false, &handedBack);
    EXPECT_TRUE(trackerHits().empty());
    EXPECT_EQ(headless.application->openedURLs().size(), openedBefore);
    EXPECT_EQ(handedBack, std::nullopt);
    EXPECT_TRUE(storage().getCoversionsFromStorage()->count("off"));
}

TEST_F(RichPush, APlainTapRenotifiesOneSecondLaterOnlyWithTheFlagAndEndpoint) {
    backend->on("GET", "/campaign/9", Answer::json(campaign({{"body", "Again"}}, "Back").dump()));
    struct Case {
        std::optional<bool> mavo;
        bool endpoint;
        std::string action;
        bool renotified;
    };
    for (const auto& c : {Case{true, true, platform::UNNotificationDefaultActionIdentifier, true},
                          Case{true, true, "Buy", false},
                          Case{false, true, platform::UNNotificationDefaultActionIdentifier, false},
                          Case{std::nullopt, true, platform::UNNotificationDefaultActionIdentifier, false},
                          Case{true, false, platform::UNNotificationDefaultActionIdentifier, false}}) {
        headless.userNotificationCenter->removeAllPendingNotificationRequests();
        c.mavo ? storage().set(StorageKey::mavo, *c.mavo) : storage().remove(StorageKey::mavo);
        c.endpoint ? storage().set(StorageKey::eEndpoint, backend->httpsBase() + "/campaign/9?id=9")
                   : storage().remove(StorageKey::eEndpoint);
        tap("opened", c.action);
        auto pending = headless.userNotificationCenter->pending();
        ASSERT_EQ(pending.size(), c.renotified ? 1u : 0u) << c.action;
        if (!c.renotified) continue;
        EXPECT_EQ(pending[0].content.title, "Back");
        EXPECT_EQ(pending[0].content.body, "Again");
        ASSERT_TRUE(pending[0].trigger);
        EXPECT_EQ(pending[0].trigger->timeInterval, 1.0);
    }
}

TEST_F(RichPush, SeveralWritersAtOnceLoseNoStoredEntry) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 50; ++i) {
                const std::string id = std::to_string(t) + "-" + std::to_string(i);
                TessraQuill::saveConversions(Conversion{"https://x.test/" + id, std::vector<std::string>{"t"}}, id);
                TessraQuill::addNotificationCount(nullptr);
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(storage().getUrlsFromStorage()->size(), 200u);
    EXPECT_EQ(storage().getCoversionsFromStorage()->size(), 200u);
    EXPECT_EQ(storage().getIntFromStorage(StorageKey::badge), 200);
}

}  // namespace
}  // namespace tessrakite
