// tessra-page-driver: loads an HTML page into a real browser engine (WebKitGTK) the way the
// SDK's prompt view does (an HTML string without a base URL, a user script at document
// start in the main frame, message channels "JSBridge" and "logging"), and prints every
// message the page posts as a JSON line {"channel": ..., "body": ...}.
//
//   tessra-page-driver --html FILE [--user-script FILE] [--trust HOST=PEM]... [--eval JS]...
//                      [--quit-on TEXT] [--timeout-ms N] [--snapshot PNG --settle-ms N]
//                      [--width N --height N]
//
// --eval scripts run in order once the page has loaded. The driver ends when a message
// contains TEXT (exit 0), after the snapshot is written (exit 0), or at the timeout (exit 0
// without --quit-on, else 1). Without a display or engine it exits 3 with the reason.

#include <cairo.h>
#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace {

struct Options {
    std::string html;
    std::string userScript;
    std::vector<std::pair<std::string, std::string>> trusted;  // host, certificate file
    std::vector<std::string> evals;
    std::string quitOn;
    int timeoutMs = 10000;
    std::string snapshot;
    int settleMs = 1500;
    int width = 390;
    int height = 844;
};

struct Driver {
    Options options;
    GtkWidget* window = nullptr;
    WebKitWebView* view = nullptr;
    std::size_t nextEval = 0;
    bool loaded = false;
    int exitCode = 0;
};

bool readFile(const std::string& path, std::string& out) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream text;
    text << in.rdbuf();
    out = text.str();
    return true;
}

void finish(Driver& driver, int code) {
    driver.exitCode = code;
    gtk_main_quit();
}

struct Channel {
    Driver* driver;
    const char* name;
};

void onChannelMessage(WebKitUserContentManager*, WebKitJavascriptResult* result, gpointer data) {
    auto& channel = *static_cast<Channel*>(data);
    JSCValue* value = webkit_javascript_result_get_js_value(result);
    nlohmann::ordered_json body;
    if (jsc_value_is_string(value)) {
        gchar* text = jsc_value_to_string(value);
        body = std::string(text);
        g_free(text);
    } else {
        gchar* json = jsc_value_to_json(value, 0);
        body = json ? nlohmann::ordered_json::parse(json, nullptr, false) : nlohmann::ordered_json();
        g_free(json);
    }
    const std::string line =
        nlohmann::ordered_json{{"channel", channel.name}, {"body", body}}.dump(-1, ' ', false,
                                                                              nlohmann::json::error_handler_t::replace);
    std::cout << line << std::endl;
    auto& driver = *channel.driver;
    if (!driver.options.quitOn.empty() && line.find(driver.options.quitOn) != std::string::npos) {
        // A moment for anything the same event still posts.
        g_timeout_add(200, [](gpointer d) -> gboolean {
            finish(*static_cast<Driver*>(d), 0);
            return G_SOURCE_REMOVE;
        }, channel.driver);
    }
}

void onSnapshot(GObject* source, GAsyncResult* result, gpointer data) {
    auto& driver = *static_cast<Driver*>(data);
    GError* error = nullptr;
    cairo_surface_t* surface = webkit_web_view_get_snapshot_finish(WEBKIT_WEB_VIEW(source), result, &error);
    if (!surface) {
        std::cerr << "tessra-page-driver: no snapshot: " << (error ? error->message : "unknown error") << "\n";
        if (error) g_error_free(error);
        finish(driver, 1);
        return;
    }
    const auto status = cairo_surface_write_to_png(surface, driver.options.snapshot.c_str());
    cairo_surface_destroy(surface);
    if (status != CAIRO_STATUS_SUCCESS) {
        std::cerr << "tessra-page-driver: cannot write " << driver.options.snapshot << "\n";
        finish(driver, 1);
        return;
    }
    finish(driver, 0);
}

void runNextEval(Driver& driver);

void onEvaluated(GObject* source, GAsyncResult* result, gpointer data) {
    auto& driver = *static_cast<Driver*>(data);
    GError* error = nullptr;
    JSCValue* value = webkit_web_view_evaluate_javascript_finish(WEBKIT_WEB_VIEW(source), result, &error);
    if (error) {
        // A script that throws is part of what a test may want; the page's own handlers saw it.
        std::cerr << "tessra-page-driver: eval: " << error->message << "\n";
        g_error_free(error);
    }
    if (value) g_object_unref(value);
    runNextEval(driver);
}

void runNextEval(Driver& driver) {
    if (driver.nextEval < driver.options.evals.size()) {
        const auto& script = driver.options.evals[driver.nextEval++];
        webkit_web_view_evaluate_javascript(driver.view, script.c_str(), -1, nullptr, "tessra-page-driver.js", nullptr,
                                            onEvaluated, &driver);
        return;
    }
    if (!driver.options.snapshot.empty()) {
        g_timeout_add(static_cast<guint>(driver.options.settleMs), [](gpointer d) -> gboolean {
            auto& drv = *static_cast<Driver*>(d);
            webkit_web_view_get_snapshot(drv.view, WEBKIT_SNAPSHOT_REGION_VISIBLE, WEBKIT_SNAPSHOT_OPTIONS_TRANSPARENT_BACKGROUND,
                                         nullptr, onSnapshot, d);
            return G_SOURCE_REMOVE;
        }, &driver);
    }
}

void onLoadChanged(WebKitWebView*, WebKitLoadEvent event, gpointer data) {
    auto& driver = *static_cast<Driver*>(data);
    if (event != WEBKIT_LOAD_FINISHED || driver.loaded) return;
    driver.loaded = true;
    runNextEval(driver);
}

gboolean onLoadFailed(WebKitWebView*, WebKitLoadEvent, gchar* uri, GError* error, gpointer) {
    std::cerr << "tessra-page-driver: load failed: " << (uri ? uri : "") << ": " << error->message << "\n";
    return FALSE;
}

int usage() {
    std::cerr << "usage: tessra-page-driver --html FILE [--user-script FILE] [--trust HOST=PEM]... [--eval JS]...\n"
                 "       [--quit-on TEXT] [--timeout-ms N] [--snapshot PNG] [--settle-ms N] [--width N] [--height N]\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    Driver driver;
    auto& o = driver.options;
    std::string htmlFile, scriptFile;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (i + 1 >= argc) return usage();
        const std::string value = argv[++i];
        if (arg == "--html") htmlFile = value;
        else if (arg == "--user-script") scriptFile = value;
        else if (arg == "--trust" && value.find('=') != std::string::npos)
            o.trusted.emplace_back(value.substr(0, value.find('=')), value.substr(value.find('=') + 1));
        else if (arg == "--eval") o.evals.push_back(value);
        else if (arg == "--quit-on") o.quitOn = value;
        else if (arg == "--timeout-ms") o.timeoutMs = std::atoi(value.c_str());
        else if (arg == "--snapshot") o.snapshot = value;
        else if (arg == "--settle-ms") o.settleMs = std::atoi(value.c_str());
        else if (arg == "--width") o.width = std::atoi(value.c_str());
        else if (arg == "--height") o.height = std::atoi(value.c_str());
        else return usage();
    }
    if (htmlFile.empty() || !readFile(htmlFile, o.html)) {
        std::cerr << "tessra-page-driver: cannot read the page " << htmlFile << "\n";
        return 2;
    }
    if (!scriptFile.empty() && !readFile(scriptFile, o.userScript)) {
        std::cerr << "tessra-page-driver: cannot read the user script " << scriptFile << "\n";
        return 2;
    }

    // No GPU in a virtual display: draw in software.
    g_setenv("WEBKIT_DISABLE_DMABUF_RENDERER", "1", FALSE);
    g_setenv("LIBGL_ALWAYS_SOFTWARE", "1", FALSE);
    if (!gtk_init_check(&argc, &argv)) {
        std::cerr << "tessra-page-driver: GTK cannot open a display (DISPLAY="
                  << (std::getenv("DISPLAY") ? std::getenv("DISPLAY") : "unset")
                  << "); run it under a display or xvfb-run\n";
        return 3;
    }

    WebKitWebContext* context = webkit_web_context_new_ephemeral();
    for (const auto& [host, file] : o.trusted) {
        GError* error = nullptr;
        GTlsCertificate* certificate = g_tls_certificate_new_from_file(file.c_str(), &error);
        if (!certificate) {
            std::cerr << "tessra-page-driver: cannot read the certificate " << file << ": " << error->message << "\n";
            g_error_free(error);
            return 2;
        }
        // Only this certificate, only for this host: every other TLS error still fails the load.
        webkit_web_context_allow_tls_certificate_for_host(context, certificate, host.c_str());
        g_object_unref(certificate);
    }

    WebKitUserContentManager* content = webkit_user_content_manager_new();
    Channel channels[] = {{&driver, "JSBridge"}, {&driver, "logging"}};
    for (auto& channel : channels) {
        const std::string signal = std::string("script-message-received::") + channel.name;
        g_signal_connect(content, signal.c_str(), G_CALLBACK(onChannelMessage), &channel);
        webkit_user_content_manager_register_script_message_handler(content, channel.name);
    }
    if (!o.userScript.empty()) {
        WebKitUserScript* script =
            webkit_user_script_new(o.userScript.c_str(), WEBKIT_USER_CONTENT_INJECT_TOP_FRAME,
                                   WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, nullptr, nullptr);
        webkit_user_content_manager_add_script(content, script);
        webkit_user_script_unref(script);
    }

    driver.view = WEBKIT_WEB_VIEW(g_object_new(WEBKIT_TYPE_WEB_VIEW, "web-context", context,
                                               "user-content-manager", content, nullptr));
    WebKitSettings* settings = webkit_web_view_get_settings(driver.view);
    webkit_settings_set_enable_javascript(settings, TRUE);
    webkit_settings_set_javascript_can_open_windows_automatically(settings, TRUE);
    // The SDK's web view is not opaque: the app shows through where the page draws nothing.
    const GdkRGBA clear = {0, 0, 0, 0};
    webkit_web_view_set_background_color(driver.view, &clear);
    g_signal_connect(driver.view, "load-changed", G_CALLBACK(onLoadChanged), &driver);
    g_signal_connect(driver.view, "load-failed", G_CALLBACK(onLoadFailed), &driver);

    driver.window = gtk_offscreen_window_new();
    gtk_window_set_default_size(GTK_WINDOW(driver.window), o.width, o.height);
    gtk_widget_set_size_request(GTK_WIDGET(driver.view), o.width, o.height);
    gtk_container_add(GTK_CONTAINER(driver.window), GTK_WIDGET(driver.view));
    gtk_widget_show_all(driver.window);

    g_timeout_add(static_cast<guint>(o.timeoutMs), [](gpointer d) -> gboolean {
        auto& drv = *static_cast<Driver*>(d);
        if (!drv.options.quitOn.empty() || !drv.options.snapshot.empty()) {
            std::cerr << "tessra-page-driver: timed out" << (drv.loaded ? "" : " before the page loaded") << "\n";
            finish(drv, 1);
        } else {
            finish(drv, 0);
        }
        return G_SOURCE_REMOVE;
    }, &driver);

    webkit_web_view_load_html(driver.view, o.html.c_str(), nullptr);
    gtk_main();
    std::cout.flush();
    // Leave at once: tearing down the engine's processes is of no use to a one-shot driver.
    std::_Exit(driver.exitCode);
}
