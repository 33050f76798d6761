#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/Url.hpp>
#include <tessrakite/platform/View.hpp>

namespace tessrakite::platform {

class UserContentController;
class WebView;

struct TESSRA_EXPORT WebPreferences {
    bool javaScriptEnabled = true;
    bool javaScriptCanOpenWindowsAutomatically = false;
};

enum class UserScriptInjectionTime { atDocumentStart, atDocumentEnd };

/// A script the engine runs in every document the web view loads.
struct TESSRA_EXPORT UserScript {
    std::string source;
    UserScriptInjectionTime injectionTime = UserScriptInjectionTime::atDocumentEnd;
    bool forMainFrameOnly = true;
};

/// What a page posted with window.webkit.messageHandlers.<name>.postMessage(value).
struct TESSRA_EXPORT ScriptMessage {
    std::string name;
    nlohmann::ordered_json body;  // the posted value; a posted string stays a string
    /// The body as text: a string as it is, any other value in its JSON form.
    std::string bodyDescription() const;
};

/// Receives the messages of one named channel.
class TESSRA_EXPORT ScriptMessageHandler {
public:
    virtual ~ScriptMessageHandler() = default;
    virtual void userContentController(UserContentController& controller, const ScriptMessage& message) = 0;

    /// A handler that forwards to `target` while it lives. The content controller keeps its
    /// handlers alive, so an object that owns the web view registers itself through this
    /// and can still be released.
    static std::shared_ptr<ScriptMessageHandler> weakly(std::weak_ptr<ScriptMessageHandler> target);
};

/// The user scripts and named message channels shared by the web views of one
/// configuration. Belongs to the main queue, as the web views do.
class TESSRA_EXPORT UserContentController : public std::enable_shared_from_this<UserContentController> {
public:
    void addUserScript(UserScript script);
    const std::vector<UserScript>& userScripts() const { return scripts_; }
    void removeAllUserScripts() { scripts_.clear(); }
    /// Keeps `handler` for the channel `name`. A name already taken is refused with a console
    /// line (the phone raises).
    void addScriptMessageHandler(std::shared_ptr<ScriptMessageHandler> handler, const std::string& name);
    void removeScriptMessageHandler(const std::string& name);
    std::shared_ptr<ScriptMessageHandler> handler(const std::string& name) const;
    /// The channels that have a handler, by name.
    std::vector<std::string> handlerNames() const;

private:
    std::vector<UserScript> scripts_;
    std::map<std::string, std::shared_ptr<ScriptMessageHandler>> handlers_;
};

struct TESSRA_EXPORT WebViewConfiguration {
    std::shared_ptr<WebPreferences> preferences = std::make_shared<WebPreferences>();
    std::shared_ptr<UserContentController> userContentController = std::make_shared<UserContentController>();
};

/// Told of a page's navigation; every member has an empty default.
class TESSRA_EXPORT WebNavigationDelegate {
public:
    virtual ~WebNavigationDelegate() = default;
    virtual void webViewDidFinishNavigation(WebView& /*webView*/) {}
};

/// Asked for the page's windows and panels; every member has an empty default.
class TESSRA_EXPORT WebUIDelegate {
public:
    virtual ~WebUIDelegate() = default;
    virtual void webViewDidClose(WebView& /*webView*/) {}
};

/// Told what web views are made with and what they load. The headless platform reports
/// both as effects; a platform with a real engine hands them to it.
class TESSRA_EXPORT WebViewObserver {
public:
    virtual ~WebViewObserver() = default;
    virtual void webViewCreated(const WebView& /*webView*/) {}
    virtual void webViewLoadedHTML(const WebView& /*webView*/, const std::string& /*html*/,
                                   const std::optional<Url>& /*baseURL*/) {}
};

/// The browser engine behind one web view. The headless platform has none; a platform with
/// a real engine makes one for each web view (Platform::makeWebViewEngine) and the web view
/// hands it every load. The engine lives as long as its web view and belongs to the main
/// queue; what the page posts comes back through WebView::receiveScriptMessage.
class TESSRA_EXPORT WebViewEngine {
public:
    virtual ~WebViewEngine() = default;
    /// Shows `html` with the web view's configuration as it is now (its user scripts and
    /// the channels that have handlers by then).
    virtual void load(const std::string& html, const std::optional<Url>& baseURL) = 0;
};

/// A web view. The headless one runs no engine: it keeps what it was asked to load, tells
/// the platform's web view observer, and lets a host or test post script messages as the
/// page would. Belongs to the main queue.
class TESSRA_EXPORT WebView : public View {
public:
    WebView(Rect frame, WebViewConfiguration configuration);
    ~WebView() override;

    const WebViewConfiguration& configuration() const { return configuration_; }
    /// Loads `html` as the page; every load replaces the one before.
    void loadHTMLString(const std::string& html, const std::optional<Url>& baseURL);

    std::weak_ptr<WebNavigationDelegate> navigationDelegate;
    std::weak_ptr<WebUIDelegate> uiDelegate;
    bool isOpaque = true;
    /// The scrolling view that holds the page, filling the web view.
    const std::shared_ptr<View>& scrollView() const { return scrollView_; }

    /// The page last loaded, and how many loads there have been.
    const std::optional<std::string>& loadedHTML() const { return html_; }
    const std::optional<Url>& baseURL() const { return baseURL_; }
    std::size_t loadCount() const { return loads_; }

    /// The page posts `body` on the channel `name`: the handler registered under that name
    /// gets it on the main queue. False, with a console line, when no handler has that name.
    bool receiveScriptMessage(const std::string& name, nlohmann::ordered_json body);

    void layoutSubviews() override;

private:
    WebViewConfiguration configuration_;
    std::shared_ptr<View> scrollView_;
    std::optional<std::string> html_;
    std::optional<Url> baseURL_;
    std::size_t loads_ = 0;
    std::unique_ptr<WebViewEngine> engine_;  // none on the headless platform
};

}  // namespace tessrakite::platform
