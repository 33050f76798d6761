// A native ad load, from loadAd to the delegate's success on the main queue, against raw
// libcurl fetching the same feed over the same loopback HTTP and parsing it with a bare
// nlohmann parse, in the same run. Prints the ratio the goal is stated in.
#include <benchmark/benchmark.h>

#include "BenchSupport.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <curl/curl.h>
#include <nlohmann/json.hpp>

#include <tessrakite/ads/TessraAdLoader.hpp>
#include <tessrakite/core/TessraBuilder.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/platform/Console.hpp>

#include "FakeBackend.hpp"
#include "SdkFixture.hpp"
#include "TestEnv.hpp"

using namespace tessrakite;
using Clock = std::chrono::steady_clock;

namespace {

using bench::collect;
using bench::median;
using bench::seconds;

/// The baseline: one kept-alive libcurl easy handle with the SDK's request header, and a
/// bare parse of what it got.
struct RawCurl {
    CURL* easy = curl_easy_init();
    curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
    std::string body;
    RawCurl() {
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, collect);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");  // the same request headers as the SDK's
    }
    ~RawCurl() {
        curl_slist_free_all(headers);
        curl_easy_cleanup(easy);
    }
    std::size_t getAndParse(const std::string& url) {
        body.clear();
        curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
        curl_easy_perform(easy);
        return nlohmann::json::parse(body).size();
    }
};

/// A feed as the ad host sends it: one item with every creative key.
std::string feedBody(const std::string& http) {
    nlohmann::ordered_json md = {{"l2", "bench-l2"},
                                 {"img", http + "/img/ad.png"},
                                 {"cmpid", 1001},
                                 {"url", http + "/landing?l2=${l2}"},
                                 {"title", "Bench ad"},
                                 {"phone", "+10000000000"},
                                 {"downl", "Install"},
                                 {"sprice", "Free"},
                                 {"displayurl", "127.0.0.1"},
                                 {"cpm_t", {http + "/t/impression?l2=${l2}"}},
                                 {"cpv_t", {http + "/t/view?l2=${l2}"}},
                                 {"cpc_t", {http + "/t/click?l2=${l2}"}},
                                 {"creid", 2002}};
    nlohmann::ordered_json item = {{"md", md}, {"s", true}, {"w", 320}, {"r", "bench"}, {"h", 480}, {"l", "en"}, {"e", "x"}};
    return nlohmann::ordered_json{{"items", {item}}, {"session_id", "bench-session"}, {"callback", ""}, {"elapsed", 1},
                                  {"ts", "1700000000000"}}
        .dump();
}

/// An app with ads on and a backend, as the tests make it.
struct App : test::SdkFixture {
    void TestBody() override {}
    App() {
        SetUp();
        test::installMainBundle(home->path(), "com.example.sample", {{"TessraQuillTrackID", PlistValue("track-1")}});
        ::setenv("TESSRA_AD_HOST", backend->httpHost().c_str(), 1);
        backend->on("GET", "/v1/display/track-1", test::Answer::json(feedBody(backend->httpBase())));
        backend->on("GET", "/t/*", test::Answer::withStatus(204));
        TessraQuill::initialize(TessraBuilder(std::string(kApiKey)).mavo().analytics(false).build());
        pump();
    }
    ~App() override {
        TearDown();
        ::unsetenv("TESSRA_AD_HOST");
    }
    using SdkFixture::headless;
    using SdkFixture::pump;
};

struct Finished : TessraAdLoaderDelegate {
    std::atomic<bool> done{false};
    void adLoaderDidFinishLoading(TessraAdLoader&, const MavoObject&) override { done = true; }
};

void BM_NativeAdLoad(benchmark::State& state) {
    constexpr int kLoads = 200;
    App app;
    auto delegate = std::make_shared<Finished>();
    auto loader = std::make_shared<TessraAdLoader>(nullptr, NativeAdSize::fullScreen);
    loader->setDelegate(delegate);
    auto& runLoop = *app.headless.platform->runLoop;
    const auto url = TessraRequest::adFeedURL({loader->adWidth, loader->adHeight, loader->adWidth, loader->adHeight},
                                              "Mobile_Banner");
    RawCurl curl;
    curl.getAndParse(url);  // both sides start with a warm connection
    for (auto _ : state) {
        std::vector<double> sdk, raw;
        for (int i = 0; i < kLoads; ++i) {
            delegate->done = false;
            const auto begin = Clock::now();
            loader->loadAd(nullptr);
            while (!delegate->done) {
                if (runLoop.runOnce() == 0) std::this_thread::yield();
            }
            sdk.push_back(seconds(Clock::now() - begin));
            app.pump();  // the impression tracker, outside the timing

            const auto rawBegin = Clock::now();
            benchmark::DoNotOptimize(curl.getAndParse(url));
            raw.push_back(seconds(Clock::now() - rawBegin));
        }
        state.counters["load_median_us"] = median(sdk) * 1e6;
        state.counters["raw_get_parse_median_us"] = median(raw) * 1e6;
        state.counters["load_to_raw_ratio"] = median(sdk) / median(raw);
    }
}
BENCHMARK(BM_NativeAdLoad)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) { return bench::runBenchmarks(argc, argv, "Goals: load_to_raw_ratio <= 1.2."); }
