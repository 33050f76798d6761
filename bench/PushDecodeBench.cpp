// Decoding a campaign payload of about 4 KB through getNotificationContent, next to a bare
// nlohmann parse of the same bytes. The decode should cost at most twice the parse.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/platform/Console.hpp>

namespace {

using namespace tessrakite;

// A campaign the way the campaign endpoint answers: several entries, each with trackers,
// an image, buttons and a conversion.
std::string campaignPayload() {
    std::string out = R"({"p":[)";
    for (int i = 0; i < 7; ++i) {
        const auto n = std::to_string(i);
        if (i) out += ',';
        out += R"({"i":["https://track.tessrakite.io/v2/imp?c=4411&p=)" + n + R"(&u=8c1f2a"],)"
               R"("o":{"renotify":false,"el":1,"ap":"com.example.shop","an":"Shop","tc":"#FFFFFF","dc":"#101010",)"
               R"("cl":2,"tag":"spring-)" + n + R"(","sound":"ding","vibrate":[100,200,100],"badge":"+1",)"
               R"("image":"https://cdn.tessrakite.io/img/spring/)" + n + R"(.jpg",)"
               R"("body":"Spring collection, item )" + n + R"(: new colours are in, free delivery this week",)"
               R"("actions":[{"action":"buy","title":"Buy now","url":"shop://item/)" + n + R"("},)"
               R"({"action":"later","title":"Remind me"}],)"
               R"("data":{"url":"https://shop.example.com/item/)" + n + R"(","t":["https://track.tessrakite.io/v2/conv?c=4411&p=)" + n + R"("]},)"
               R"("silent":false,"tid":"task-4411","scl":true},"t":"Spring item )" + n + R"("})";
    }
    out += R"(],"t":["https://track.tessrakite.io/v2/campaign/seen?c=4411"]})";
    return out;
}

const std::string& payloadBytes() {
    static const std::string bytes = campaignPayload();
    return bytes;
}

platform::UNNotificationRequest requestFrom(const std::string& bytes) {
    platform::UNNotificationRequest request;
    request.identifier = "bench-request";
    request.content.userInfo = *PlistValue::fromJSON(nlohmann::json::parse(bytes)).asDictionary();
    return request;
}

void BM_BareParse(benchmark::State& state) {
    const auto& bytes = payloadBytes();
    for (auto _ : state) benchmark::DoNotOptimize(nlohmann::json::parse(bytes));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_BareParse);

// What the content extension does: the platform hands over the user info already decoded.
void BM_GetNotificationContent(benchmark::State& state) {
    const auto request = requestFrom(payloadBytes());
    for (auto _ : state) {
        auto content = TessraQuill::getNotificationContent({}, request);
        if (!content || content->notification.size() != 7) state.SkipWithError("payload did not decode");
        benchmark::DoNotOptimize(content);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * payloadBytes().size()));
}
BENCHMARK(BM_GetNotificationContent);

// From the bytes on: the parse into a user-info dictionary, then the decode.
void BM_BytesToNotificationContent(benchmark::State& state) {
    const auto& bytes = payloadBytes();
    for (auto _ : state) {
        auto content = TessraQuill::getNotificationContent({}, requestFrom(bytes));
        benchmark::DoNotOptimize(content);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_BytesToNotificationContent);

// Prints the usual table and keeps each benchmark's CPU time for the ratios (CPU time,
// because the build machines are shared); with repetitions, the median.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& reports) override {
        for (const auto& run : reports) {
            const auto& name = run.run_name.function_name;
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
                times[name] = run.GetAdjustedCPUTime();
                medians.insert(name);
            } else if (run.run_type == Run::RT_Iteration && !medians.count(name)) {
                times[name] = run.GetAdjustedCPUTime();
            }
        }
        ConsoleReporter::ReportRuns(reports);
    }
    std::map<std::string, double> times;
    std::set<std::string> medians;
};

}  // namespace

int main(int argc, char** argv) {
    Console::setSink([](std::string_view) {});  // the campaign is not a direct push: one line per decode
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    std::printf("payload: %zu bytes\n", payloadBytes().size());
    const auto& t = reporter.times;
    auto ratio = [&](const char* name) {
        auto it = t.find(name);
        auto base = t.find("BM_BareParse");
        if (it == t.end() || base == t.end() || base->second <= 0) return;
        std::printf("%s / BM_BareParse = %.2fx (CPU time)\n", name, it->second / base->second);
    };
    ratio("BM_GetNotificationContent");
    ratio("BM_BytesToNotificationContent");
    return 0;
}
