// Ten banner targets playing ten different 60-frame 320x50 GIFs at once for ten seconds of
// real time on the headless main queue: the bytes of decoded frames the manager keeps
// against its limit, the main thread's CPU time per displayed frame, and the share of
// frames shown within one display tick (16.7 ms) of their due time.

#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <tessrakite/gif/GifManager.hpp>
#include <tessrakite/platform/Platform.hpp>
#include <tessrakite/platform/headless/HeadlessPlatform.hpp>

#include "BenchSupport.hpp"
#include "GifBuilder.hpp"
#include "TestEnv.hpp"

using namespace tessrakite;

namespace {

constexpr int kTargets = 10;
constexpr int kFrames = 60;
constexpr int kWidth = 320, kHeight = 50;
constexpr double kSeconds = 10.0;
constexpr double kTick = 1.0 / 60.0;

double threadCpuSeconds() {
    timespec t{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

using bench::statusKb;

// A bar sweeping across a banner; each GIF has its own colours, speed and delay.
Data banner(int which, int delayCs) {
    const auto shade = static_cast<std::uint8_t>(which * 20);
    const std::vector<test::Rgb> palette{{shade, 0, 0}, {255, shade, 0}, {0, 0, 255}, {255, 255, 255}};
    std::vector<test::GifFramePlan> frames;
    for (int f = 0; f < kFrames; ++f) {
        auto frame = test::GifFramePlan::filled(0, 0, kWidth, kHeight, 0);
        const int bar = (f * (3 + which) * 5) % kWidth;
        for (int y = 0; y < kHeight; ++y)
            for (int x = bar; x < std::min(bar + 24, kWidth); ++x)
                frame.indices[static_cast<std::size_t>(y * kWidth + x)] = static_cast<std::uint8_t>(1 + (y / 10) % 3);
        frame.delayCs = delayCs;
        frame.disposal = 1;
        frames.push_back(std::move(frame));
    }
    return test::makeGif(kWidth, kHeight, palette, 0, frames);
}

struct Banner final : GifTarget {
    std::shared_ptr<platform::Clock> clock;
    double delay = 0;
    double due = 0;
    std::size_t shown = 0, onTime = 0;
    double worstLate = 0;

    void showFrame(std::shared_ptr<platform::Image>) override {
        const double now = clock->now();
        // Every frame is due one delay after the one before, from the first.
        if (shown == 0) due = now;
        const double late = now - due;
        worstLate = std::max(worstLate, late);
        if (late <= kTick) ++onTime;
        ++shown;
        due += delay;
    }
};

}  // namespace

int main() {
    test::ScopedHome home;
    auto headless = platform::headless::makeHeadlessPlatform();
    platform::setCurrentPlatform(headless.platform);
    auto& loop = *headless.platform->runLoop;
    loop.adoptCurrentThread();

    GifManager manager;
    std::vector<std::shared_ptr<Banner>> banners;
    std::size_t encoded = 0;
    for (int i = 0; i < kTargets; ++i) {
        const int delayCs = 2 + i % 4;  // 20 to 50 ms
        auto gif = banner(i, delayCs);
        encoded += gif.size();
        auto target = std::make_shared<Banner>();
        target->clock = headless.platform->clock;
        target->delay = delayCs / 100.0;
        manager.play(std::move(gif), target);
        banners.push_back(std::move(target));
    }
    loop.runUntilIdle(30);

    const double cpuBefore = threadCpuSeconds();
    loop.runFor(kSeconds);
    const double cpu = threadCpuSeconds() - cpuBefore;

    std::size_t shown = 0, onTime = 0;
    double worstLate = 0;
    for (const auto& b : banners) {
        shown += b->shown;
        onTime += b->onTime;
        worstLate = std::max(worstLate, b->worstLate);
    }
    const double share = shown ? 100.0 * static_cast<double>(onTime) / static_cast<double>(shown) : 0;
    const double frameMb = kTargets * kFrames * kWidth * kHeight * 4 / 1e6;
    std::printf("GIFs: %d targets x %d frames of %dx%d (%.1f MB decoded in all, %.1f kB encoded), %.0f s real clock\n",
                kTargets, kFrames, kWidth, kHeight, frameMb, static_cast<double>(encoded) / 1e3, kSeconds);
    std::printf("kept_frames_MB %.2f of limit_MB %.2f; VmRSS_MB %.1f, VmHWM_MB %.1f\n",
                static_cast<double>(manager.memoryUsage()) / 1e6, static_cast<double>(manager.memoryLimit()) / 1e6,
                statusKb("VmRSS") / 1e3, statusKb("VmHWM") / 1e3);
    std::printf("frames_shown %zu; main_thread_us_per_frame %.1f; within_tick_share %.2f%%; worst_late_ms %.2f\n", shown,
                shown ? cpu * 1e6 / static_cast<double>(shown) : 0.0, share, worstLate * 1e3);
    std::printf("Goals: within_tick_share >= 99%%; kept_frames_MB <= limit_MB%s\n",
                share >= 99.0 && manager.memoryUsage() <= manager.memoryLimit() ? "" : "  MISSED");

    banners.clear();
    loop.runFor(0.1);
    platform::setCurrentPlatform(nullptr);
    return 0;
}
