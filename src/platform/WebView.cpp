#include <tessrakite/platform/WebView.hpp>

#include <utility>

#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/Platform.hpp>

namespace tessrakite::platform {

namespace {
std::shared_ptr<WebViewObserver> observer() {
    auto platform = currentPlatform();
    return platform ? platform->webViewObserver : nullptr;
}

class WeakHandler final : public ScriptMessageHandler {
public:
    explicit WeakHandler(std::weak_ptr<ScriptMessageHandler> target) : target_(std::move(target)) {}
    void userContentController(UserContentController& controller, const ScriptMessage& message) override {
        if (auto target = target_.lock()) target->userContentController(controller, message);
    }

private:
    std::weak_ptr<ScriptMessageHandler> target_;
};
}  // namespace

std::string ScriptMessage::bodyDescription() const {
    if (body.is_string()) return body.get<std::string>();
    return body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::shared_ptr<ScriptMessageHandler> ScriptMessageHandler::weakly(std::weak_ptr<ScriptMessageHandler> target) {
    return std::make_shared<WeakHandler>(std::move(target));
}

void UserContentController::addUserScript(UserScript script) { scripts_.push_back(std::move(script)); }

void UserContentController::addScriptMessageHandler(std::shared_ptr<ScriptMessageHandler> handler,
                                                    const std::string& name) {
    if (!handler) return;
    if (handlers_.count(name)) {
        Console::print("Attempt to add script message handler with name '" + name +
                       "' when one already exists.");
        return;
    }
    handlers_.emplace(name, std::move(handler));
}

void UserContentController::removeScriptMessageHandler(const std::string& name) { handlers_.erase(name); }

std::shared_ptr<ScriptMessageHandler> UserContentController::handler(const std::string& name) const {
    auto it = handlers_.find(name);
    return it == handlers_.end() ? nullptr : it->second;
}

std::vector<std::string> UserContentController::handlerNames() const {
    std::vector<std::string> names;
    for (const auto& entry : handlers_) names.push_back(entry.first);
    return names;
}

WebView::WebView(Rect frame, WebViewConfiguration configuration)
    : View(frame), configuration_(std::move(configuration)), scrollView_(std::make_shared<View>(bounds())) {
    if (!configuration_.preferences) configuration_.preferences = std::make_shared<WebPreferences>();
    if (!configuration_.userContentController)
        configuration_.userContentController = std::make_shared<UserContentController>();
    addSubview(scrollView_);
    if (auto o = observer()) o->webViewCreated(*this);
    if (auto platform = currentPlatform(); platform && platform->makeWebViewEngine)
        engine_ = platform->makeWebViewEngine(*this);
}

WebView::~WebView() = default;

void WebView::loadHTMLString(const std::string& html, const std::optional<Url>& baseURL) {
    html_ = html;
    baseURL_ = baseURL;
    ++loads_;
    if (auto o = observer()) o->webViewLoadedHTML(*this, html, baseURL);
    if (engine_) engine_->load(html, baseURL);
}

bool WebView::receiveScriptMessage(const std::string& name, nlohmann::ordered_json body) {
    auto controller = configuration_.userContentController;
    auto handler = controller->handler(name);
    if (!handler) {
        Console::print("No script message handler named '" + name + "'");
        return false;
    }
    // As from a real page: the post returns at once and the handler runs on the main queue.
    currentPlatform()->mainQueue().async(
        [controller, handler, message = ScriptMessage{name, std::move(body)}] {
            handler->userContentController(*controller, message);
        });
    return true;
}

void WebView::layoutSubviews() {
    scrollView_->frame = bounds();
    View::layoutSubviews();
}

}  // namespace tessrakite::platform
