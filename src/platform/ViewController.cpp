#include <tessrakite/platform/ViewController.hpp>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>

#include <cxxabi.h>

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
}  // namespace

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

std::string ViewController::typeName() const {
    const char* mangled = typeid(*this).name();
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> demangled(abi::__cxa_demangle(mangled, nullptr, nullptr, &status),
                                                     std::free);
    return status == 0 && demangled ? std::string(demangled.get()) : std::string(mangled);
}

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
