#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <tessrakite/gif/GifDecoder.hpp>
#include <tessrakite/gif/GifManager.hpp>

#include "GifBuilder.hpp"
#include "SdkFixture.hpp"

using namespace tessrakite;
using test::GifFramePlan;

namespace {

using Rgba = std::array<std::uint8_t, 4>;
constexpr Rgba kRed{255, 0, 0, 255}, kGreen{0, 255, 0, 255}, kBlue{0, 0, 255, 255}, kClear{0, 0, 0, 0};
const std::vector<test::Rgb> kPalette{{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 255}};

Rgba pixelAt(const platform::Image& image, int x, int y) {
    Rgba out;
    std::memcpy(out.data(), image.rgba() + (static_cast<std::size_t>(y) * static_cast<std::size_t>(image.width()) + static_cast<std::size_t>(x)) * 4, 4);
    return out;
}

GifFramePlan frame(GifFramePlan plan, int delayCs, int disposal, int transparent = -1) {
    plan.delayCs = delayCs;
    plan.disposal = disposal;
    plan.transparent = transparent;
    return plan;
}

// 8x8, repeats once: red everywhere; a blue square with a transparent corner, cleared to
// the background afterwards; a green corner.
Data threeFrames(std::optional<int> loops = 1) {
    auto square = GifFramePlan::filled(2, 2, 4, 4, 2);
    square.indices[0] = 3;
    return test::makeGif(8, 8, kPalette, loops,
                         {frame(GifFramePlan::filled(0, 0, 8, 8, 0), 20, 1), frame(square, 0, 2, 3),
                          frame(GifFramePlan::filled(0, 0, 2, 2, 1), 50, 3)});
}

// 4x4, forever: red; a green corner drawn over it and taken back ("previous"); blue.
Data restoresPrevious() {
    return test::makeGif(4, 4, kPalette, 0,
                         {frame(GifFramePlan::filled(0, 0, 4, 4, 0), 1, 1), frame(GifFramePlan::filled(0, 0, 2, 2, 1), 5, 3),
                          frame(GifFramePlan::filled(2, 2, 2, 2, 2), 7, 0)});
}

// 2x8, one interlaced frame whose rows cycle through the four colours.
Data interlaced() {
    auto rows = GifFramePlan::filled(0, 0, 2, 8, 0);
    for (std::size_t i = 0; i < rows.indices.size(); ++i) rows.indices[i] = static_cast<std::uint8_t>((i / 2) % 3);
    rows.interlaced = true;
    return test::makeGif(2, 8, kPalette, std::nullopt, {rows});
}

struct Probe {
    int x, y;
    Rgba colour;
};

TEST(GifDecoder, ComposesEachFrameOnTheCanvasWithItsDelayDisposalAndTransparency) {
    struct Case {
        const char* name;
        Data gif;
        std::vector<double> delays;
        std::optional<int> loopCount;
        std::vector<std::vector<Probe>> frames;
    };
    const std::vector<Case> cases{
        {"background disposal, transparent index, delay 0 plays at 10 cs", threeFrames(), {0.2, 0.1, 0.5}, 1,
         {{{0, 0, kRed}, {3, 3, kRed}, {7, 7, kRed}},
          {{0, 0, kRed}, {2, 2, kRed}, {3, 3, kBlue}, {5, 5, kBlue}, {6, 6, kRed}},
          {{0, 0, kGreen}, {2, 2, kClear}, {5, 5, kClear}, {6, 6, kRed}, {7, 7, kRed}}}},
        {"previous disposal, delay 1 plays at 10 cs, loops forever", restoresPrevious(), {0.1, 0.05, 0.07}, 0,
         {{{0, 0, kRed}, {3, 3, kRed}}, {{0, 0, kGreen}, {1, 1, kGreen}, {3, 3, kRed}}, {{0, 0, kRed}, {1, 1, kRed}, {3, 3, kBlue}}}},
        {"no looping extension", threeFrames(std::nullopt), {0.2, 0.1, 0.5}, std::nullopt, {{}, {}, {}}},
        {"interlaced rows land in place", interlaced(), {0.1}, std::nullopt,
         {{{0, 0, kRed}, {1, 1, kGreen}, {0, 2, kBlue}, {1, 3, kRed}, {0, 4, kGreen}, {1, 5, kBlue}, {0, 7, kGreen}}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto animation = GifDecoder::decodeAll(c.gif);
        ASSERT_TRUE(animation);
        EXPECT_EQ(animation->loopCount, c.loopCount);
        ASSERT_EQ(animation->frames.size(), c.frames.size());
        for (std::size_t i = 0; i < c.frames.size(); ++i) {
            const auto& image = *animation->frames[i].image;
            EXPECT_DOUBLE_EQ(animation->frames[i].delay, c.delays[i]) << "frame " << i;
            for (const auto& probe : c.frames[i])
                EXPECT_EQ(pixelAt(image, probe.x, probe.y), probe.colour) << "frame " << i << " at " << probe.x << "," << probe.y;
        }
    }
}

TEST(GifDecoder, BadInputKeepsWhatDecodedOrFailsWithoutCrashing) {
    const Data full = threeFrames();
    const Data oneFrame = test::makeGif(8, 8, kPalette, 1, {frame(GifFramePlan::filled(0, 0, 8, 8, 0), 20, 1)});
    const Data twoFrames = test::makeGif(8, 8, kPalette, 1,
                                         {frame(GifFramePlan::filled(0, 0, 8, 8, 0), 20, 1), frame(GifFramePlan::filled(0, 0, 8, 8, 1), 20, 1)});
    // The two-frame file starts with the one-frame file minus its trailer.
    const std::size_t secondStart = oneFrame.size() - 1;
    const auto cut = [](const Data& d, std::size_t n) { return Data(d.begin(), d.begin() + static_cast<std::ptrdiff_t>(n)); };
    struct Case {
        const char* name;
        Data bytes;
        std::size_t frames;  // 0: a failure
    };
    const std::vector<Case> cases{
        {"empty", {}, 0},
        {"header only", cut(full, 6), 0},
        {"no frame", test::makeGif(8, 8, kPalette, 1, {}), 0},
        {"truncated in the first frame", cut(oneFrame, oneFrame.size() - 6), 0},
        {"truncated in the second frame", cut(twoFrames, secondStart + (twoFrames.size() - secondStart) / 2), 1},
        {"no trailer", cut(full, full.size() - 1), 3},
        {"65535x65535 canvas", test::makeGif(65535, 65535, kPalette, std::nullopt, {GifFramePlan::filled(0, 0, 1, 1, 0)}), 0},
        {"not a GIF", Data{0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n', 0, 0, 0, 0, 0, 0, 0, 0}, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto animation = GifDecoder::decodeAll(c.bytes);
        EXPECT_EQ(animation ? animation->frames.size() : 0u, c.frames);
    }
    // The pixel limit is the caller's: the same small GIF is refused under a lower one.
    EXPECT_FALSE(GifDecoder::decodeAll(full, 63));
}

/// Records what was shown: the time since the test started and which frame of `gif` it was.
struct Recorder final : GifTarget {
    std::shared_ptr<platform::Clock> clock;
    double start = 0;
    std::vector<std::shared_ptr<platform::Image>> frames;
    std::vector<std::pair<double, int>> shown;

    Recorder(std::shared_ptr<platform::Clock> c, const Data& gif) : clock(std::move(c)), start(clock->now()) {
        const auto animation = GifDecoder::decodeAll(gif);
        for (const auto& f : animation->frames) frames.push_back(f.image);
    }
    void showFrame(std::shared_ptr<platform::Image> image) override {
        const std::size_t size = static_cast<std::size_t>(image->width() * image->height() * 4);
        int index = -1;
        for (std::size_t i = 0; i < frames.size(); ++i)
            if (std::memcmp(frames[i]->rgba(), image->rgba(), size) == 0) index = static_cast<int>(i);
        shown.emplace_back(clock->now() - start, index);
    }
};

/// (time, frame) of a playback starting at 0, up to `until`; `plays` 0 is forever.
std::vector<std::pair<double, int>> schedule(const std::vector<double>& delays, int plays, double until) {
    std::vector<std::pair<double, int>> out;
    double t = 0;
    for (int play = 0; plays == 0 || play < plays; ++play)
        for (std::size_t i = 0; i < delays.size(); ++i) {
            if (t > until) return out;
            out.emplace_back(t, static_cast<int>(i));
            t += delays[i];
        }
    return out;
}

void expectShown(const Recorder& r, const std::vector<std::pair<double, int>>& expected) {
    ASSERT_EQ(r.shown.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_NEAR(r.shown[i].first, expected[i].first, 1e-4) << "show " << i;
        EXPECT_EQ(r.shown[i].second, expected[i].second) << "show " << i;
    }
}

class GifManagerTest : public test::SdkFixture {};

TEST_F(GifManagerTest, PlaysTwoTargetsOnTimeUntilStoppedOrDestroyedWithinTheMemoryLimit) {
    const Data a = threeFrames(), b = restoresPrevious();
    backend->on("GET", "/anim.gif", test::Answer::text(std::string(b.begin(), b.end())).header("Content-Type", "image/gif"));
    const auto url = *Url::parse(backend->httpBase() + "/anim.gif");
    // Frames: 8x8 (256 bytes) for the first GIF, 4x4 (64 bytes) for the second.
    struct Case {
        std::size_t limit;
        std::size_t kept;
    };
    for (const auto& c : std::vector<Case>{{GifManager::kDefaultMemoryLimit, 3 * 256 + 3 * 64}, {300, 3 * 64}, {0, 0}}) {
        SCOPED_TRACE(c.limit);
        GifManager manager;
        manager.setMemoryLimit(c.limit);
        auto first = std::make_shared<Recorder>(clock, a);
        auto second = std::make_shared<Recorder>(clock, b);
        manager.play(a, first);
        manager.play(url, second);
        pump();
        EXPECT_EQ(manager.memoryUsage(), c.kept);
        headless.platform->runLoop->runFor(2.0);
        // Played twice (one repeat), then it keeps its last frame; the other loops forever.
        expectShown(*first, schedule({0.2, 0.1, 0.5}, 2, 2.0));
        expectShown(*second, schedule({0.1, 0.05, 0.07}, 0, 2.0));

        const auto shownBeforeStop = second->shown.size();
        manager.stop(second);
        headless.platform->runLoop->runFor(1.0);
        EXPECT_EQ(second->shown.size(), shownBeforeStop);
        EXPECT_EQ(manager.playingCount(), 0u);

        // A destroyed target ends its playback and frees its frames.
        manager.play(b, second);
        pump();
        EXPECT_EQ(second->shown.size(), shownBeforeStop + 1);
        EXPECT_EQ(manager.playingCount(), 1u);
        second.reset();
        headless.platform->runLoop->runFor(1.0);
        EXPECT_EQ(manager.playingCount(), 0u);
        EXPECT_EQ(manager.memoryUsage(), 0u);
    }
}

TEST_F(GifManagerTest, AFailedFetchOrDecodeShowsNothingAndSaysWhy) {
    backend->on("GET", "/missing.gif", test::Answer::withStatus(404));
    const auto missing = backend->httpBase() + "/missing.gif";
    auto target = std::make_shared<Recorder>(clock, restoresPrevious());
    GifManager manager;
    manager.play(*Url::parse(missing), target);
    pump();
    EXPECT_TRUE(console->contains("GIF: cannot load " + missing + ": HTTP status 404"));
    manager.play(Data{'G', 'I', 'F'}, target);
    pump();
    EXPECT_TRUE(console->contains("GIF: cannot decode the GIF bytes"));
    EXPECT_TRUE(target->shown.empty());
    EXPECT_EQ(manager.playingCount(), 0u);
}

TEST_F(GifManagerTest, CallsFromAnotherThreadWhilePlayingStayWithinTheLimit) {
    const Data a = threeFrames(0), b = restoresPrevious();
    GifManager manager;
    std::vector<std::shared_ptr<Recorder>> targets;
    for (int i = 0; i < 4; ++i) targets.push_back(std::make_shared<Recorder>(clock, i % 2 ? a : b));
    std::atomic<bool> done{false};
    std::thread caller([&] {
        for (int round = 0; round < 200; ++round) {
            const auto& target = targets[static_cast<std::size_t>(round) % targets.size()];
            if (round % 3 == 2)
                manager.stop(target);
            else
                manager.play(round % 2 ? a : b, target);
            manager.setMemoryLimit(round % 5 == 0 ? 300 : GifManager::kDefaultMemoryLimit);
            EXPECT_LE(manager.memoryUsage(), manager.memoryLimit() + 3 * 256);  // a decoding in flight
        }
        done = true;
    });
    while (!done) headless.platform->runLoop->runFor(0.05);
    caller.join();
    manager.setMemoryLimit(300);
    pump();
    headless.platform->runLoop->runFor(1.0);
    EXPECT_LE(manager.memoryUsage(), 300u);
    for (const auto& t : targets) manager.stop(t);
    EXPECT_EQ(manager.playingCount(), 0u);
}

}  // namespace
