#pragma once

#include <functional>
#include <string>

#include <tessrakite/Export.hpp>

namespace tessrakite::platform {

/// The base of a host's screens. C++ has no method exchange, so the base's appearance
/// callbacks call an installed hook instead; a host overriding them calls the base, as a
/// screen on the phone platform calls super.
class TESSRA_EXPORT ViewController {
public:
    virtual ~ViewController() = default;
    virtual void viewDidAppear(bool animated);
    virtual void viewDidDisappear(bool animated);

    /// The dynamic type's name, demangled ("MyApp::HomeScreen").
    virtual std::string typeName() const;
    /// "<TypeName: 0xADDR>".
    std::string description() const;

    using AppearanceHook = std::function<void(ViewController&)>;
    /// Swaps the installed hooks with the given ones: installs them when none are
    /// installed, removes them when they are, as an unguarded method exchange would.
    static void exchangeAppearanceHooks(AppearanceHook appear, AppearanceHook disappear);
    static bool appearanceHooksInstalled();
};

}  // namespace tessrakite::platform
