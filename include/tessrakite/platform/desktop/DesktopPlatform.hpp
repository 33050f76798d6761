#pragma once

#include <memory>
#include <string>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/headless/HeadlessPlatform.hpp>

typedef struct _GtkWindow GtkWindow;
typedef struct _GtkWidget GtkWidget;

namespace tessrakite::platform::desktop {

/// What the desktop shows over the host's window, each in an undecorated GTK window of its
/// own that covers the host's and stays above it:
/// - web views (the permission prompt's page), running WebKitGTK, for as long as the web
///   view lives;
/// - the screens presented on the SDK's key window (the interstitial and app-open ads),
///   drawn by the same renderer as the headless snapshots, for as long as one is presented.
///   A click taps the view under it; the key window, and so the screen the ads measure,
///   takes the host window's size and follows it.
/// Used on the main queue. Without a display nothing is shown (web views only record what
/// they load, as on the headless platform) and a console line says why.
class TESSRA_EXPORT DesktopWindows {
public:
    virtual ~DesktopWindows() = default;
    /// The host's window; none: the SDK's windows take the key window's size.
    virtual void setHostWindow(GtkWindow* window) = 0;
    /// Accepts the certificate in the PEM file `certificateFile` for `host` only (a local
    /// test server) in web views; every other TLS error still fails the load. False, with a
    /// console line, when the file cannot be read.
    virtual bool allowTlsCertificateForHost(const std::string& certificateFile, const std::string& host) = 0;
    /// A widget for the host to pack that shows `view` (a banner): drawn by the renderer,
    /// redrawn when what it shows changes, asking for the view's size; a click taps the view
    /// under it. The view stays where the host put it in the SDK's tree, and the widget keeps
    /// it alive. None without a display.
    virtual GtkWidget* makeViewWidget(std::shared_ptr<View> view) = 0;
};

/// The platform of a Linux desktop session: the headless platform's services, except
/// - the main queue, which the GLib main loop (the default GMainContext) dispatches: a
///   host that runs g_main_loop_run or gtk_main needs nothing else, and a host that pumps
///   RunLoop turns the GLib loop with it;
/// - the user-notification centre, which shows what it delivers through the
///   org.freedesktop.Notifications service on the session bus and hands the user's
///   clicks back as responses;
/// - the application, which opens web links with the desktop's default handler;
/// - the application's badge, which goes out as the launcher entry's count;
/// - web views and presented screens, which show in windows of their own (DesktopWindows).
/// Details and choices in docs/desktop.md.
struct TESSRA_EXPORT Desktop {
    std::shared_ptr<Platform> platform;
    /// The services kept from the headless platform, for injection and observation. Its
    /// run loop, notification store and application state are the desktop's own.
    headless::Headless headless;
    /// The windows it shows over the host's.
    std::shared_ptr<DesktopWindows> windows;
};

/// Builds the desktop platform. Nothing talks to the session bus until a notification is
/// asked for, delivered or removed.
TESSRA_EXPORT Desktop makeDesktopPlatform(headless::HeadlessOptions options = {});

}  // namespace tessrakite::platform::desktop
