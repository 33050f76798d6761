#include <tessrakite/platform/Platform.hpp>
#include <tessrakite/BuildConfig.hpp>
#include <tessrakite/platform/headless/HeadlessPlatform.hpp>
#if TESSRA_DESKTOP_PLATFORM
#include <tessrakite/platform/desktop/DesktopPlatform.hpp>
#endif

#include <mutex>

namespace tessrakite::platform {
namespace {
// Never destroyed: the platform's threads (the URL session's worker, the utility queue)
// may still run while the process exits, and must not find it torn down.
std::mutex& platformMutex() {
    static auto* m = new std::mutex;
    return *m;
}
std::shared_ptr<Platform>& platformSlot() {
    static auto* p = new std::shared_ptr<Platform>;
    return *p;
}
}  // namespace

std::shared_ptr<Platform> currentPlatform() {
    std::lock_guard lock(platformMutex());
    auto& slot = platformSlot();
#if TESSRA_DESKTOP_PLATFORM
    if (!slot) slot = desktop::makeDesktopPlatform().platform;
#else
    if (!slot) slot = headless::makeHeadlessPlatform().platform;
#endif
    return slot;
}

void setCurrentPlatform(std::shared_ptr<Platform> platform) {
    std::lock_guard lock(platformMutex());
    platformSlot() = std::move(platform);
}

}  // namespace tessrakite::platform
