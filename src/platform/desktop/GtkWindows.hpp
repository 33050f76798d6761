// What the desktop shows over the host's window: web views and presented screens.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtk/gtk.h>

#include <tessrakite/platform/View.hpp>
#include <tessrakite/platform/headless/HeadlessPlatform.hpp>

namespace tessrakite::platform::desktop {

/// Whether GTK has a display; asked once, as GTK can only be set up once. The first "no"
/// prints a console line.
bool haveDisplay();

/// The host's window, which the SDK's own windows cover and follow. Main queue only.
class HostWindow {
public:
    ~HostWindow();
    void set(GtkWindow* window);
    GtkWindow* get() const { return window_; }
    /// Runs `changed` after each move or resize of the host's window, and once when one is set.
    void onChange(std::function<void()> changed) { listeners_.push_back(std::move(changed)); }
    /// Puts `window` over the host's window (same position and size, kept above it); with no
    /// host window, gives it `fallback`'s size.
    void cover(GtkWindow* window, Rect fallback) const;

private:
    void changed() const;
    GtkWindow* window_ = nullptr;
    gulong handler_ = 0;
    std::vector<std::function<void()>> listeners_;
};

/// Makes `window` undecorated and out of the task bar, and see-through where nothing is
/// drawn when a compositor blends windows (without one, an alpha window shows black).
void makeOverlay(GtkWindow* window);

class WebViewSupport {
public:
    virtual ~WebViewSupport() = default;
    virtual bool allowTlsCertificateForHost(const std::string& certificateFile, const std::string& host) = 0;
};
/// Gives `platform` web views that run WebKitGTK in windows of their own over the host's.
std::shared_ptr<WebViewSupport> installWebViewWindows(Platform& platform, std::shared_ptr<HostWindow> host);

class ScreenSupport {
public:
    virtual ~ScreenSupport() = default;
    virtual GtkWidget* makeViewWidget(std::shared_ptr<View> view) = 0;
};
/// Shows the screens presented on the headless key window in a window over the host's,
/// and makes the key window (and so the screen) the host window's size.
std::shared_ptr<ScreenSupport> installScreenWindows(const headless::Headless& headless,
                                                    std::shared_ptr<HostWindow> host);

}  // namespace tessrakite::platform::desktop
