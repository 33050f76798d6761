#include <tessrakite/notification_ui/TessraQuillCustomNotificationView.hpp>

#include <algorithm>
#include <utility>

#include <tessrakite/core/DecodingError.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/notification_ui/CustomPromtEvent.hpp>
#include <tessrakite/notification_ui/LoggingMessageHandler.hpp>
#include <tessrakite/platform/Console.hpp>

#include "notification_ui/CustomPromt.hpp"

namespace tessrakite {

namespace {
void replaceAll(std::string& text, const std::string& what, const std::string& with) {
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size()))
        text.replace(at, what.size(), with);
}
}  // namespace

TessraQuillCustomNotificationView::TessraQuillCustomNotificationView(std::optional<std::string>,
                                                                     std::shared_ptr<platform::Bundle>) {}

TessraQuillCustomNotificationView::~TessraQuillCustomNotificationView() {
    Console::print("❌ Deinited " + description());
}

void TessraQuillCustomNotificationView::loadView() {
    platform::WebViewConfiguration configuration;
    configuration.preferences->javaScriptEnabled = true;
    configuration.preferences->javaScriptCanOpenWindowsAutomatically = true;
    auto& content = *configuration.userContentController;
    content.addScriptMessageHandler(std::make_shared<LoggingMessageHandler>(), "logging");
    content.addUserScript({detail::consoleBridgeScript(), platform::UserScriptInjectionTime::atDocumentStart, true});

    webView = std::make_shared<platform::WebView>(platform::Rect{0, 0, 0.1, 0.1}, configuration);
    content.addScriptMessageHandler(ScriptMessageHandler::weakly(weak_from_this()), "JSBridge");
    webView->navigationDelegate = weak_from_this();
    webView->uiDelegate = weak_from_this();
    webView->isOpaque = false;
    webView->backgroundColor = platform::Color::clear();
    webView->scrollView()->backgroundColor = platform::Color::clear();
    setView(webView);
}

void TessraQuillCustomNotificationView::viewDidAppear(bool animated) {
    ViewController::viewDidAppear(animated);
    std::string document = promtHelper.storageManger.getStringFromStorage(StorageKey::autoconf).value_or("");
    document.erase(std::remove(document.begin(), document.end(), '\\'), document.end());
    std::string page = detail::promptPageTemplate();
    replaceAll(page, "AUTOCONF", document);
    if (webView) webView->loadHTMLString(page, std::nullopt);
}

void TessraQuillCustomNotificationView::userContentController(platform::UserContentController&,
                                                              const platform::ScriptMessage& message) {
    CustomPromtEvent event;
    try {
        event = CustomPromtEvent::decode(message.bodyDescription());
    } catch (const DecodingError& error) {
        fatalError("The prompt page posted a message that is not a prompt event: " + error.description());
    }
    dismiss(false, nullptr);
    if (event.event && event.event->find("ok") != std::string::npos) {
        TessraQuill::askForNotificationsPermission();
        return;
    }
    Console::print(event.description());
}

}  // namespace tessrakite
