// A live surface (the desktop's ad windows and banner widgets) checks at every frame of the
// display whether what a view tree shows has changed, and redraws only then. Measured in
// the same run: the check (the tree's digest) against a redraw of the same screen, an
// interstitial-sized tree with a photo, its text, a close button and a row of labels.
#include <benchmark/benchmark.h>

#include "BenchSupport.hpp"

#include <cairo.h>

#include <cstdint>
#include <memory>
#include <vector>

#include <tessrakite/platform/Image.hpp>
#include <tessrakite/platform/View.hpp>
#include <tessrakite/platform/ViewSnapshot.hpp>

using namespace tessrakite::platform;

namespace {

constexpr int kWidth = 390, kHeight = 844;

std::shared_ptr<View> screen() {
    auto root = std::make_shared<View>(Rect{0, 0, kWidth, kHeight});
    root->backgroundColor = Color::black();
    const int w = 390, h = 422;
    std::shared_ptr<std::uint8_t> pixels(new std::uint8_t[w * h * 4], std::default_delete<std::uint8_t[]>());
    for (int i = 0; i < w * h * 4; ++i) pixels.get()[i] = static_cast<std::uint8_t>(i * 31 + i / 1024);
    auto photo = std::make_shared<ImageView>(std::make_shared<Image>(w, h, pixels));
    photo->frame = {0, 0, kWidth, 422};
    root->addSubview(photo);
    auto text = std::make_shared<TextView>();
    text->frame = {0, 422, kWidth, 422};
    text->text = "Half price on everything today: the sandbox's interstitial, with a title of some length.";
    root->addSubview(text);
    for (int i = 0; i < 12; ++i) {
        auto label = std::make_shared<Label>();
        label->frame = {16, 520.0 + 24 * i, 358, 20};
        label->text = "Line " + std::to_string(i) + " of the offer's small print";
        root->addSubview(label);
    }
    auto close = std::make_shared<Button>(Rect{16, 16, 30, 30});
    close->setTitle("X");
    close->backgroundColor = Color::white();
    close->alpha = 0.6;
    root->addSubview(close);
    return root;
}

void BM_FrameCheckAgainstRedraw(benchmark::State& state) {
    auto root = screen();
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, kWidth, kHeight);
    cairo_t* cr = cairo_create(surface);
    drawView(cr, *root);  // fonts and layouts warm on both sides
    for (auto _ : state) {
        std::vector<double> checks, redraws;
        for (int i = 0; i < 200; ++i) {
            const auto begin = bench::Clock::now();
            benchmark::DoNotOptimize(drawnState(*root));
            checks.push_back(bench::seconds(bench::Clock::now() - begin));
        }
        for (int i = 0; i < 30; ++i) {
            const auto begin = bench::Clock::now();
            drawView(cr, *root);
            cairo_surface_flush(surface);
            redraws.push_back(bench::seconds(bench::Clock::now() - begin));
        }
        state.counters["check_median_us"] = bench::median(checks) * 1e6;
        state.counters["redraw_median_us"] = bench::median(redraws) * 1e6;
        state.counters["check_to_redraw_ratio"] = bench::median(checks) / bench::median(redraws);
    }
    cairo_destroy(cr);
    cairo_surface_destroy(surface);
}
BENCHMARK(BM_FrameCheckAgainstRedraw)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    return bench::runBenchmarks(argc, argv,
                                "Goals: check_to_redraw_ratio <= 0.05 (a still screen costs under 5% of redrawing it).");
}
