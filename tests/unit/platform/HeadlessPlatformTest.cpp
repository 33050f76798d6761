#include <future>
#include <thread>

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include <sys/stat.h>

#include <tessrakite/platform/FileRoots.hpp>
#include <tessrakite/platform/headless/HeadlessPlatform.hpp>

#include "TestEnv.hpp"

namespace tessrakite::platform::headless {
namespace {

struct Recorded {
    std::mutex mutex;
    std::vector<std::string> names;
    std::vector<nlohmann::ordered_json> args;

    void attach(Effects& effects) {
        effects.setSink([this](const std::string& name, const nlohmann::ordered_json& a) {
            std::lock_guard lock(mutex);
            names.push_back(name);
            args.push_back(a);
        });
    }
    /// Identifiers of the "notificationDelivered" lines, in order.
    std::vector<std::string> deliveredIds() {
        std::lock_guard lock(mutex);
        std::vector<std::string> ids;
        for (std::size_t i = 0; i < names.size(); ++i)
            if (names[i] == "notificationDelivered") ids.push_back(args[i]["identifier"].get<std::string>());
        return ids;
    }
};

constexpr const char* kAppId = "com.example.notes";
using Centre = HeadlessUserNotificationCenter;

class HeadlessPlatformTest : public ::testing::Test {
protected:
    HeadlessPlatformTest() {
        test::installMainBundle(home.path(), kAppId);
        clock = std::make_shared<ManualClock>(1'000.0);
        h = makeHeadlessPlatform({clock, nullptr});
        recorded.attach(*h.effects);
    }
    ~HeadlessPlatformTest() override { h.effects->setSink(nullptr); }

    static UNNotificationRequest request(const std::string& id, std::optional<UNTimeIntervalNotificationTrigger> trigger,
                                         const std::string& title = "Hello") {
        UNNotificationRequest r;
        r.identifier = id;
        r.content.title = title;
        r.trigger = trigger;
        return r;
    }
    std::filesystem::path notificationsFile() const { return FileRoots::appFolder(kAppId) / "notifications.sqlite"; }

    test::ScopedHome home;
    std::shared_ptr<ManualClock> clock;
    Headless h;
    Recorded recorded;
};

TEST_F(HeadlessPlatformTest, AuthorizationAnswersAreTheInjectedOnes) {
    struct Case {
        bool granted;
        UNAuthorizationStatus status;
    };
    for (const auto& c : {Case{true, UNAuthorizationStatus::authorized}, Case{false, UNAuthorizationStatus::denied}}) {
        h.userNotificationCenter->setAuthorizationAnswer(c.granted, c.status);
        std::promise<std::pair<bool, std::thread::id>> answer;
        std::promise<std::pair<UNAuthorizationStatus, std::thread::id>> settings;
        h.userNotificationCenter->requestAuthorization(
            UNAuthorizationOptions::alert | UNAuthorizationOptions::badge | UNAuthorizationOptions::sound,
            [&](bool g, std::optional<std::string>) { answer.set_value({g, std::this_thread::get_id()}); });
        h.userNotificationCenter->getNotificationSettings(
            [&](UNNotificationSettings s) { settings.set_value({s.authorizationStatus, std::this_thread::get_id()}); });
        h.platform->runLoop->runUntilIdle(1.0);
        auto answered = answer.get_future();
        auto settled = settings.get_future();
        ASSERT_EQ(answered.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        ASSERT_EQ(settled.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        const auto [granted, thread] = answered.get();
        EXPECT_EQ(granted, c.granted);
        EXPECT_NE(thread, std::this_thread::get_id()) << "the answer comes off the main thread, as on the phone";
        const auto [status, settingsThread] = settled.get();
        EXPECT_EQ(status, c.status);
        EXPECT_NE(settingsThread, std::this_thread::get_id());
    }
}

TEST_F(HeadlessPlatformTest, TriggersFireWhenDueInOrderUnlessRemovedOrReplaced) {
    auto& centre = *h.userNotificationCenter;
    centre.add(request("late", UNTimeIntervalNotificationTrigger{30, false}), nullptr);
    centre.add(request("early", UNTimeIntervalNotificationTrigger{10, false}), nullptr);
    centre.add(request("gone", UNTimeIntervalNotificationTrigger{20, false}), nullptr);
    centre.add(request("again", UNTimeIntervalNotificationTrigger{5, false}, "first"), nullptr);
    centre.add(request("again", UNTimeIntervalNotificationTrigger{25, false}, "second"), nullptr);
    centre.add(request("every", UNTimeIntervalNotificationTrigger{15, true}), nullptr);
    centre.removePendingNotificationRequests({"gone"});

    h.platform->runLoop->runFor(40);
    EXPECT_EQ(recorded.deliveredIds(), (std::vector<std::string>{"early", "every", "again", "late", "every"}));
    EXPECT_EQ(recorded.args.back()["content"]["title"], "Hello");
    // A repeat replaces its earlier delivery.
    std::vector<std::tuple<std::string, std::string, double>> shown;
    for (const auto& n : centre.delivered()) shown.emplace_back(n.request.identifier, n.request.content.title, n.date);
    EXPECT_EQ(shown, (decltype(shown){{"early", "Hello", 1'010.0}, {"again", "second", 1'025.0},
                                      {"late", "Hello", 1'030.0}, {"every", "Hello", 1'030.0}}));
    auto pending = centre.pending();
    ASSERT_EQ(pending.size(), 1u) << "only the repeating request stays pending";
    EXPECT_EQ(pending[0].identifier, "every");
}

// Two headless platforms on one home are the app and its extension: separate processes
// as far as the centre can tell. The extension finds the app's centre through its .appex.
TEST_F(HeadlessPlatformTest, AppAndExtensionShareOneCentre) {
    auto app = test::makeBundle(home.path() / "Notes.app", {{"CFBundleIdentifier", "com.example.shared"}});
    auto extension =
        test::makeBundle(app / "PlugIns" / "Service.appex", {{"CFBundleIdentifier", "com.example.shared.service"}});
    Recorded appEffects, extensionEffects;
    const auto start = [&](const std::filesystem::path& bundle, Recorded& effects) {
        Bundle::setMain(Bundle::open(bundle));
        auto side = makeHeadlessPlatform({clock, nullptr});
        effects.attach(*side.effects);
        return side;
    };
    auto appSide = start(app, appEffects);

    const UNNotificationRequest rich{"welcome",
                                     {.title = "Welcome", .subtitle = "to Notes", .body = "Hi", .sound = "default",
                                      .badge = 3, .categoryIdentifier = "reply", .threadIdentifier = "news",
                                      .userInfo = {{"id", 7}, {"tags", PlistArray{"a", "b"}}, {"raw", Data{1, 2}}},
                                      .attachments = {{"pic", "/tmp/pic.png", {{"hidden", true}}}}},
                                     std::nullopt};
    appSide.userNotificationCenter->add(rich, nullptr);
    appSide.userNotificationCenter->add(request("reminder", UNTimeIntervalNotificationTrigger{60, true}), nullptr);
    appSide.userNotificationCenter->setNotificationCategories(
        {{"reply", {{"answer", "Answer", UNNotificationActionOptions::foreground}}, {"intent"}, 1}});

    auto extensionSide = start(extension, extensionEffects);
    auto& seen = *extensionSide.userNotificationCenter;
    auto delivered = seen.delivered();
    ASSERT_EQ(delivered.size(), 1u);
    const auto& content = delivered[0].request.content;
    EXPECT_EQ(delivered[0].date, 1'000.0);
    EXPECT_EQ(Centre::toJSON(content), Centre::toJSON(rich.content));
    EXPECT_EQ(PlistValue(content.userInfo), PlistValue(rich.content.userInfo));  // data has no JSON form
    EXPECT_EQ(content.threadIdentifier, "news");
    EXPECT_EQ(PlistValue(content.attachments.at(0).options), PlistValue(PlistDictionary{{"hidden", true}}));
    auto pending = seen.pending();
    ASSERT_EQ(pending.size(), 1u);
    EXPECT_EQ(Centre::toJSON(pending[0].trigger), Centre::toJSON(UNTimeIntervalNotificationTrigger{60, true}));

    // The SDK waits for the categories on the calling thread, without pumping.
    std::promise<std::vector<UNNotificationCategory>> answer;
    seen.getNotificationCategories([&](std::vector<UNNotificationCategory> c) { answer.set_value(std::move(c)); });
    auto future = answer.get_future();
    ASSERT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    auto categories = future.get();
    ASSERT_EQ(categories.size(), 1u);
    ASSERT_EQ(categories[0].actions.size(), 1u);
    EXPECT_EQ(categories[0].actions[0].title, "Answer");
    EXPECT_EQ(categories[0].intentIdentifiers, std::vector<std::string>{"intent"});
    EXPECT_EQ(categories[0].options, 1u);

    seen.add(request("from-extension", std::nullopt), nullptr);
    EXPECT_EQ(appSide.userNotificationCenter->delivered().size(), 2u);

    // Both sides run a timer for the reminder; the first to come due delivers it, once.
    appSide.platform->runLoop->runFor(60);
    extensionSide.platform->runLoop->runOnce();
    EXPECT_EQ(appEffects.deliveredIds(), (std::vector<std::string>{"welcome", "reminder"}));
    EXPECT_EQ(extensionEffects.deliveredIds(), (std::vector<std::string>{"from-extension"}));
    EXPECT_EQ(seen.delivered().size(), 3u);

    struct stat st {};
    ASSERT_EQ(::stat((FileRoots::appFolder("com.example.shared") / "notifications.sqlite").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u) << "only the user reads the notifications";
}

TEST_F(HeadlessPlatformTest, TwoProcessesAddingAtOnceLoseNothing) {
    auto other = makeHeadlessPlatform({clock, nullptr});
    auto addMany = [](HeadlessUserNotificationCenter& centre, const std::string& prefix) {
        for (int i = 0; i < 200; ++i) centre.add(request(prefix + std::to_string(i), std::nullopt), nullptr);
    };
    std::thread first(addMany, std::ref(*h.userNotificationCenter), "app-");
    std::thread second(addMany, std::ref(*other.userNotificationCenter), "extension-");
    first.join();
    second.join();
    EXPECT_EQ(h.userNotificationCenter->delivered().size(), 400u);
    EXPECT_EQ(other.userNotificationCenter->delivered().size(), 400u);
}

TEST_F(HeadlessPlatformTest, ACorruptFileIsMovedAsideAndStartedAfresh) {
    const auto folder = notificationsFile().parent_path();
    std::filesystem::create_directories(folder);
    std::ofstream(notificationsFile()) << std::string(4096, 'x');
    test::ConsoleCapture console;

    EXPECT_TRUE(h.userNotificationCenter->delivered().empty());
    h.userNotificationCenter->add(request("after", std::nullopt), nullptr);
    EXPECT_EQ(h.userNotificationCenter->delivered().size(), 1u);

    auto lines = console.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("UserNotificationCenter: " + notificationsFile().string() + " was unreadable", 0), 0u)
        << lines[0];
    EXPECT_EQ(std::count_if(std::filesystem::directory_iterator(folder), {}, [](const auto& entry) {
                  return entry.path().filename().string().rfind("notifications.sqlite.corrupt-", 0) == 0;
              }),
              1);
}

}  // namespace
}  // namespace tessrakite::platform::headless
