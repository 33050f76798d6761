#include <tessrakite/platform/Platform.hpp>
#include <tessrakite/platform/headless/HeadlessPlatform.hpp>

#include <mutex>

namespace tessrakite::platform {
namespace {
std::mutex& platformMutex() {
    static std::mutex m;
    return m;
}
std::shared_ptr<Platform>& platformSlot() {
    static std::shared_ptr<Platform> p;
    return p;
}
}  // namespace

std::shared_ptr<Platform> currentPlatform() {
    std::lock_guard lock(platformMutex());
    auto& slot = platformSlot();
    if (!slot) slot = headless::makeHeadlessPlatform().platform;
    return slot;
}

void setCurrentPlatform(std::shared_ptr<Platform> platform) {
    std::lock_guard lock(platformMutex());
    platformSlot() = std::move(platform);
}

}  // namespace tessrakite::platform
