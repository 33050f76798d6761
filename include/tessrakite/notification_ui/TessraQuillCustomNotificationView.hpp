#pragma once

#include <memory>
#include <optional>
#include <string>

#include <tessrakite/Export.hpp>
#include <tessrakite/notification_ui/NotificationPromtHelper.hpp>
#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/ViewController.hpp>
#include <tessrakite/platform/WebView.hpp>

namespace tessrakite {

/// The custom permission prompt: a transparent full-screen web view whose page (a remote
/// script of the web host, fed the stored configuration document) decides whether and how
/// to ask. The page answers on "JSBridge"; an answer whose event contains "ok" goes on to
/// the system's registration. Make it with std::make_shared: the page's messages reach it
/// through a weak reference, so that releasing it is not kept back by its own web view.
class TESSRA_EXPORT TessraQuillCustomNotificationView final
    : public platform::ViewController,
      public platform::ScriptMessageHandler,
      public platform::WebNavigationDelegate,
      public platform::WebUIDelegate,
      public std::enable_shared_from_this<TessraQuillCustomNotificationView> {
public:
    TessraQuillCustomNotificationView(std::optional<std::string> nibName = std::nullopt,
                                      std::shared_ptr<platform::Bundle> bundle = nullptr);
    /// Prints "❌ Deinited " and the description.
    ~TessraQuillCustomNotificationView() override;

    NotificationPromtHelper promtHelper;
    std::shared_ptr<platform::WebView> webView;  // made in loadView

    void loadView() override;
    /// Builds the page from the document stored now and loads it, at every appearance.
    void viewDidAppear(bool animated) override;
    /// A message on "JSBridge". A body that is not a prompt event is a fatal error.
    void userContentController(platform::UserContentController& controller,
                               const platform::ScriptMessage& message) override;
};

}  // namespace tessrakite
