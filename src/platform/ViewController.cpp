#include <tessrakite/platform/ViewController.hpp>

#include <cstdio>
#include <memory>
#include <mutex>
#include <vector>

#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/View.hpp>
#include <tessrakite/platform/Window.hpp>

#include "platform/TypeName.hpp"

namespace tessrakite::platform {

namespace {
struct Hooks {
    std::mutex mutex;
    std::shared_ptr<ViewController::AppearanceHook> appear;
    std::shared_ptr<ViewController::AppearanceHook> disappear;
    bool installed = false;
};
Hooks& hooks() {
    static auto* h = new Hooks;  // never destroyed, like the SDK's other process-wide state
    return *h;
}

ModalPresentationStyle effective(ModalPresentationStyle style) {
    return style == ModalPresentationStyle::automatic ? ModalPresentationStyle::pageSheet : style;
}
}  // namespace

ViewController::ViewController() = default;

ViewController::~ViewController() {
    // What this screen presents goes with it: nothing above can stay on screen.
    for (auto c = presented_; c; c = c->presented_)
        if (c->view_) c->view_->removeFromSuperview();
    if (presented_) presented_->presenting_ = nullptr;
    if (view_ && view_->controller_ == this) view_->controller_ = nullptr;
}

std::shared_ptr<View> ViewController::view() {
    if (!view_) {
        loadView();
        if (!view_) setView(std::make_shared<View>());
        viewDidLoad();
    }
    return view_;
}

void ViewController::loadView() { setView(std::make_shared<View>()); }

void ViewController::setView(std::shared_ptr<View> view) {
    if (view_ && view_->controller_ == this) view_->controller_ = nullptr;
    view_ = std::move(view);
    if (view_) view_->controller_ = this;
}

void ViewController::viewDidAppear(bool) {
    std::shared_ptr<AppearanceHook> hook;
    {
        std::lock_guard lock(hooks().mutex);
        if (hooks().installed) hook = hooks().appear;
    }
    if (hook && *hook) (*hook)(*this);
}

void ViewController::viewDidDisappear(bool) {
    std::shared_ptr<AppearanceHook> hook;
    {
        std::lock_guard lock(hooks().mutex);
        if (hooks().installed) hook = hooks().disappear;
    }
    if (hook && *hook) (*hook)(*this);
}

Window* ViewController::window() const {
    const ViewController* c = this;
    while (c->presenting_) c = c->presenting_;
    return c->window_;
}

void ViewController::present(std::shared_ptr<ViewController> controller, bool animated,
                             std::function<void()> completion) {
    if (!controller) return;
    Window* w = window();
    if (!w) {
        Console::print("Attempt to present " + controller->description() + " on " + description() +
                       " whose view is not in the window hierarchy");
        return;
    }
    if (presented_) {
        Console::print("Attempt to present " + controller->description() + " on " + description() +
                       " which is already presenting " + presented_->description());
        return;
    }
    if (controller->presenting_ || controller->window_ || controller.get() == this) {
        Console::print("Application tried to present modally a view controller " + controller->description() +
                       " that is already on screen");
        return;
    }
    presented_ = controller;
    controller->presenting_ = this;
    const bool covers = effective(controller->modalPresentationStyle) == ModalPresentationStyle::fullScreen;
    auto shown = controller->view();
    shown->frame = w->bounds();
    w->addSubview(shown);
    shown->layoutIfNeeded();
    w->noteTransition("present", *controller, animated);
    controller->viewWillAppear(animated);
    if (covers) viewWillDisappear(animated);
    controller->viewDidAppear(animated);
    if (covers) {
        if (view_) view_->removeFromSuperview();
        viewDidDisappear(animated);
    }
    if (completion) completion();
}

void ViewController::dismiss(bool animated, std::function<void()> completion) {
    ViewController* presenter = presented_ ? this : presenting_;
    if (!presenter) return;
    Window* w = window();
    // Top first: everything above the presenter goes.
    std::vector<std::shared_ptr<ViewController>> chain;
    for (auto c = presenter->presented_; c; c = c->presented_) chain.insert(chain.begin(), c);
    const bool uncovers =
        effective(presenter->presented_->modalPresentationStyle) == ModalPresentationStyle::fullScreen;
    for (auto& c : chain) {
        if (w) w->noteTransition("dismiss", *c, animated);
        c->viewWillDisappear(animated);
    }
    if (uncovers) presenter->viewWillAppear(animated);
    if (uncovers && w && presenter->view_ && !presenter->view_->superview()) {
        // Back where it was: just below the first screen it presented.
        auto below = chain.back()->view_;
        const auto& views = w->subviews();
        std::size_t index = views.size();
        for (std::size_t i = 0; i < views.size(); ++i)
            if (views[i] == below) index = i;
        presenter->view_->frame = w->bounds();
        w->insertSubview(presenter->view_, index);
        presenter->view_->layoutIfNeeded();
    }
    for (auto& c : chain) {
        if (c->view_) c->view_->removeFromSuperview();
        c->presenting_ = nullptr;
        c->presented_.reset();
        c->viewDidDisappear(animated);
    }
    presenter->presented_.reset();
    if (uncovers) presenter->viewDidAppear(animated);
    if (completion) completion();
}

std::string ViewController::typeName() const { return demangledName(typeid(*this)); }

std::string ViewController::description() const {
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
    return "<" + typeName() + ": " + address + ">";
}

void ViewController::exchangeAppearanceHooks(AppearanceHook appear, AppearanceHook disappear) {
    std::lock_guard lock(hooks().mutex);
    auto& h = hooks();
    if (h.installed) {
        h.installed = false;
        h.appear.reset();
        h.disappear.reset();
    } else {
        h.installed = true;
        h.appear = std::make_shared<AppearanceHook>(std::move(appear));
        h.disappear = std::make_shared<AppearanceHook>(std::move(disappear));
    }
}

bool ViewController::appearanceHooksInstalled() {
    std::lock_guard lock(hooks().mutex);
    return hooks().installed;
}

}  // namespace tessrakite::platform
