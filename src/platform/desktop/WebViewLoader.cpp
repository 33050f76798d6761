// Web views on the desktop, through the WebKitGTK module loaded at the first one.
#include <dlfcn.h>

#include <filesystem>
#include <utility>
#include <vector>

#include <tessrakite/platform/Console.hpp>

#include "platform/desktop/GLibSupport.hpp"
#include "platform/desktop/GtkWindows.hpp"
#include "platform/desktop/WebKitModule.hpp"

namespace tessrakite::platform::desktop {
namespace {

constexpr const char* kModuleName = "libtessrakite-webkit.so";

/// The engine module, loaded once per process at first need and never unloaded; none, with
/// a console line, when it cannot be loaded. It sits next to this library.
WebKitModule* engineModule() {
    static WebKitModule* const loaded = []() -> WebKitModule* {
        std::string path = kModuleName;
        Dl_info self{};
        if (dladdr(reinterpret_cast<void*>(&engineModule), &self) && self.dli_fname) {
            auto beside = std::filesystem::path(self.dli_fname).parent_path() / kModuleName;
            std::error_code ignored;
            if (std::filesystem::exists(beside, ignored)) path = beside.string();
        }
        void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        const char* why = handle ? nullptr : dlerror();
        auto factory =
            handle ? reinterpret_cast<TessraWebKitModuleFactory>(dlsym(handle, TESSRA_WEBKIT_MODULE_SYMBOL)) : nullptr;
        if (!factory) {
            Console::print(std::string("Web views show nothing: the WebKitGTK engine cannot be loaded (") +
                           (why ? why : "no entry point in " + path) + ")");
            return nullptr;
        }
        return factory();
    }();
    return loaded;
}

class Loader final : public WebViewSupport {
public:
    explicit Loader(std::shared_ptr<HostWindow> host) : host_(std::move(host)) {}

    bool allowTlsCertificateForHost(const std::string& certificateFile, const std::string& host) override {
        // Read now, so that a bad file is told at once; handed to the engine when it loads,
        // since accepting a certificate is no reason to load WebKit.
        GError* error = nullptr;
        GTlsCertificate* certificate = g_tls_certificate_new_from_file(certificateFile.c_str(), &error);
        if (!certificate) {
            Console::print("Cannot read the certificate " + certificateFile + ": " + takeMessage(error));
            return false;
        }
        g_object_unref(certificate);
        pending_.emplace_back(certificateFile, host);
        return true;
    }

    std::unique_ptr<WebViewEngine> makeEngine(WebView& view) {
        WebKitModule* module = engineModule();
        if (!module) return nullptr;
        for (const auto& [file, host] : std::exchange(pending_, {})) module->allowTlsCertificateForHost(file, host);
        WebKitHost host;
        host.cover = [windows = host_](GtkWindow* window, Rect fallback) { windows->cover(window, fallback); };
        host.makeOverlay = makeOverlay;
        return module->makeEngine(view, std::move(host));
    }

private:
    std::shared_ptr<HostWindow> host_;
    std::vector<std::pair<std::string, std::string>> pending_;
};

}  // namespace

std::shared_ptr<WebViewSupport> installWebViewWindows(Platform& platform, std::shared_ptr<HostWindow> host) {
    auto loader = std::make_shared<Loader>(std::move(host));
    platform.makeWebViewEngine = [loader](WebView& view) -> std::unique_ptr<WebViewEngine> {
        if (!haveDisplay()) return nullptr;
        return loader->makeEngine(view);
    };
    return loader;
}

}  // namespace tessrakite::platform::desktop
