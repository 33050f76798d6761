// The seam between the desktop platform and its WebKitGTK engine, which lives in a module
// of its own (libtessrakite-webkit.so) that is loaded at the first web view: linking
// WebKitGTK costs every process about 38 MB before it shows a single page.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include <tessrakite/platform/WebView.hpp>

typedef struct _GtkWindow GtkWindow;

namespace tessrakite::platform::desktop {

/// What an engine gets from the platform: how its window goes over the host's.
struct WebKitHost {
    /// Puts a window over the host's window, or gives it `fallback`'s size without one.
    std::function<void(GtkWindow*, Rect fallback)> cover;
    /// Makes a window an undecorated, see-through overlay.
    std::function<void(GtkWindow*)> makeOverlay;
};

/// One per process, never unloaded, used on the main queue: its web context (and the
/// certificates it accepts) serves every web view.
class WebKitModule {
public:
    virtual ~WebKitModule() = default;
    virtual std::unique_ptr<WebViewEngine> makeEngine(WebView& view, WebKitHost host) = 0;
    virtual bool allowTlsCertificateForHost(const std::string& certificateFile, const std::string& host) = 0;
};

}  // namespace tessrakite::platform::desktop

/// The module's one entry point: a new module object, which the caller owns.
extern "C" {
using TessraWebKitModuleFactory = tessrakite::platform::desktop::WebKitModule* (*)();
}
#define TESSRA_WEBKIT_MODULE_SYMBOL "tessra_webkit_module"
