// Screen views: reported from the screens' appearance hooks.
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/platform/ViewController.hpp>

#include "core/FacadeState.hpp"

namespace tessrakite {

namespace {
// System controllers that are not the host's screens; a substring test on the
// description, so a host class whose name contains one is excluded too.
constexpr const char* kExcluded[] = {
    "UIInputWindowController",   "UICompatibilityInputViewController", "UISystemKeyboardDockController",
    "UISystemInputAssistantViewController", "UIPredictionViewController", "UINavigationController",
    "UIEditingOverlayViewController",
};

bool excluded(const platform::ViewController& controller) {
    for (const char* name : kExcluded)
        if (controller.description().find(name) != std::string::npos) return true;
    return false;
}
}  // namespace

void viewDidLoadSwizzlingMethod(platform::ViewController& controller) {
    try {
        if (excluded(controller)) return;
        TessraQuill::tessraSendActivitySwizzle(ActivityCode::open, controller.typeName());
    } catch (const std::exception& e) {
        Console::print(std::string("TessraQuill: screen view not reported: ") + e.what());
    }
}

void viewDidDissapearSwizzlingMethod(platform::ViewController& controller) {
    // The same tests run, and a disappearance never reports.
    (void)excluded(controller);
}

}  // namespace tessrakite
