// Start-up and screen-view costs against raw libcurl doing the same exchanges over
// loopback HTTPS, in the same run. Prints the ratios the goals are stated in.
#include <benchmark/benchmark.h>

#include "BenchSupport.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <set>
#include <thread>
#include <vector>

#include <curl/curl.h>

#include <tessrakite/core/TessraBuilder.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/platform/ViewController.hpp>

#include "FakeBackend.hpp"
#include "SdkFixture.hpp"
#include "TestEnv.hpp"
#include "core/FacadeState.hpp"

using namespace tessrakite;
using Clock = std::chrono::steady_clock;

namespace {

using bench::seconds;

double percentile(std::vector<double> samples, double p) {
    std::sort(samples.begin(), samples.end());
    return samples[static_cast<std::size_t>(p * static_cast<double>(samples.size() - 1))];
}

size_t discard(char*, size_t size, size_t n, void*) { return size * n; }

/// The baseline: one libcurl easy handle, kept alive, trusting what the SDK trusts (the
/// system's authorities and the test authority), so both pay the same TLS set-up.
struct RawCurl {
    CURL* easy = curl_easy_init();
    curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
    RawCurl() {
        curl_easy_setopt(easy, CURLOPT_CAINFO, test::testCaFile().c_str());
        curl_easy_setopt(easy, CURLOPT_CAPATH, "/etc/ssl/certs");
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, discard);
        curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");  // the same request headers as the SDK's
    }
    ~RawCurl() {
        curl_slist_free_all(headers);
        curl_easy_cleanup(easy);
    }
    void get(const std::string& url) {
        curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
        curl_easy_perform(easy);
    }
    void post(const std::string& url, const std::string& body) {
        curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.c_str());
        curl_easy_perform(easy);
    }
};

/// An app with a backend, as the tests make it.
struct App : test::SdkFixture {
    void TestBody() override {}
    App() { SetUp(); }
    ~App() override { TearDown(); }
    using SdkFixture::backend;
    using SdkFixture::pump;
    using SdkFixture::start;
};

struct NamedScreen : platform::ViewController {
    std::string typeName() const override { return "Home"; }
};

void BM_Initialize(benchmark::State& state) {
    std::vector<double> caller, ready, raw;
    for (auto _ : state) {
        App app;
        auto config = TessraBuilder(std::string("demo-key")).analytics(false).build();
        const auto begin = Clock::now();
        TessraQuill::initialize(config);
        caller.push_back(seconds(Clock::now() - begin));
        // The session writes and the request are on the caller's thread; the rest needs nothing
        // from the main queue. Poll finely so the loop does not round
        // the time up to its own wake-up interval.
        while (!TessraQuill::initialized()) std::this_thread::sleep_for(std::chrono::microseconds(20));
        ready.push_back(seconds(Clock::now() - begin));

        RawCurl curl;  // a fresh connection, as start-up has
        const auto rawBegin = Clock::now();
        curl.get(app.backend->httpsBase() + "/tag/demo-key.json");
        raw.push_back(seconds(Clock::now() - rawBegin));
    }
    state.counters["caller_p50_ms"] = percentile(caller, 0.5) * 1e3;
    state.counters["caller_p99_ms"] = percentile(caller, 0.99) * 1e3;
    state.counters["ready_median_ms"] = percentile(ready, 0.5) * 1e3;
    state.counters["raw_get_median_ms"] = percentile(raw, 0.5) * 1e3;
    state.counters["ready_to_raw_ratio"] = percentile(ready, 0.5) / percentile(raw, 0.5);
}
BENCHMARK(BM_Initialize)->Iterations(100)->Unit(benchmark::kMillisecond);

void BM_ScreenViewBurst(benchmark::State& state) {
    constexpr int kViews = 1000;
    for (auto _ : state) {
        App app;
        app.start();
        app.backend->clearRequests();
        NamedScreen screen;
        std::vector<double> perView;
        const auto begin = Clock::now();
        for (int i = 0; i < kViews; ++i) {
            const auto t = Clock::now();
            screen.viewDidAppear(true);
            perView.push_back(seconds(Clock::now() - t));
        }
        app.backend->waitForRequests(kViews, std::chrono::seconds(60));
        const double sdk = seconds(Clock::now() - begin);
        std::set<int> connections;
        std::vector<std::string> bodies;
        for (const auto& r : app.backend->requests()) {
            connections.insert(r.remotePort);
            bodies.push_back(r.body);
        }

        RawCurl curl;
        const auto url = app.backend->httpsBase() + "/v2/activity?type=mobile";
        const auto rawBegin = Clock::now();
        for (const auto& body : bodies) curl.post(url, body);
        const double raw = seconds(Clock::now() - rawBegin);

        state.counters["sdk_views_per_s"] = kViews / sdk;
        state.counters["raw_posts_per_s"] = static_cast<double>(bodies.size()) / raw;
        state.counters["throughput_ratio"] = (kViews / sdk) / (static_cast<double>(bodies.size()) / raw);
        state.counters["connections"] = static_cast<double>(connections.size());
        state.counters["caller_us_per_view_p50"] = percentile(perView, 0.5) * 1e6;
        state.counters["caller_us_per_view_mean"] = sdk > 0 ? [&] {
            double sum = 0;
            for (double v : perView) sum += v;
            return sum / kViews * 1e6;
        }() : 0;
    }
}
BENCHMARK(BM_ScreenViewBurst)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    return bench::runBenchmarks(argc, argv,
                                "Goals: caller_p99_ms <= 0.5; ready_to_raw_ratio <= 1.3; throughput_ratio >= 0.8; "
                                "connections <= 2; caller_us_per_view_mean <= 20.");
}
