#pragma once

#include <memory>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/headless/HeadlessPlatform.hpp>

namespace tessrakite::platform::desktop {

/// The platform of a Linux desktop session: the headless platform's services, except
/// - the main queue, which the GLib main loop (the default GMainContext) dispatches: a
///   host that runs g_main_loop_run or gtk_main needs nothing else, and a host that pumps
///   RunLoop turns the GLib loop with it;
/// - the user-notification centre, which shows what it delivers through the
///   org.freedesktop.Notifications service on the session bus and hands the user's
///   clicks back as responses;
/// - the application, which opens web links with the desktop's default handler.
/// Details and choices in docs/desktop.md.
struct TESSRA_EXPORT Desktop {
    std::shared_ptr<Platform> platform;
    /// The services kept from the headless platform, for injection and observation. Its
    /// run loop, notification store and application state are the desktop's own.
    headless::Headless headless;
};

/// Builds the desktop platform. Nothing talks to the session bus until a notification is
/// asked for, delivered or removed.
TESSRA_EXPORT Desktop makeDesktopPlatform(headless::HeadlessOptions options = {});

}  // namespace tessrakite::platform::desktop
