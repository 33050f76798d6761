#pragma once

#include <functional>
#include <memory>
#include <string>

#include <tessrakite/Export.hpp>

namespace tessrakite::platform {

class View;
class Window;

/// How a presented screen covers the one below. `automatic` is `pageSheet`, as on current
/// phones. Only `fullScreen` takes the presenting screen's view away (and makes it
/// disappear); the others leave it in place beneath.
enum class ModalPresentationStyle { automatic, fullScreen, pageSheet, formSheet, overFullScreen, overCurrentContext };

/// Bits of the interface orientations a screen supports.
namespace InterfaceOrientationMask {
inline constexpr unsigned portrait = 1u << 1;
inline constexpr unsigned portraitUpsideDown = 1u << 2;
inline constexpr unsigned landscapeRight = 1u << 3;
inline constexpr unsigned landscapeLeft = 1u << 4;
inline constexpr unsigned landscape = landscapeLeft | landscapeRight;
inline constexpr unsigned all = portrait | portraitUpsideDown | landscape;
inline constexpr unsigned allButUpsideDown = portrait | landscape;
}  // namespace InterfaceOrientationMask

/// The base of a host's screens. C++ has no method exchange, so the base's appearance
/// callbacks call an installed hook instead; a host overriding them calls the base, as a
/// screen on the phone platform calls super.
class TESSRA_EXPORT ViewController {
public:
    ViewController();
    virtual ~ViewController();
    ViewController(const ViewController&) = delete;
    ViewController& operator=(const ViewController&) = delete;

    /// The root view, made on first use by loadView and then viewDidLoad.
    std::shared_ptr<View> view();
    bool isViewLoaded() const { return view_ != nullptr; }
    /// Makes a plain view; an override calls setView instead.
    virtual void loadView();
    void setView(std::shared_ptr<View> view);
    virtual void viewDidLoad() {}

    virtual void viewWillAppear(bool /*animated*/) {}
    virtual void viewDidAppear(bool animated);
    virtual void viewWillDisappear(bool /*animated*/) {}
    virtual void viewDidDisappear(bool animated);

    ModalPresentationStyle modalPresentationStyle = ModalPresentationStyle::automatic;
    /// Default: all but upside down, as a phone's screen.
    virtual unsigned supportedInterfaceOrientations() const { return InterfaceOrientationMask::allButUpsideDown; }
    virtual bool prefersStatusBarHidden() const { return false; }

    /// Shows `controller` modally over this one. This screen must be in a window and not
    /// presenting already; otherwise a console line says why and nothing happens. The
    /// transition takes no time: the appearance callbacks and `completion` run before this
    /// returns, whether animated or not.
    void present(std::shared_ptr<ViewController> controller, bool animated, std::function<void()> completion = nullptr);
    /// Dismisses what this screen presents (with everything above it), or, when it presents
    /// nothing, this screen itself from its presenter. Nothing happens, and the completion
    /// is not called, when there is nothing to dismiss.
    void dismiss(bool animated, std::function<void()> completion = nullptr);
    std::shared_ptr<ViewController> presentedViewController() const { return presented_; }
    ViewController* presentingViewController() const { return presenting_; }
    /// The window this screen is in (as root or presented above it), if any.
    Window* window() const;

    /// The dynamic type's name, demangled ("MyApp::HomeScreen").
    virtual std::string typeName() const;
    /// "<TypeName: 0xADDR>".
    std::string description() const;

    using AppearanceHook = std::function<void(ViewController&)>;
    /// Swaps the installed hooks with the given ones: installs them when none are
    /// installed, removes them when they are, as an unguarded method exchange would.
    static void exchangeAppearanceHooks(AppearanceHook appear, AppearanceHook disappear);
    static bool appearanceHooksInstalled();

private:
    friend class Window;
    std::shared_ptr<View> view_;
    std::shared_ptr<ViewController> presented_;
    ViewController* presenting_ = nullptr;
    Window* window_ = nullptr;  // set on the root controller only
};

}  // namespace tessrakite::platform
