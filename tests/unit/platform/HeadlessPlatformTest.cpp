#include <future>
#include <thread>

#include <gtest/gtest.h>

#include <fstream>
#include <string>
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
    EXPECT_EQ(h.userNotificationCenter->lastAuthorizationOptions(), 7u);
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
    auto delivered = centre.delivered();
    ASSERT_EQ(delivered.size(), 4u) << "a repeat replaces the earlier delivery";
    EXPECT_EQ(delivered[1].request.identifier, "again");
    EXPECT_EQ(delivered[1].request.content.title, "second");
    EXPECT_EQ(delivered[1].date, 1'025.0);
    EXPECT_EQ(delivered[3].request.identifier, "every");
    EXPECT_EQ(delivered[3].date, 1'030.0);
    auto pending = centre.pending();
    ASSERT_EQ(pending.size(), 1u) << "only the repeating request stays pending";
    EXPECT_EQ(pending[0].identifier, "every");
    const auto& line = recorded.args[recorded.names.size() - 1];
    EXPECT_EQ(line["content"]["title"], "Hello");
}

// Two headless platforms on one home are the app and its extension: separate processes
// as far as the centre can tell.
TEST_F(HeadlessPlatformTest, AppAndExtensionShareOneCentre) {
    auto app = test::makeBundle(home.path() / "Notes.app", {{"CFBundleIdentifier", "com.example.shared"}});
    auto extension =
        test::makeBundle(app / "PlugIns" / "Service.appex", {{"CFBundleIdentifier", "com.example.shared.service"}});
    Bundle::setMain(Bundle::open(app));
    auto appSide = makeHeadlessPlatform({clock, nullptr});
    Recorded appEffects;
    appEffects.attach(*appSide.effects);

    UNNotificationRequest rich = request("welcome", std::nullopt, "Welcome");
    rich.content.subtitle = "to Notes";
    rich.content.sound = "default";
    rich.content.badge = 3;
    rich.content.threadIdentifier = "news";
    rich.content.categoryIdentifier = "reply";
    rich.content.userInfo = {{"id", 7}, {"tags", PlistArray{"a", "b"}}, {"raw", Data{1, 2}}};
    rich.content.attachments = {{"pic", "/tmp/pic.png", {{"hidden", true}}}};
    appSide.userNotificationCenter->add(rich, nullptr);
    appSide.userNotificationCenter->add(request("reminder", UNTimeIntervalNotificationTrigger{60, true}), nullptr);
    appSide.userNotificationCenter->setNotificationCategories(
        {{"reply", {{"answer", "Answer", UNNotificationActionOptions::foreground}}, {"intent"}, 1}});

    Bundle::setMain(Bundle::open(extension));
    auto extensionSide = makeHeadlessPlatform({clock, nullptr});
    Recorded extensionEffects;
    extensionEffects.attach(*extensionSide.effects);
    auto& seen = *extensionSide.userNotificationCenter;

    auto delivered = seen.delivered();
    ASSERT_EQ(delivered.size(), 1u);
    const auto& content = delivered[0].request.content;
    EXPECT_EQ(delivered[0].date, 1'000.0);
    EXPECT_EQ(content.title, "Welcome");
    EXPECT_EQ(content.subtitle, "to Notes");
    EXPECT_EQ(content.sound, "default");
    EXPECT_EQ(content.badge, 3);
    EXPECT_EQ(content.threadIdentifier, "news");
    EXPECT_EQ(content.categoryIdentifier, "reply");
    EXPECT_EQ(PlistValue(content.userInfo), PlistValue(rich.content.userInfo));
    ASSERT_EQ(content.attachments.size(), 1u);
    EXPECT_EQ(content.attachments[0].url, "/tmp/pic.png");
    EXPECT_EQ(PlistValue(content.attachments[0].options), PlistValue(PlistDictionary{{"hidden", true}}));
    auto pending = seen.pending();
    ASSERT_EQ(pending.size(), 1u);
    ASSERT_TRUE(pending[0].trigger);
    EXPECT_EQ(pending[0].trigger->timeInterval, 60);
    EXPECT_TRUE(pending[0].trigger->repeats);

    // The SDK waits for the categories on the calling thread, without pumping.
    std::promise<std::vector<UNNotificationCategory>> answer;
    seen.getNotificationCategories([&](std::vector<UNNotificationCategory> c) { answer.set_value(std::move(c)); });
    auto future = answer.get_future();
    ASSERT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    auto categories = future.get();
    ASSERT_EQ(categories.size(), 1u);
    EXPECT_EQ(categories[0].identifier, "reply");
    ASSERT_EQ(categories[0].actions.size(), 1u);
    EXPECT_EQ(categories[0].actions[0].title, "Answer");
    EXPECT_EQ(categories[0].actions[0].options, UNNotificationActionOptions::foreground);
    EXPECT_EQ(categories[0].intentIdentifiers, std::vector<std::string>{"intent"});
    EXPECT_EQ(categories[0].options, 1u);

    seen.add(request("from-extension", std::nullopt), nullptr);
    auto appView = appSide.userNotificationCenter->delivered();
    ASSERT_EQ(appView.size(), 2u);
    EXPECT_EQ(appView[1].request.identifier, "from-extension");

    // Both sides run a timer for the reminder; the first to come due delivers it, once.
    appSide.platform->runLoop->runFor(60);
    extensionSide.platform->runLoop->runOnce();
    EXPECT_EQ(appEffects.deliveredIds(), (std::vector<std::string>{"welcome", "reminder"}));
    EXPECT_EQ(extensionEffects.deliveredIds(), (std::vector<std::string>{"from-extension"}));
    EXPECT_EQ(seen.delivered().size(), 3u);

    struct stat st {};
    ASSERT_EQ(::stat((FileRoots::appFolder("com.example.shared") / "notifications.sqlite").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_FALSE(std::filesystem::exists(FileRoots::appFolder("com.example.shared.service")));
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
    std::filesystem::create_directories(notificationsFile().parent_path());
    std::ofstream(notificationsFile()) << std::string(4096, 'x');
    test::ConsoleCapture console;

    EXPECT_TRUE(h.userNotificationCenter->delivered().empty());
    h.userNotificationCenter->add(request("after", std::nullopt), nullptr);
    EXPECT_EQ(h.userNotificationCenter->delivered().size(), 1u);

    auto lines = console.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("UserNotificationCenter: " + notificationsFile().string() + " was unreadable", 0), 0u)
        << lines[0];
    std::size_t aside = 0;
    for (const auto& entry : std::filesystem::directory_iterator(notificationsFile().parent_path()))
        if (entry.path().filename().string().rfind("notifications.sqlite.corrupt-", 0) == 0) ++aside;
    EXPECT_EQ(aside, 1u);
}

}  // namespace
}  // namespace tessrakite::platform::headless
