#pragma once

#include <memory>
#include <string>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/headless/HeadlessPlatform.hpp>

typedef struct _GtkWindow GtkWindow;

namespace tessrakite::platform::desktop {

/// Where the desktop's web views show: each in a transparent, undecorated GTK window of its
/// own, over the host's window (the permission prompt's page, for one). The window lives
/// as long as its web view. Used on the main queue. Without a display web views only
/// record what they load, as on the headless platform, and a console line says why.
class TESSRA_EXPORT WebViewWindows {
public:
    virtual ~WebViewWindows() = default;
    /// The host's window, which web view windows cover and stay above; none: they take the
    /// size of the SDK's key window.
    virtual void setHostWindow(GtkWindow* window) = 0;
    /// Accepts the certificate in the PEM file `certificateFile` for `host` only (a local
    /// test server); every other TLS error still fails the load. False, with a console
    /// line, when the file cannot be read.
    virtual bool allowTlsCertificateForHost(const std::string& certificateFile, const std::string& host) = 0;
};

/// The platform of a Linux desktop session: the headless platform's services, except
/// - the main queue, which the GLib main loop (the default GMainContext) dispatches: a
///   host that runs g_main_loop_run or gtk_main needs nothing else, and a host that pumps
///   RunLoop turns the GLib loop with it;
/// - the user-notification centre, which shows what it delivers through the
///   org.freedesktop.Notifications service on the session bus and hands the user's
///   clicks back as responses;
/// - the application, which opens web links with the desktop's default handler;
/// - web views, which run WebKitGTK in windows of their own (WebViewWindows).
/// Details and choices in docs/desktop.md.
struct TESSRA_EXPORT Desktop {
    std::shared_ptr<Platform> platform;
    /// The services kept from the headless platform, for injection and observation. Its
    /// run loop, notification store and application state are the desktop's own.
    headless::Headless headless;
    /// The windows of its web views.
    std::shared_ptr<WebViewWindows> webViews;
};

/// Builds the desktop platform. Nothing talks to the session bus until a notification is
/// asked for, delivered or removed.
TESSRA_EXPORT Desktop makeDesktopPlatform(headless::HeadlessOptions options = {});

}  // namespace tessrakite::platform::desktop
