#pragma once

#include <functional>
#include <memory>
#include <string>

#include <gio/gio.h>

#include <tessrakite/platform/MainQueue.hpp>
#include <tessrakite/platform/headless/HeadlessPlatform.hpp>

namespace tessrakite::platform::desktop {

/// Runs `work` on the default GMainContext: at once when the calling thread can own it,
/// else at the next turn of whoever runs it. Replies and signals of calls made from there
/// come back on that context too.
void onMainContext(std::function<void()> work);

/// The message of a GError, which it frees; "unknown error" for none.
std::string takeMessage(GError* error);

/// Opens a session-bus connection of our own (the shared one would end the process if the
/// bus went away) without waiting. `done` runs with the connection, which it then owns, or
/// none and why; not at all once `owner` is gone. Call it on the main context, where `done`
/// runs too.
void connectSessionBus(std::weak_ptr<void> owner,
                       std::function<void(GDBusConnection* connection, const std::string& why)> done);

/// Dispatches a run loop's items from the default GMainContext.
std::shared_ptr<RunLoopDriver> makeGLibDriver(RunLoop& runLoop);

/// A centre that keeps its requests in `store` and shows what it delivers on the session
/// bus's notification service. Answers to queries arrive on `answers`.
std::shared_ptr<UserNotificationCenter> makeBusNotificationCenter(
    std::shared_ptr<headless::HeadlessUserNotificationCenter> store, std::shared_ptr<headless::Effects> effects,
    std::shared_ptr<RunLoop> runLoop, std::shared_ptr<SerialQueue> answers);

/// The headless application with web links opened by the desktop's default handler and a
/// badge that goes out as the launcher entry's count.
std::shared_ptr<Application> makeDesktopApplication(std::shared_ptr<headless::HeadlessApplication> inner,
                                                    std::shared_ptr<headless::Effects> effects,
                                                    std::shared_ptr<RunLoop> runLoop);

}  // namespace tessrakite::platform::desktop
