#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/View.hpp>

namespace tessrakite::platform {

class ViewController;

/// The window that screens are shown in: its root controller's view and, above it, the
/// views of the controllers presented from there, each filling the window.
class TESSRA_EXPORT Window : public View {
public:
    explicit Window(Rect frame);
    ~Window() override;

    std::shared_ptr<ViewController> rootViewController() const { return root_; }
    /// Replaces the root; in a visible window the old root disappears and the new one
    /// appears (which is when a screen view is tracked).
    void setRootViewController(std::shared_ptr<ViewController> controller);
    void makeKeyAndVisible();
    bool isKeyWindow() const { return key_; }

    /// The insets that system bars and rounded corners take (the phone's notch and home
    /// indicator); views' safe areas derive from them.
    EdgeInsets windowSafeAreaInsets;

    /// The root controller and then every presented one, bottom to top.
    std::vector<ViewController*> controllers() const;

    /// Told of every presentation ("present") and dismissal ("dismiss").
    using TransitionObserver =
        std::function<void(const std::string& name, const ViewController& controller, bool animated)>;
    void setTransitionObserver(TransitionObserver observer) { observer_ = std::move(observer); }
    const TransitionObserver& transitionObserver() const { return observer_; }

    void layoutSubviews() override;

private:
    friend class ViewController;
    void noteTransition(const std::string& name, const ViewController& controller, bool animated) const {
        if (observer_) observer_(name, controller, animated);
    }

    std::shared_ptr<ViewController> root_;
    bool key_ = false;
    TransitionObserver observer_;
};

}  // namespace tessrakite::platform
