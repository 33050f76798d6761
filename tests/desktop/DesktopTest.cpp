// The desktop platform against real components the tests start: a private session bus,
// a notification service on it, and a default URL handler in a private XDG data folder.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <mutex>
#include <thread>

#include <X11/extensions/XTest.h>
#include <gdk/gdkx.h>
#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

#include <tessrakite/ads/BannerView.hpp>
#include <tessrakite/ads/InterstitialAD.hpp>
#include <tessrakite/core/TessraBuilder.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/Image.hpp>
#include <tessrakite/platform/ViewController.hpp>
#include <tessrakite/platform/Window.hpp>
#include <tessrakite/platform/desktop/DesktopPlatform.hpp>

#include "ChildProcess.hpp"
#include "DesktopSession.hpp"
#include "notification_ui/CustomPromt.hpp"
#include "SdkFixture.hpp"
#include "TestEnv.hpp"

namespace tessrakite {
namespace {

using nlohmann::ordered_json;
using platform::UNMutableNotificationContent;
using test::Answer;
using Call = test::NotificationServiceStandIn::Call;

class RecordingDelegate : public TessraQuillDelegate {
public:
    void handleURL(const Url& url) override {
        std::lock_guard lock(mutex);
        urls.push_back(url.absoluteString());
    }
    std::vector<std::string> handled() {
        std::lock_guard lock(mutex);
        return urls;
    }
    std::mutex mutex;
    std::vector<std::string> urls;
};

using test::readFile;

class DesktopFixture : public test::SdkFixture {
protected:
    void SetUp() override {
        SdkFixture::SetUp();
        // Before anything asks GLib for the user's folders: it reads them once.
        installBrowserStandIn();
        bus = std::make_unique<test::PrivateBus>(home->path());
        ASSERT_EQ(bus->error(), "") << "the desktop stack cannot start";
        service = std::make_unique<test::NotificationServiceStandIn>();
        ASSERT_EQ(service->error(), "") << "the notification service stand-in cannot start";
        desktop = platform::desktop::makeDesktopPlatform(
            {std::make_shared<platform::SystemClock>(), platform::makeCurlUrlSession(test::trustingTestCa())});
        headless = desktop.headless;
        platform::setCurrentPlatform(desktop.platform);
        centre = desktop.platform->userNotificationCenter;
        storage().set(StorageKey::push, true);
        backend->on("GET", "/t/*", Answer::withStatus(204));
    }

    void TearDown() override {
        centre.reset();
        SdkFixture::TearDown();
        desktop = {};
        service.reset();
        bus.reset();
    }

    // A browser that writes down what it is asked to open. GLib reads the user's folders
    // once per process, so every test shares one folder; each starts with nothing opened.
    void installBrowserStandIn() {
        struct Folder {
            std::filesystem::path path = std::filesystem::temp_directory_path() /
                                         ("tessra-desktop-xdg-" + std::to_string(::getpid()));
            ~Folder() {
                std::error_code ignored;
                std::filesystem::remove_all(path, ignored);
            }
        };
        static const Folder xdg;
        opened = xdg.path / "opened.txt";
        std::filesystem::remove(opened);
        ::setenv("XDG_DATA_HOME", (xdg.path / "data").c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", (xdg.path / "config").c_str(), 1);
        ::setenv("XDG_DATA_DIRS", (xdg.path / "system").c_str(), 1);  // no system handlers
        const auto apps = xdg.path / "data" / "applications";
        if (std::filesystem::exists(apps)) return;
        std::filesystem::create_directories(apps);
        std::filesystem::create_directories(xdg.path / "config");
        std::filesystem::create_directories(xdg.path / "system");
        const auto script = xdg.path / "browser";
        std::ofstream(script) << "#!/bin/sh\nprintf '%s\\n' \"$1\" >> '" << opened.string() << "'\n";
        std::filesystem::permissions(script, std::filesystem::perms::owner_all);
        std::ofstream(apps / "stand-in-browser.desktop")
            << "[Desktop Entry]\nType=Application\nName=Stand-in browser\nExec=" << script.string()
            << " %u\nMimeType=x-scheme-handler/http;x-scheme-handler/https;\n";
        std::ofstream(xdg.path / "config" / "mimeapps.list")
            << "[Default Applications]\nx-scheme-handler/http=stand-in-browser.desktop\n"
               "x-scheme-handler/https=stand-in-browser.desktop\n";
    }

    /// The content of a mapped top-level window that `is` accepts, if any.
    static GtkWidget* shownWindowContent(bool (*is)(GtkWidget*)) {
        GtkWidget* found = nullptr;
        GList* windows = gtk_window_list_toplevels();
        for (GList* w = windows; w; w = w->next) {
            GtkWidget* child = gtk_bin_get_child(GTK_BIN(w->data));
            if (child && is(child) && gtk_widget_get_mapped(GTK_WIDGET(w->data))) found = child;
        }
        g_list_free(windows);
        return found;
    }

    void turn() { desktop.platform->runLoop->runFor(0.01); }
    bool turnUntil(const std::function<bool()>& done, double seconds = 5.0) {
        return test::pumpUntil([this] { turn(); }, done, seconds);
    }
    bool notifyCalls(std::size_t n) {
        return turnUntil([&] { return service->calls("Notify").size() >= n; });
    }

    /// A solid `width` x `height` PNG of one colour.
    std::string solidPng(int width, int height, std::array<std::uint8_t, 3> rgb) const {
        const auto count = static_cast<std::size_t>(width * height);
        std::shared_ptr<std::uint8_t> pixels(new std::uint8_t[count * 4], std::default_delete<std::uint8_t[]>());
        for (std::size_t i = 0; i < count; ++i)
            std::copy(rgb.begin(), rgb.end(), pixels.get() + 4 * i), pixels.get()[4 * i + 3] = 255;
        const auto file = home->path() / "solid.png";
        EXPECT_FALSE(platform::Image(width, height, pixels).writePNG(file));
        return readFile(file);
    }

    std::unique_ptr<test::PrivateBus> bus;
    std::unique_ptr<test::NotificationServiceStandIn> service;
    platform::desktop::Desktop desktop;
    std::shared_ptr<platform::UserNotificationCenter> centre;
    std::filesystem::path opened;
};

using DesktopNotifications = DesktopFixture;

TEST_F(DesktopNotifications, APushWithAnImageAndButtonsIsShownAndItsDeepLinkButtonReachesTheApp) {
    auto delegate = std::make_shared<RecordingDelegate>();
    TessraQuill::setTessraDelegate(delegate);
    // What the app's response callback does on the phone.
    centre->setResponseHandler(
        [](const platform::UNNotificationResponse& response) { TessraQuill::pushTrackOpen(true, response, nullptr); });
    backend->on("GET", "/img/photo.png", Answer::text(solidPng(4, 4, {200, 200, 200})).header("Content-Type", "image/png"));
    const ordered_json message = {
        {"image", backend->httpBase() + "/img/photo.png"},
        {"body", "Half price & more"},
        {"data", {{"url", "https://shop.test/sale"}, {"t", {backend->httpBase() + "/t/conversion"}}}},
        {"actions",
         {{{"action", "buy"}, {"title", "Buy"}, {"url", "shop://cart"}},
          {{"action", "later"}, {"title", "Later"}, {"url", "https://shop.test/later"}}}}};
    const auto content = receive(campaign(message), "push-1");
    ASSERT_EQ(content.attachments.size(), 1u) << "the image was not attached";
    ASSERT_TRUE(notifyCalls(1)) << "no Notify reached the notification service";

    Call shown = service->calls("Notify")[0];
    EXPECT_EQ(shown.appName, "Sample");
    EXPECT_EQ(shown.summary, "Sale");
    EXPECT_EQ(shown.body, "Half price &amp; more") << "the service reads markup";
    EXPECT_EQ(shown.hints["image-path"], content.attachments[0].url);
    EXPECT_TRUE(std::filesystem::exists(shown.hints["image-path"]));
    if (content.sound) {
        EXPECT_FALSE(shown.hints["sound-name"].empty());
    }
    // A click on the notification, then the two buttons as the category names them.
    std::vector<platform::UNNotificationCategory> categories;
    centre->getNotificationCategories([&](auto c) { categories = std::move(c); });
    pump();
    auto category = std::find_if(categories.begin(), categories.end(),
                                 [&](const auto& c) { return c.identifier == content.categoryIdentifier; });
    ASSERT_NE(category, categories.end());
    ASSERT_EQ(category->actions.size(), 2u);
    EXPECT_EQ(shown.actions, (std::vector<std::string>{"default", "Open", category->actions[0].identifier, "Buy",
                                                       category->actions[1].identifier, "Later"}));

    service->invokeAction(shown.id, category->actions[0].identifier);
    EXPECT_TRUE(turnUntil([&] { return !delegate->handled().empty(); })) << "the button never reached the app";
    turnUntil([&] { return !backend->requestsTo("/t/conversion").empty(); });
    EXPECT_EQ(delegate->handled(), std::vector<std::string>{"shop://cart"});
    EXPECT_EQ(backend->requestsTo("/t/conversion").size(), 1u) << "the open was reported";
}

TEST_F(DesktopNotifications, ANewerMessageOfATagClosesTheEarlierOne) {
    receive(campaign({{"tag", "sale"}, {"body", "First"}}), "first");
    ASSERT_TRUE(notifyCalls(1));
    receive(campaign({{"tag", "sale"}, {"body", "Second"}}), "second");
    ASSERT_TRUE(notifyCalls(2));
    ASSERT_TRUE(turnUntil([&] { return !service->calls("CloseNotification").empty(); }))
        << "the earlier notification stayed on the screen";
    const auto notified = service->calls("Notify");
    EXPECT_EQ(service->calls("CloseNotification")[0].id, notified[0].id);
    EXPECT_NE(notified[1].id, notified[0].id);
    EXPECT_EQ(notified[1].body, "Second");
}

TEST_F(DesktopNotifications, PermissionIsGrantedExactlyWhenTheServiceAnswers) {
    for (const bool running : {true, false}) {
        SCOPED_TRACE(running ? "service running" : "no service");
        if (!running) service.reset();
        // A fresh platform: the answer is not carried over.
        auto d = platform::desktop::makeDesktopPlatform({std::make_shared<platform::SystemClock>(), nullptr});
        std::atomic<int> answered{0};
        std::atomic<bool> granted{!running};
        d.platform->userNotificationCenter->requestAuthorization(7, [&](bool g, std::optional<std::string>) {
            granted = g;
            ++answered;
        });
        ASSERT_TRUE(test::pumpUntil([&] { d.platform->runLoop->runFor(0.01); }, [&] { return answered > 0; }));
        EXPECT_EQ(granted, running);
        std::optional<platform::UNAuthorizationStatus> status;
        d.platform->userNotificationCenter->getNotificationSettings(
            [&](platform::UNNotificationSettings s) { status = s.authorizationStatus; });
        d.platform->runLoop->runUntilIdle(5);
        EXPECT_EQ(status, running ? platform::UNAuthorizationStatus::authorized : platform::UNAuthorizationStatus::denied);
    }
}

using DesktopMainLoop = DesktopFixture;

TEST_F(DesktopMainLoop, AHostRunningTheGLibLoopGetsMainQueueWorkAndTimedNotifications) {
    const auto start = test::NotificationServiceStandIn::Clock::now();
    platform::UNNotificationRequest reminder;
    reminder.identifier = "reminder";
    reminder.content.title = "Come back";
    reminder.trigger = platform::UNTimeIntervalNotificationTrigger{0.3, false};
    centre->add(reminder, nullptr);
    std::atomic<bool> ran{false};
    std::thread worker([&] { platform::RunLoop::main().async([&] { ran = true; }); });

    // The host's own loop, and nothing else: no RunLoop pumping.
    struct Watch {
        GMainLoop* loop;
        std::atomic<bool>* ran;
        test::NotificationServiceStandIn* service;
    } watch{g_main_loop_new(nullptr, FALSE), &ran, service.get()};
    const guint poll = g_timeout_add(
        10,
        [](gpointer data) {
            auto* w = static_cast<Watch*>(data);
            if (*w->ran && !w->service->calls("Notify").empty()) g_main_loop_quit(w->loop);
            return gboolean(G_SOURCE_CONTINUE);
        },
        &watch);
    const guint guard = g_timeout_add_seconds(
        5,
        [](gpointer loop) {
            g_main_loop_quit(static_cast<GMainLoop*>(loop));
            return gboolean(G_SOURCE_REMOVE);
        },
        watch.loop);
    g_main_loop_run(watch.loop);
    g_source_remove(poll);
    g_source_remove(guard);
    g_main_loop_unref(watch.loop);
    worker.join();

    EXPECT_TRUE(ran) << "work posted from another thread never ran under the GLib loop";
    const auto notified = service->calls("Notify");
    ASSERT_EQ(notified.size(), 1u) << "the time-interval request did not fire under the GLib loop";
    EXPECT_EQ(notified[0].summary, "Come back");
    EXPECT_GE(notified[0].at - start, std::chrono::milliseconds(290)) << "fired before its time";
}

using DesktopApplication = DesktopFixture;

TEST_F(DesktopApplication, AWebLinkOpensInTheDefaultBrowserOtherSchemesStayWithTheApp) {
    auto& application = *desktop.platform->application;
    std::atomic<int> answers{0};
    std::atomic<bool> webOpened{false};
    application.open(*Url::parse("https://shop.test/sale?from=desktop"), [&](bool ok) {
        webOpened = ok;
        ++answers;
    });
    ASSERT_TRUE(turnUntil([&] { return answers == 1 && readFile(opened).find('\n') != std::string::npos; }))
        << "the default browser stand-in never ran";
    EXPECT_TRUE(webOpened);
    EXPECT_EQ(readFile(opened), "https://shop.test/sale?from=desktop\n");

    application.open(*Url::parse("shop://cart"), [&](bool) { ++answers; });
    ASSERT_TRUE(turnUntil([&] { return answers == 2; }));
    EXPECT_EQ(readFile(opened), "https://shop.test/sale?from=desktop\n") << "a custom scheme reached the browser";
    EXPECT_EQ(headless.application->openedURLs(), std::vector<std::string>{"shop://cart"});
}

TEST_F(DesktopApplication, TheBadgeIsShownAsTheLauncherEntrysCount) {
    auto& application = *desktop.platform->application;
    const std::string app = "application://" + platform::Bundle::main()->bundleIdentifier().value_or("?") + ".desktop";
    struct Case {
        std::int64_t badge;
        std::string count, visible;
    };
    for (const auto& c : std::vector<Case>{{3, "3", "true"}, {0, "0", "false"}}) {
        SCOPED_TRACE(c.badge);
        const auto before = service->calls("LauncherEntry.Update").size();
        application.setApplicationIconBadgeNumber(c.badge);
        ASSERT_TRUE(turnUntil([&] { return service->calls("LauncherEntry.Update").size() > before; }))
            << "no launcher-entry count on the bus; console: " << testing::PrintToString(console->lines());
        auto update = service->calls("LauncherEntry.Update").back();
        EXPECT_EQ(update.appName, app);
        EXPECT_EQ(update.hints["count"], c.count);
        EXPECT_EQ(update.hints["count-visible"], c.visible);
        EXPECT_EQ(application.applicationIconBadgeNumber(), c.badge);
    }
}

class DesktopPrompt : public DesktopFixture {
protected:
    void SetUp() override {
        // No GPU in a virtual display: the engine draws in software.
        ::setenv("WEBKIT_DISABLE_DMABUF_RENDERER", "1", 0);
        ::setenv("LIBGL_ALWAYS_SOFTWARE", "1", 0);
        ::setenv("NO_AT_BRIDGE", "1", 0);  // no accessibility bus on the private session bus
        const auto display = test::ensureDisplay();
        ASSERT_EQ(display, "") << "the prompt's window needs a display";
        DesktopFixture::SetUp();
        // The engine's network process reads the system's GSettings schemas (proxy settings).
        ::setenv("XDG_DATA_DIRS", "/usr/local/share:/usr/share", 1);
    }
    void TearDown() override {
        detail::setShouldPresentCustomPromt(false);
        ::unsetenv("TESSRA_WEB_HOST");
        DesktopFixture::TearDown();
    }

    /// The shown top-level window that holds a web view, if any.
    static WebKitWebView* pageView() {
        GtkWidget* view = shownWindowContent([](GtkWidget* w) { return WEBKIT_IS_WEB_VIEW(w) != FALSE; });
        return view ? WEBKIT_WEB_VIEW(view) : nullptr;
    }
};

TEST_F(DesktopPrompt, AllowOnTheSandboxPromptInWebKitPostsOkClosesTheWindowAndRegisters) {
    test::Sandbox sandbox;
    ASSERT_TRUE(sandbox.ready()) << "tessra-sandbox did not start";
    ::setenv("TESSRA_WEB_HOST", sandbox.exported("TESSRA_WEB_HOST").c_str(), 1);
    ASSERT_TRUE(desktop.windows->allowTlsCertificateForHost((sandbox.state() / "ca" / "server.pem").string(),
                                                             "127.0.0.1"));
    storage().set(StorageKey::autoconf,
                  std::string(R"({"push_config":{"enabled":true,"prompts":[{"id":"p1","options":{"delay":0}}]}})"));
    auto screen = std::make_shared<platform::ViewController>();
    headless.window->setRootViewController(screen);
    detail::setShouldPresentCustomPromt(true);

    TessraQuill::askForNotificationPermissionWith(screen);
    ASSERT_TRUE(turnUntil([] { return pageView() != nullptr; }, 10))
        << "no window shows the prompt page; console: " << testing::PrintToString(console->lines());
    WebKitWebView* view = pageView();
    GtkWindow* window = GTK_WINDOW(gtk_widget_get_toplevel(GTK_WIDGET(view)));
    EXPECT_FALSE(gtk_window_get_decorated(window));
    int width = 0, height = 0;
    gtk_window_get_size(window, &width, &height);
    EXPECT_EQ(width, static_cast<int>(headless.window->bounds().width)) << "the page covers the app's window";
    // The sandbox's script draws its card and says so through the console bridge.
    ASSERT_TRUE(turnUntil([&] { return console->contains("📗 JS log: tessra prompt shown: p1"); }, 15))
        << "the sandbox's prompt never showed; console: " << testing::PrintToString(console->lines());

    // The user taps Allow; the page also logs through the console.
    webkit_web_view_evaluate_javascript(
        view, "console.log('card', 1, {k: [2]}); document.getElementById('tx-prompt-allow').click();", -1,
        nullptr, nullptr, nullptr, nullptr, nullptr);
    const auto application = desktop.platform->application;
    EXPECT_TRUE(turnUntil([&] { return application->isRegisteredForRemoteNotifications(); }, 20))
        << "\"pns.ok\" never reached the app; console: " << testing::PrintToString(console->lines());
    EXPECT_EQ(screen->presentedViewController(), nullptr) << "the prompt stayed presented";
    EXPECT_TRUE(turnUntil([] { return pageView() == nullptr; })) << "the prompt's window stayed open";
    EXPECT_TRUE(console->contains(R"(📗 JS log: card, 1, {"k":[2]})"))
        << testing::PrintToString(console->lines());
}

class DesktopScreens : public DesktopFixture {
protected:
    void SetUp() override {
        const auto display = test::ensureDisplay();
        ASSERT_EQ(display, "") << "the ad's window needs a display";
        ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "GTK cannot open the display";
        DesktopFixture::SetUp();
        test::installMainBundle(home->path(), "com.example.sample", {{"TessraQuillTrackID", PlistValue("track-1")}});
        ::setenv("TESSRA_AD_HOST", backend->httpHost().c_str(), 1);
        ::setenv("TESSRA_AD_DEMO_PAGE", "https://ads.test/demo", 1);
        host = gtk_window_new(GTK_WINDOW_TOPLEVEL);
        gtk_window_set_default_size(GTK_WINDOW(host), 360, 640);
        gtk_widget_show_all(host);
        desktop.windows->setHostWindow(GTK_WINDOW(host));
        headless.window->setRootViewController(std::make_shared<platform::ViewController>());
    }
    void TearDown() override {
        if (host) gtk_widget_destroy(host);
        ::unsetenv("TESSRA_AD_HOST");
        ::unsetenv("TESSRA_AD_DEMO_PAGE");
        DesktopFixture::TearDown();
    }

    /// The shown window that draws the SDK's presented screens, if any.
    static GtkWidget* screenArea() {
        return shownWindowContent([](GtkWidget* w) { return GTK_IS_DRAWING_AREA(w) != FALSE; });
    }

    /// The colour on the display at `point` of `area`, as the X server has it.
    static std::array<int, 3> pixelAt(GtkWidget* area, platform::Point point) {
        GdkPixbuf* shot = gdk_pixbuf_get_from_window(gtk_widget_get_window(area), static_cast<int>(point.x),
                                                     static_cast<int>(point.y), 1, 1);
        if (!shot) return {-1, -1, -1};
        const guchar* p = gdk_pixbuf_get_pixels(shot);
        std::array<int, 3> rgb{p[0], p[1], p[2]};
        g_object_unref(shot);
        return rgb;
    }

    /// A press and release of the first mouse button at `point` of `area`, through the X server.
    static void click(GtkWidget* area, platform::Point point) {
        gint x = 0, y = 0;
        gdk_window_get_origin(gtk_widget_get_window(area), &x, &y);
        Display* display = GDK_DISPLAY_XDISPLAY(gtk_widget_get_display(area));
        XTestFakeMotionEvent(display, -1, x + static_cast<int>(point.x), y + static_cast<int>(point.y), CurrentTime);
        XTestFakeButtonEvent(display, 1, True, CurrentTime);
        XTestFakeButtonEvent(display, 1, False, CurrentTime);
        XFlush(display);
    }

    static platform::Point centre(const platform::View& view) {
        const auto r = view.convertToRoot(view.bounds());
        return {r.x + r.width / 2, r.y + r.height / 2};
    }

    /// Starts the SDK with ads; the feed's one ad has `md` and a solid `rgb` creative.
    void startWithCreative(std::array<std::uint8_t, 3> rgb, ordered_json md) {
        backend->on("GET", "/img/creative.png", Answer::text(solidPng(40, 30, rgb)).header("Content-Type", "image/png"));
        md["img"] = backend->httpBase() + "/img/creative.png";
        backend->on("GET", "/v1/display/track-1",
                    Answer::json(ordered_json{{"items", {{{"md", md}}}}, {"session_id", "s-1"}}.dump()));
        TessraQuill::initialize(TessraBuilder(std::string(kApiKey)).mavo().analytics(false).build());
        ASSERT_TRUE(turnUntil([] { return TessraQuill::initialized(); }));
    }

    static bool near(std::array<int, 3> a, std::array<int, 3> b) {
        for (int i = 0; i < 3; ++i)
            if (std::abs(a[i] - b[i]) > 3) return false;
        return true;
    }

    GtkWidget* host = nullptr;
};

struct Closed : InterstitialDelegate {
    void interstitialClosed(InterstitialAD&) override { closed = true; }
    bool closed = false;
};

TEST_F(DesktopScreens, AnInterstitialFillsTheAppsWindowWithItsCreativeAndTakesRealClicks) {
    startWithCreative({255, 0, 0}, {{"title", "Red"}});
    auto ad = InterstitialAD::create("Mobile_Interstitial");
    auto delegate = std::make_shared<Closed>();
    ad->setInterstitialDelegate(delegate);
    auto controller = ad->interstitialController;
    auto image = controller->iti->imageView();
    ASSERT_TRUE(turnUntil([&] { return image->image != nullptr; })) << "the creative never arrived; console: " << testing::PrintToString(console->lines());
    controller->isReady = true;
    ad->showAd();
    EXPECT_EQ(headless.screen->bounds(), (platform::Rect{0, 0, 360, 640})) << "the ad measures the app's window";
    ASSERT_TRUE(turnUntil([] { return screenArea() != nullptr; })) << "no window shows the interstitial";
    GtkWidget* area = screenArea();
    EXPECT_FALSE(gtk_window_get_decorated(GTK_WINDOW(gtk_widget_get_toplevel(area))));
    EXPECT_EQ(gtk_widget_get_allocated_width(area), 360);

    // Where the layout puts them: the creative over the top half, the close button over it
    // (white at 60% on red), the title's black panel below.
    headless.window->layoutIfNeeded();
    const auto button = controller->closeButton();
    const auto buttonFrame = button->convertToRoot(button->bounds());
    struct Spot {
        const char* what;
        platform::Point at;
        std::array<int, 3> rgb;
    };
    const std::vector<Spot> spots = {
        {"creative", centre(*image), {255, 0, 0}},
        {"close button", {buttonFrame.x + 3, buttonFrame.y + 3}, {255, 153, 153}},
        {"title panel", {350, 630}, {0, 0, 0}},
    };
    ASSERT_TRUE(turnUntil([&] { return near(pixelAt(area, spots[0].at), spots[0].rgb); }))
        << "the creative was never drawn; at its centre: " << testing::PrintToString(pixelAt(area, spots[0].at));
    for (const auto& spot : spots) {
        SCOPED_TRACE(spot.what);
        EXPECT_PRED2(near, pixelAt(area, spot.at), spot.rgb);
    }

    // A click on the creative opens the ad's page in the browser; one on X closes the ad.
    click(area, centre(*image));
    EXPECT_TRUE(turnUntil([&] { return readFile(opened) == "https://ads.test/demo\n"; }))
        << "the click on the creative opened nothing; browser got: " << readFile(opened);
    click(area, centre(*button));
    EXPECT_TRUE(turnUntil([&] { return delegate->closed && screenArea() == nullptr; }))
        << "the close button did not close the ad and its window";
    EXPECT_EQ(headless.window->rootViewController()->presentedViewController(), nullptr);
}

struct BannerHeard : AdBannerDelegate {
    void adBannerDidReceiveAd(BannerView&) override {}
    void bannerView(BannerView&, const TessraRequest::AdError&) override {}
    void adBannerWillPresentScreen(BannerView&) override {}
    void adBannerWillDismissScreen(BannerView&) override {}
    void adBannerWillLeaveApplication(BannerView&) override {}
    void adBannerClosed(BannerView&) override {}
};

TEST_F(DesktopScreens, ABannerWidgetInTheAppsWindowShowsTheAdAndAClickOpensItsPage) {
    startWithCreative({0, 0, 255}, {{"url", "https://ads.test/landing"}});
    auto delegate = std::make_shared<BannerHeard>();
    auto banner = std::make_shared<BannerView>(BannerSize::small, "Mobile_Banner", false, delegate);
    headless.window->rootViewController()->view()->addSubview(banner);
    GtkWidget* widget = desktop.windows->makeViewWidget(banner);
    ASSERT_NE(widget, nullptr);
    GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
    gtk_widget_set_halign(widget, GTK_ALIGN_CENTER);
    gtk_box_pack_end(GTK_BOX(box), widget, FALSE, FALSE, 0);
    gtk_container_add(GTK_CONTAINER(host), box);
    gtk_widget_show_all(host);
    banner->loadAd();

    const platform::Point middle{160, 25};
    ASSERT_TRUE(turnUntil([&] { return near(pixelAt(widget, middle), {0, 0, 255}); }))
        << "the banner's creative never showed; hidden: " << banner->isHidden
        << "; console: " << testing::PrintToString(console->lines());
    EXPECT_EQ(gtk_widget_get_allocated_height(widget), 50) << "the widget asks for the banner's size";
    gtk_window_resize(GTK_WINDOW(host), 420, 600);
    EXPECT_TRUE(turnUntil([&] { return headless.screen->bounds() == platform::Rect{0, 0, 420, 600}; }))
        << "the screen did not follow the app's window";
    click(widget, middle);
    EXPECT_TRUE(turnUntil([&] { return readFile(opened) == "https://ads.test/landing\n"; }))
        << "the click opened nothing; browser got: " << readFile(opened) << " console: " << testing::PrintToString(console->lines());
}

}  // namespace
}  // namespace tessrakite
