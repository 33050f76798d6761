// Web views on the desktop: WebKitGTK in a transparent, undecorated window over the host's.
// Built as its own module (see WebKitModule.hpp); only exported classes of the library are used.
#include <list>
#include <set>

#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/WebView.hpp>
#include <tessrakite/platform/Window.hpp>

#include "platform/desktop/WebKitModule.hpp"

namespace tessrakite::platform::desktop {
namespace {

class Windows final : public WebKitModule {
public:
    ~Windows() override {
        if (context_) g_object_unref(context_);
    }

    std::unique_ptr<WebViewEngine> makeEngine(WebView& view, WebKitHost host) override;

    bool allowTlsCertificateForHost(const std::string& certificateFile, const std::string& host) override {
        GError* error = nullptr;
        GTlsCertificate* certificate = g_tls_certificate_new_from_file(certificateFile.c_str(), &error);
        if (!certificate) {
            Console::print("Cannot read the certificate " + certificateFile + ": " +
                           (error ? error->message : "unknown error"));
            if (error) g_error_free(error);
            return false;
        }
        webkit_web_context_allow_tls_certificate_for_host(context(), certificate, host.c_str());
        g_object_unref(certificate);
        return true;
    }

    WebKitWebContext* context() {
        // Ephemeral: a prompt page keeps no cookies or caches on disk.
        if (!context_) context_ = webkit_web_context_new_ephemeral();
        return context_;
    }

private:
    WebKitWebContext* context_ = nullptr;
};

class GtkEngine final : public WebViewEngine {
public:
    GtkEngine(WebView& view, Windows& windows, WebKitHost host)
        : view_(view), windows_(windows), host_(std::move(host)) {}

    ~GtkEngine() override {
        if (content_) {
            g_signal_handlers_disconnect_by_data(content_, this);
            g_object_unref(content_);
        }
        // Closing the window ends the page: nothing it posts after this reaches the view.
        if (window_) gtk_widget_destroy(window_);
    }

    void load(const std::string& html, const std::optional<Url>& baseURL) override {
        if (!webView_) create();
        configure();
        const std::string base = baseURL ? baseURL->absoluteString() : std::string();
        webkit_web_view_load_html(webView_, html.c_str(), baseURL ? base.c_str() : nullptr);
        place();
        gtk_widget_show_all(window_);
    }

private:
    struct Channel {
        GtkEngine* engine;
        std::string name;
    };

    void create() {
        if (!content_) content_ = webkit_user_content_manager_new();
        webView_ = WEBKIT_WEB_VIEW(g_object_new(WEBKIT_TYPE_WEB_VIEW, "web-context", windows_.context(),
                                                "user-content-manager", content_, nullptr));
        window_ = gtk_window_new(GTK_WINDOW_TOPLEVEL);
        host_.makeOverlay(GTK_WINDOW(window_));
        gtk_container_add(GTK_CONTAINER(window_), GTK_WIDGET(webView_));
        // The user closing the window (or the window manager) forgets it here.
        g_signal_connect(window_, "destroy", G_CALLBACK(+[](GtkWidget*, gpointer self) {
                             auto* engine = static_cast<GtkEngine*>(self);
                             engine->window_ = nullptr;
                             engine->webView_ = nullptr;
                         }),
                         this);
    }

    /// The configuration as it is at this load: handlers are often added after the view is made.
    void configure() {
        const auto& configuration = view_.configuration();
        WebKitSettings* settings = webkit_web_view_get_settings(webView_);
        webkit_settings_set_enable_javascript(settings, configuration.preferences->javaScriptEnabled);
        webkit_settings_set_javascript_can_open_windows_automatically(
            settings, configuration.preferences->javaScriptCanOpenWindowsAutomatically);
        const GdkRGBA clear = {0, 0, 0, 0}, white = {1, 1, 1, 1};
        webkit_web_view_set_background_color(webView_, view_.isOpaque ? &white : &clear);

        auto& controller = *configuration.userContentController;
        webkit_user_content_manager_remove_all_scripts(content_);
        for (const auto& s : controller.userScripts()) {
            WebKitUserScript* script = webkit_user_script_new(
                s.source.c_str(),
                s.forMainFrameOnly ? WEBKIT_USER_CONTENT_INJECT_TOP_FRAME : WEBKIT_USER_CONTENT_INJECT_ALL_FRAMES,
                s.injectionTime == UserScriptInjectionTime::atDocumentStart ? WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START
                                                                             : WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_END,
                nullptr, nullptr);
            webkit_user_content_manager_add_script(content_, script);
            webkit_user_script_unref(script);
        }
        for (const auto& name : controller.handlerNames()) {
            if (registered_.count(name)) continue;
            registered_.insert(name);
            auto& channel = channels_.emplace_back(Channel{this, name});
            const std::string signal = "script-message-received::" + name;
            g_signal_connect_data(content_, signal.c_str(), G_CALLBACK(onMessage), &channel, nullptr, GConnectFlags{});
            webkit_user_content_manager_register_script_message_handler(content_, name.c_str());
        }
    }

    static void onMessage(WebKitUserContentManager*, WebKitJavascriptResult* result, gpointer data) {
        auto& channel = *static_cast<Channel*>(data);
        JSCValue* value = webkit_javascript_result_get_js_value(result);
        nlohmann::ordered_json body;
        if (jsc_value_is_string(value)) {
            gchar* text = jsc_value_to_string(value);
            body = std::string(text ? text : "");
            g_free(text);
        } else {
            gchar* json = jsc_value_to_json(value, 0);
            body = json ? nlohmann::ordered_json::parse(json, nullptr, false) : nlohmann::ordered_json();
            if (body.is_discarded()) body = nullptr;
            g_free(json);
        }
        // As the headless view's injected messages: the handler runs later, on the main queue.
        channel.engine->view_.receiveScriptMessage(channel.name, std::move(body));
    }

    /// Over the host's window when there is one, else the size of the SDK's window.
    void place() {
        host_.cover(GTK_WINDOW(window_), view_.window() ? view_.window()->bounds() : view_.frame);
    }

    WebView& view_;
    Windows& windows_;  // the module is never unloaded
    WebKitHost host_;
    GtkWidget* window_ = nullptr;
    WebKitWebView* webView_ = nullptr;
    WebKitUserContentManager* content_ = nullptr;
    std::set<std::string> registered_;
    std::list<Channel> channels_;  // signal data: addresses must not move
};

std::unique_ptr<WebViewEngine> Windows::makeEngine(WebView& view, WebKitHost host) {
    return std::make_unique<GtkEngine>(view, *this, std::move(host));
}

}  // namespace
}  // namespace tessrakite::platform::desktop

extern "C" __attribute__((visibility("default"))) tessrakite::platform::desktop::WebKitModule* tessra_webkit_module() {
    return new tessrakite::platform::desktop::Windows();
}
