#include <tessrakite/platform/Window.hpp>

#include <tessrakite/platform/ViewController.hpp>

namespace tessrakite::platform {

Window::Window(Rect frame) : View(frame) { backgroundColor = Color::black(); }

Window::~Window() {
    if (root_) root_->window_ = nullptr;
}

void Window::setRootViewController(std::shared_ptr<ViewController> controller) {
    if (controller == root_) return;
    auto old = root_;
    const bool visible = key_ && !isHidden;
    if (old) {
        if (visible) old->viewWillDisappear(false);
        // What the old root presented leaves with it.
        for (auto c = old->presentedViewController(); c; c = c->presentedViewController())
            if (c->isViewLoaded()) c->view()->removeFromSuperview();
        if (old->isViewLoaded()) old->view()->removeFromSuperview();
        old->window_ = nullptr;
    }
    root_ = std::move(controller);
    if (root_) {
        if (root_->window_) root_->window_->setRootViewController(nullptr);
        root_->window_ = this;
        auto view = root_->view();
        view->frame = bounds();
        insertSubview(view, 0);
        view->layoutIfNeeded();
        if (visible) root_->viewWillAppear(false);
    }
    if (old && visible) old->viewDidDisappear(false);
    if (root_ && visible) root_->viewDidAppear(false);
}

void Window::makeKeyAndVisible() {
    const bool wasVisible = key_ && !isHidden;
    key_ = true;
    isHidden = false;
    if (!wasVisible && root_) {
        root_->viewWillAppear(false);
        root_->viewDidAppear(false);
    }
}

std::vector<ViewController*> Window::controllers() const {
    std::vector<ViewController*> out;
    for (ViewController* c = root_.get(); c; c = c->presentedViewController().get()) out.push_back(c);
    return out;
}

void Window::layoutSubviews() {
    for (auto* c : controllers())
        if (c->isViewLoaded() && c->view()->superview() == this) c->view()->frame = bounds();
    View::layoutSubviews();
}

}  // namespace tessrakite::platform
