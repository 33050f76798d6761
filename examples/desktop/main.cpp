// tessra-desktop-sample: a GTK 3 app on the desktop platform, against tessra-sandbox.
//
//   eval "$(grep '^export ' sandbox.log)"   # the sandbox's hosts and certificate authority
//   build-desktop/bin/tessra-desktop-sample [--screenshot DIR]
//
// Buttons: start the SDK, simulate a push (the service extension's path, shown as a desktop
// notification), show an interstitial (a window over this one), show a banner (a widget at
// the bottom of this window), ask for notification permission (the prompt page in WebKitGTK
// over this window). The SDK's console lines show in the window and on stdout.
// --screenshot DIR starts the SDK, simulates a push and shows a banner by itself, writes the
// window as DIR/desktop-app.png, then shows an interstitial and writes what the display
// shows over the window as DIR/desktop-interstitial.png, and quits.

#include <gtk/gtk.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include <tessrakite/ads/BannerView.hpp>
#include <tessrakite/ads/InterstitialAD.hpp>
#include <tessrakite/core/TessraBuilder.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/core/TessraQuillDelegate.hpp>
#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/FileRoots.hpp>
#include <tessrakite/platform/PlistValue.hpp>
#include <tessrakite/platform/ViewController.hpp>
#include <tessrakite/platform/Window.hpp>
#include <tessrakite/platform/desktop/DesktopPlatform.hpp>

#include "notification_ui/CustomPromt.hpp"

namespace {

using namespace tessrakite;
using nlohmann::ordered_json;

struct App {
    platform::desktop::Desktop desktop;
    std::shared_ptr<platform::ViewController> screen = std::make_shared<platform::ViewController>();
    GtkWidget* window = nullptr;
    GtkTextBuffer* log = nullptr;
    GtkWidget* logView = nullptr;
    GtkWidget* box = nullptr;
    int pushes = 0;
    std::shared_ptr<InterstitialAD> interstitial;
    std::shared_ptr<BannerView> banner;
};
App* app = nullptr;

std::string env(const char* name, const std::string& fallback = "") {
    const char* value = std::getenv(name);
    return value && *value ? value : fallback;
}

/// Appends a line to the log pane; console lines come from any thread, GTK only on its own.
void showLine(std::string line) {
    g_idle_add_full(G_PRIORITY_DEFAULT, [](gpointer data) -> gboolean {
        std::unique_ptr<std::string> text(static_cast<std::string*>(data));
        GtkTextIter end;
        gtk_text_buffer_get_end_iter(app->log, &end);
        gtk_text_buffer_insert(app->log, &end, (*text + "\n").c_str(), -1);
        gtk_text_buffer_get_end_iter(app->log, &end);
        gtk_text_view_scroll_to_iter(GTK_TEXT_VIEW(app->logView), &end, 0, FALSE, 0, 0);
        return G_SOURCE_REMOVE;
    }, new std::string(std::move(line)), nullptr);
}

class Delegate final : public TessraQuillDelegate {
public:
    void handleURL(const Url& url) override { Console::print("App: handle " + url.absoluteString()); }
    void notificationTokenChanged(const std::string& token) override { Console::print("App: push token " + token); }
    void tessraInited(bool inited) override { Console::print(inited ? "App: SDK started" : "App: SDK not started"); }
};

/// What the ads tell the app.
class Ads final : public InterstitialDelegate, public AdBannerDelegate {
public:
    void interstitialClosed(InterstitialAD&) override { Console::print("App: interstitial closed"); }
    void adBannerDidReceiveAd(BannerView&) override { Console::print("App: banner received"); }
    void bannerView(BannerView&, const TessraRequest::AdError&) override {
        Console::print("App: the banner's ad did not arrive");
    }
    void adBannerWillPresentScreen(BannerView&) override {}
    void adBannerWillDismissScreen(BannerView&) override {}
    void adBannerWillLeaveApplication(BannerView&) override {}
    void adBannerClosed(BannerView&) override { Console::print("App: banner closed"); }
};
std::shared_ptr<Ads> ads = std::make_shared<Ads>();

void start() {
    if (TessraQuill::initialized()) {
        Console::print("App: the SDK is already started");
        return;
    }
    TessraQuill::initialize(TessraBuilder(std::string("demo-key")).push().analytics(true).mavo().build());
}

bool started() {
    if (!TessraQuill::initialized()) Console::print("App: start the SDK first");
    return TessraQuill::initialized();
}

/// A full-window ad from the backend's feed, over this window until its X is clicked.
/// Readiness is the app's decision: this one shows the ad once its picture has arrived.
void showInterstitial() {
    if (!started()) return;
    app->interstitial = InterstitialAD::create("Mobile_Interstitial");
    app->interstitial->setInterstitialDelegate(ads);
    auto* waited = new int(0);
    g_timeout_add_full(G_PRIORITY_DEFAULT, 100, [](gpointer data) -> gboolean {
        int& ticks = *static_cast<int*>(data);
        auto ad = app->interstitial;
        if (!ad || !ad->interstitialController) return G_SOURCE_REMOVE;
        if (ad->interstitialController->iti->imageView()->image) {
            ad->interstitialController->isReady = true;
            ad->showAd();
            return G_SOURCE_REMOVE;
        }
        if (++ticks < 100) return G_SOURCE_CONTINUE;
        Console::print("App: the interstitial's picture did not arrive within 10 s");
        return G_SOURCE_REMOVE;
    }, waited, [](gpointer data) { delete static_cast<int*>(data); });
}

/// A banner at the bottom of the window: the SDK's view in its screen, shown by a widget.
void showBanner() {
    if (!started()) return;
    if (!app->banner) {
        app->banner = std::make_shared<BannerView>(BannerSize::small, "Mobile_Banner", true, ads);
        app->screen->view()->addSubview(app->banner);
        if (GtkWidget* widget = app->desktop.windows->makeViewWidget(app->banner)) {
            gtk_widget_set_halign(widget, GTK_ALIGN_CENTER);
            gtk_box_pack_end(GTK_BOX(app->box), widget, FALSE, FALSE, 0);
            gtk_widget_show(widget);
        }
    }
    app->banner->loadAd();
}

/// A campaign push as the service extension receives it; the content it hands back is
/// delivered through the desktop's notification centre, as the system does on the phone.
void simulatePush() {
    const std::string adHost = env("TESSRA_AD_HOST", "127.0.0.1");
    const ordered_json message = {
        {"body", "Half price on everything today"},
        {"image", "http://" + adHost + "/img/campaign.png"},
        {"data", {{"url", "https://tessrakite.io/demo"}}},
        {"actions",
         {{{"action", "open"}, {"title", "Open"}, {"url", "tessra://sandbox/open"}},
          {{"action", "later"}, {"title", "Later"}, {"url", "https://tessrakite.io/later"}}}}};
    platform::UNNotificationRequest request;
    request.identifier = "sample-push-" + std::to_string(++app->pushes);
    request.content.userInfo =
        *PlistValue::fromJSON(ordered_json{{"p", ordered_json::array({{{"o", message}, {"t", "Sale"}}})}}).asDictionary();
    auto centre = app->desktop.platform->userNotificationCenter;
    TessraQuill::didReceiveNotification(request, request.content, [centre, request](platform::UNNotificationContent c) mutable {
        request.content = std::move(c);
        centre->add(request, nullptr);
        Console::print("App: push " + request.identifier + " handed to the notification centre");
    });
}

void askForPermission() {
    // The custom page is what this sample shows; the SDK keeps the switch internal.
    detail::setShouldPresentCustomPromt(true);
    TessraQuill::askForNotificationPermissionWith(app->screen);
}

GtkWidget* button(const char* label, void (*action)()) {
    GtkWidget* b = gtk_button_new_with_label(label);
    g_signal_connect(b, "clicked", G_CALLBACK(+[](GtkButton*, gpointer a) { reinterpret_cast<void (*)()>(a)(); }),
                     reinterpret_cast<gpointer>(action));
    return b;
}

void buildWindow() {
    app->window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_title(GTK_WINDOW(app->window), "TessraKite desktop sample");
    gtk_window_set_default_size(GTK_WINDOW(app->window), 480, 560);
    g_signal_connect(app->window, "destroy", G_CALLBACK(gtk_main_quit), nullptr);

    GtkWidget* box = app->box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 8);
    gtk_container_set_border_width(GTK_CONTAINER(box), 12);
    GtkWidget* title = gtk_label_new(nullptr);
    gtk_label_set_markup(GTK_LABEL(title), "<big><b>TessraKite on the desktop</b></big>");
    const std::string backend = "Backend: " + env("TESSRA_CDN_HOST", "the build's default hosts");
    GtkWidget* subtitle = gtk_label_new(backend.c_str());
    gtk_box_pack_start(GTK_BOX(box), title, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), subtitle, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), button("Start the SDK", start), FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), button("Simulate a push", simulatePush), FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), button("Show an interstitial", showInterstitial), FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), button("Show a banner", showBanner), FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), button("Ask for notification permission", askForPermission), FALSE, FALSE, 0);

    app->logView = gtk_text_view_new();
    gtk_text_view_set_editable(GTK_TEXT_VIEW(app->logView), FALSE);
    gtk_text_view_set_monospace(GTK_TEXT_VIEW(app->logView), TRUE);
    gtk_text_view_set_wrap_mode(GTK_TEXT_VIEW(app->logView), GTK_WRAP_WORD_CHAR);
    app->log = gtk_text_view_get_buffer(GTK_TEXT_VIEW(app->logView));
    GtkWidget* scroll = gtk_scrolled_window_new(nullptr, nullptr);
    gtk_container_add(GTK_CONTAINER(scroll), app->logView);
    gtk_box_pack_start(GTK_BOX(box), scroll, TRUE, TRUE, 0);
    gtk_container_add(GTK_CONTAINER(app->window), box);
    gtk_widget_show_all(app->window);
}

/// The app's bundle (its identifier and display name) under TESSRA_HOME, unless
/// TESSRA_MAIN_BUNDLE names one.
void useSampleBundle() {
    if (!env("TESSRA_MAIN_BUNDLE").empty()) return;
    const auto folder = platform::FileRoots::home() / "Bundles" / "DesktopSample.app";
    platform::FileRoots::ensureDirectory(folder);
    platform::writePropertyList(folder / "Info.plist",
                                PlistValue(PlistDictionary{{"CFBundleIdentifier", "com.example.desktop-sample"},
                                                           {"TessraQuillTrackID", "desktop-sample"},
                                                           {"CFBundleName", "DesktopSample"},
                                                           {"CFBundleDisplayName", "TessraKite sample"},
                                                           {"CFBundleShortVersionString", "1.0"},
                                                           {"CFBundleVersion", "1"}}));
    platform::Bundle::setMain(platform::Bundle::open(folder));
}

/// The sandbox's server certificate sits next to its authority; the prompt page's engine
/// accepts it for 127.0.0.1 only.
void trustSandbox() {
    const std::string authority = env("TESSRA_CA_BUNDLE");
    if (authority.empty() || env("TESSRA_WEB_HOST").rfind("127.0.0.1:", 0) != 0) return;
    const auto server = std::filesystem::path(authority).parent_path() / "server.pem";
    if (std::filesystem::exists(server)) app->desktop.windows->allowTlsCertificateForHost(server.string(), "127.0.0.1");
}

/// What the display shows over the app's window, other windows above it included.
void writeScreenshot(const std::string& file) {
    GdkWindow* window = gtk_widget_get_window(app->window);
    gint x = 0, y = 0;
    gdk_window_get_origin(window, &x, &y);
    GdkPixbuf* shot = gdk_pixbuf_get_from_window(gdk_get_default_root_window(), x, y, gdk_window_get_width(window),
                                                 gdk_window_get_height(window));
    GError* error = nullptr;
    if (!shot || !gdk_pixbuf_save(shot, file.c_str(), "png", &error, nullptr)) {
        std::fprintf(stderr, "tessra-desktop-sample: no screenshot: %s\n", error ? error->message : "no window");
        if (error) g_error_free(error);
    }
    if (shot) g_object_unref(shot);
}

/// Runs `step` after `ms` milliseconds of the main loop.
void after(guint ms, std::function<void()> step) {
    g_timeout_add_full(G_PRIORITY_DEFAULT, ms, [](gpointer data) -> gboolean {
        (*static_cast<std::function<void()>*>(data))();
        return G_SOURCE_REMOVE;
    }, new std::function<void()>(std::move(step)),
                       [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
}

void screenshots(const std::string& folder) {
    start();
    after(1500, [] {
        simulatePush();
        showBanner();
    });
    after(4000, [folder] {
        writeScreenshot(folder + "/desktop-app.png");
        showInterstitial();
    });
    after(6500, [folder] {
        writeScreenshot(folder + "/desktop-interstitial.png");
        gtk_main_quit();
    });
}

}  // namespace

int main(int argc, char** argv) {
    if (!gtk_init_check(&argc, &argv)) {
        std::fprintf(stderr, "tessra-desktop-sample: no display (run it in a desktop session or under xvfb-run)\n");
        return 3;
    }
    const char* screenshot = argc == 3 && std::string(argv[1]) == "--screenshot" ? argv[2] : nullptr;
    App state;
    app = &state;
    Console::setSink([](std::string_view line) {
        std::printf("%.*s\n", static_cast<int>(line.size()), line.data());
        std::fflush(stdout);
        showLine(std::string(line));
    });

    useSampleBundle();
    state.desktop = platform::desktop::makeDesktopPlatform();
    platform::setCurrentPlatform(state.desktop.platform);
    state.desktop.headless.window->setRootViewController(state.screen);
    state.desktop.headless.window->makeKeyAndVisible();
    auto delegate = std::make_shared<Delegate>();
    TessraQuill::setTessraDelegate(delegate);
    // A click on a notification or one of its buttons: conversions, then the link.
    state.desktop.platform->userNotificationCenter->setResponseHandler(
        [](const platform::UNNotificationResponse& response) { TessraQuill::pushTrackOpen(true, response, nullptr); });

    buildWindow();
    trustSandbox();
    state.desktop.windows->setHostWindow(GTK_WINDOW(state.window));
    if (screenshot) screenshots(screenshot);
    gtk_main();  // the SDK's main queue runs from this loop
    Console::setSink(nullptr);
    return 0;
}
