// The service extension's work on a campaign push with a photo-sized JPEG (campaign fetch,
// image download, decode, PNG attachment written, content handler called), next to a bare
// baseline doing the same two fetches, decode and PNG write with the same libraries; its
// peak memory; and several processes of one app group counting and saving at once.

#include <benchmark/benchmark.h>

#include "BenchSupport.hpp"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <curl/curl.h>
#include <png.h>

#include <jpeglib.h>

#include <nlohmann/json.hpp>

#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/Platform.hpp>

#include "FakeBackend.hpp"
#include "Images.hpp"
#include "SdkFixture.hpp"
#include "TestEnv.hpp"
#include "core/FacadeState.hpp"

using namespace tessrakite;
using Clock = std::chrono::steady_clock;

namespace {

using bench::collect;
using bench::seconds;
using bench::statusKb;

/// An app whose extension is served a campaign with the sandbox's 1 MB photo.
struct Extension {
    test::ScopedHome home;
    test::FakeBackend backend;
    platform::headless::Headless headless;
    std::string jpeg;
    int width = 0, height = 0;

    Extension() {
        test::installMainBundle(home.path());
        sandbox::ImageLibrary library;
        const auto* photo = library.find("photo.jpg");
        jpeg = photo->bytes;
        width = photo->width;
        height = photo->height;
        backend.on("GET", "/img/photo.jpg", test::Answer::text(jpeg).header("Content-Type", "image/jpeg"));
        const nlohmann::ordered_json campaign = {
            {"p", {{{"o", {{"body", "Spring sale"}, {"image", backend.httpBase() + "/img/photo.jpg"}}}, {"t", "Sale"}}}}};
        backend.on("GET", "/campaign", test::Answer::json(campaign.dump()));
        headless = platform::headless::makeHeadlessPlatform({nullptr, platform::makeCurlUrlSession(test::trustingTestCa())});
        platform::setCurrentPlatform(headless.platform);
        detail::resetFacadeForTesting();
        TessraQuill::storageManager().set(StorageKey::push, true);
    }
    ~Extension() {
        headless.platform->runLoop->runUntilIdle(5);
        detail::resetFacadeForTesting();
        platform::setCurrentPlatform(nullptr);
    }

    std::string campaignUrl() const { return backend.httpsBase() + "/campaign?id=1"; }

    /// One push through the extension; true when the handler got the attachment.
    bool process(int n) {
        platform::UNNotificationRequest request;
        request.identifier = "bench-" + std::to_string(n);
        nlohmann::ordered_json push = {{"aps", {{"alert", {{"title", "Push"}, {"e", campaignUrl()}}}}}};
        request.content.userInfo = *PlistValue::fromJSON(push).asDictionary();
        std::atomic<bool> attached = false, done = false;
        TessraQuill::didReceiveNotification(request, request.content, [&](platform::UNNotificationContent content) {
            attached = content.attachments.size() == 1;
            done = true;
        });
        while (!done) headless.platform->runLoop->runFor(0.0005);
        return attached;
    }
};

/// The baseline: what an extension written by hand against the same libraries would do.
struct Bare {
    CURL* easy = curl_easy_init();
    std::string body;
    Bare() {
        curl_easy_setopt(easy, CURLOPT_CAINFO, test::testCaFile().c_str());
        curl_easy_setopt(easy, CURLOPT_CAPATH, "/etc/ssl/certs");
        curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, collect);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
    }
    ~Bare() { curl_easy_cleanup(easy); }
    std::string get(const std::string& url) {
        body.clear();
        curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
        curl_easy_perform(easy);
        return std::move(body);
    }
    static bool writePng(const std::string& path, const unsigned char* rgba, int width, int height) {
        FILE* file = std::fopen(path.c_str(), "wb");
        if (!file) return false;
        png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
        png_infop info = png_create_info_struct(png);
        if (setjmp(png_jmpbuf(png))) {
            png_destroy_write_struct(&png, &info);
            std::fclose(file);
            return false;
        }
        png_init_io(png, file);
        png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8,
                     PNG_COLOR_TYPE_RGBA, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
        png_write_info(png, info);
        for (int y = 0; y < height; ++y)
            png_write_row(png, rgba + static_cast<std::size_t>(y) * static_cast<std::size_t>(width) * 4);
        png_write_end(png, nullptr);
        png_destroy_write_struct(&png, &info);
        return std::fclose(file) == 0;
    }
    bool process(const std::string& campaignUrl, const std::string& out) {
        auto campaign = nlohmann::json::parse(get(campaignUrl + "&ver=2.0"));
        const std::string image = get(campaign["p"][0]["o"]["image"].get<std::string>());
        // libjpeg's default error handler exits the process: fine for a baseline.
        jpeg_decompress_struct info;
        jpeg_error_mgr error;
        info.err = jpeg_std_error(&error);
        jpeg_create_decompress(&info);
        jpeg_mem_src(&info, reinterpret_cast<const unsigned char*>(image.data()), image.size());
        jpeg_read_header(&info, TRUE);
        info.out_color_space = JCS_EXT_RGBA;
        jpeg_start_decompress(&info);
        const std::size_t stride = std::size_t{info.output_width} * 4;
        std::vector<unsigned char> rgba(stride * info.output_height);
        while (info.output_scanline < info.output_height) {
            JSAMPROW row = rgba.data() + stride * info.output_scanline;
            jpeg_read_scanlines(&info, &row, 1);
        }
        jpeg_finish_decompress(&info);
        const int w = static_cast<int>(info.output_width), h = static_cast<int>(info.output_height);
        jpeg_destroy_decompress(&info);
        return writePng(out, rgba.data(), w, h);
    }
};

void BM_ExtensionPhotoCampaign(benchmark::State& state) {
    Extension extension;
    Bare bare;
    const auto out = (extension.home.path() / "bare.png").string();
    extension.process(0);  // warm: connections, store files
    bare.process(extension.campaignUrl(), out);
    double sdk = 0, raw = 0;
    int n = 1;
    for (auto _ : state) {
        auto t = Clock::now();
        if (!extension.process(n++)) state.SkipWithError("no attachment");
        sdk += seconds(Clock::now() - t);
        t = Clock::now();
        if (!bare.process(extension.campaignUrl(), out)) state.SkipWithError("baseline failed");
        raw += seconds(Clock::now() - t);
    }
    const auto iterations = static_cast<double>(state.iterations());
    state.counters["sdk_ms"] = sdk / iterations * 1e3;
    state.counters["bare_ms"] = raw / iterations * 1e3;
    state.counters["sdk_to_bare_ratio"] = sdk / raw;
}
BENCHMARK(BM_ExtensionPhotoCampaign)->Iterations(20)->Unit(benchmark::kMillisecond);

// Measured in a fresh process, as an extension starts: in a process that already handled
// a photo, the allocator keeps the freed pixels and the peak hides in the resident size.
void BM_ExtensionPeakMemory(benchmark::State& state) {
    Extension extension;
    auto bundle = platform::Bundle::main();
    ::setenv("TESSRA_MAIN_BUNDLE", bundle->bundleURL().c_str(), 1);
    const double decodedMb = extension.width * extension.height * 4.0 / (1024 * 1024);
    for (auto _ : state) {
        for (const char* mode : {"cold", "warm"}) {
            int fds[2];
            if (::pipe(fds) != 0) return state.SkipWithError("pipe");
            const pid_t pid = ::fork();
            if (pid == 0) {
                ::dup2(fds[1], STDOUT_FILENO);
                const std::string url = extension.campaignUrl();
                ::execl("/proc/self/exe", "bench", "--memory", url.c_str(), mode, static_cast<char*>(nullptr));
                ::_exit(127);
            }
            ::close(fds[1]);
            std::string report;
            char buffer[256];
            for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) > 0;) report.append(buffer, static_cast<size_t>(n));
            ::close(fds[0]);
            int status = 0;
            ::waitpid(pid, &status, 0);
            double before = 0, peak = 0;
            if (std::sscanf(report.c_str(), "%lf %lf", &before, &peak) != 2) return state.SkipWithError("no report");
            state.counters[std::string("peak_above_rss_") + mode + "_MB"] = (peak - before) / 1024;
            state.counters[std::string("process_peak_") + mode + "_MB"] = peak / 1024;
        }
        state.counters["decoded_image_MB"] = decodedMb;
        state.counters["limit_MB"] = decodedMb + 4;
    }
    ::unsetenv("TESSRA_MAIN_BUNDLE");
}

/// The extension process: its platform and store open, then one photo push. With
/// `warmTls` the campaign is fetched once before, so the process's first TLS connection
/// (libssl's set-up, about 2.3 MB) is not counted.
int memoryChildMain(const std::string& campaignUrl, bool warmTls) {
    auto headless = platform::headless::makeHeadlessPlatform({nullptr, platform::makeCurlUrlSession(test::trustingTestCa())});
    platform::setCurrentPlatform(headless.platform);
    TessraQuill::storageManager().getBool(StorageKey::push);
    platform::UNNotificationRequest request;
    request.identifier = "memory";
    nlohmann::ordered_json push = {{"aps", {{"alert", {{"title", "Push"}, {"e", campaignUrl}}}}}};
    request.content.userInfo = *PlistValue::fromJSON(push).asDictionary();
    if (warmTls) {
        std::atomic<bool> fetched = false;
        TessraQuill::tessraRequest().campaignGet(campaignUrl, [&](std::optional<PCampaignObject>) { fetched = true; });
        while (!fetched) headless.platform->runLoop->runFor(0.0005);
    }
    const double before = statusKb("VmRSS");
    std::atomic<bool> done = false;
    TessraQuill::didReceiveNotification(request, request.content, [&](platform::UNNotificationContent) { done = true; });
    while (!done) headless.platform->runLoop->runFor(0.0005);
    std::printf("%f %f\n", before, statusKb("VmHWM"));
    std::fflush(stdout);
    return 0;
}

BENCHMARK(BM_ExtensionPeakMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

// ---- Several processes of one app group ----

constexpr int kProcesses = 10;
constexpr int kCountsEach = 200;
constexpr int kNotificationsEach = 50;

int childMain(const std::string& tag) {
    auto headless = platform::headless::makeHeadlessPlatform();
    platform::setCurrentPlatform(headless.platform);
    for (int i = 0; i < kCountsEach; ++i) TessraQuill::addNotificationCount(nullptr);
    for (int i = 0; i < kNotificationsEach; ++i) {
        const std::string id = tag + "-" + std::to_string(i);
        TessraQuill::saveConversions(Conversion{"https://shop.test/" + id, std::vector<std::string>{"https://t.test/" + id}},
                                     id);
    }
    headless.platform->runLoop->runUntilIdle(5);
    return 0;
}

void BM_AppGroupProcessesAtOnce(benchmark::State& state) {
    for (auto _ : state) {
        test::ScopedHome home;
        auto bundle = test::installMainBundle(home.path());
        ::setenv("TESSRA_MAIN_BUNDLE", bundle->bundleURL().c_str(), 1);
        auto headless = platform::headless::makeHeadlessPlatform();
        platform::setCurrentPlatform(headless.platform);
        detail::resetFacadeForTesting();
        TessraQuill::storageManager().set(StorageKey::push, true);
        const auto begin = Clock::now();
        std::vector<pid_t> children;
        for (int p = 0; p < kProcesses; ++p) {
            const pid_t pid = ::fork();
            if (pid == 0) {
                const std::string tag = "p" + std::to_string(p);
                ::execl("/proc/self/exe", "bench", "--child", tag.c_str(), static_cast<char*>(nullptr));
                ::_exit(127);
            }
            children.push_back(pid);
        }
        bool allOk = true;
        for (pid_t pid : children) {
            int status = 0;
            ::waitpid(pid, &status, 0);
            allOk &= WIFEXITED(status) && WEXITSTATUS(status) == 0;
        }
        state.counters["wall_s"] = seconds(Clock::now() - begin);
        auto& storage = TessraQuill::storageManager();
        const auto badge = storage.getIntFromStorage(StorageKey::badge).value_or(0);
        const auto urls = storage.getUrlsFromStorage().value_or(decltype(storage.getUrlsFromStorage())::value_type{});
        const auto conversions =
            storage.getCoversionsFromStorage().value_or(decltype(storage.getCoversionsFromStorage())::value_type{});
        state.counters["tx_badge"] = static_cast<double>(badge);
        state.counters["tx_url_entries"] = static_cast<double>(urls.size());
        state.counters["tx_t_entries"] = static_cast<double>(conversions.size());
        if (!allOk) state.SkipWithError("a child process failed");
        if (badge != kProcesses * kCountsEach || urls.size() != kProcesses * kNotificationsEach ||
            conversions.size() != kProcesses * kNotificationsEach)
            state.SkipWithError("updates were lost");
        detail::resetFacadeForTesting();
        platform::setCurrentPlatform(nullptr);
        ::unsetenv("TESSRA_MAIN_BUNDLE");
    }
}
BENCHMARK(BM_AppGroupProcessesAtOnce)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    if ((argc == 3 && std::string(argv[1]) == "--child") || (argc == 4 && std::string(argv[1]) == "--memory")) {
        curl_global_init(CURL_GLOBAL_DEFAULT);
        Console::setSink([](std::string_view) {});
        return argc == 3 ? childMain(argv[2]) : memoryChildMain(argv[2], std::string(argv[3]) == "warm");
    }
    return bench::runBenchmarks(argc, argv,
                                "Goals: sdk_to_bare_ratio <= 1.2; peak_above_rss_{cold,warm}_MB <= limit_MB; "
                                "tx_badge == 2000; tx_url_entries == tx_t_entries == 500.");
}
