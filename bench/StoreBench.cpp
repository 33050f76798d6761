// The shared store against raw prepared SQLite statements on the same file, in the same
// run: a cached typed read against a SELECT by key, and a write against an upsert.
// After the table, prints the two ratios and their goals.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include "platform/SqliteUserDefaults.hpp"

namespace {

using tessrakite::platform::SqliteUserDefaults;

constexpr const char* kReadKey = "tx_session_num";

struct Fixture {
    std::filesystem::path folder;
    std::shared_ptr<SqliteUserDefaults> store;
    std::shared_ptr<SqliteUserDefaults> storeWithoutPrecheck;
    sqlite3* raw = nullptr;
    sqlite3_stmt* select = nullptr;
    sqlite3_stmt* upsert = nullptr;

    bool open() {
        std::string pattern = (std::filesystem::temp_directory_path() / "tessra-bench-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) return false;
        folder = pattern;
        auto file = folder / "defaults.sqlite";
        store = SqliteUserDefaults::open(file);
        SqliteUserDefaults::Options options;
        options.walHeaderPrecheck = false;
        storeWithoutPrecheck = SqliteUserDefaults::open(file, options);
        if (!store || !storeWithoutPrecheck) return false;
        store->set(kReadKey, 42);

        // The baseline: one connection set up the way the store sets up its own.
        if (sqlite3_open_v2(file.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr) != SQLITE_OK)
            return false;
        sqlite3_busy_timeout(raw, 10'000);
        sqlite3_exec(raw, "PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr);
        return sqlite3_prepare_v3(raw, "SELECT type, value FROM defaults WHERE key = ?1", -1,
                                  SQLITE_PREPARE_PERSISTENT, &select, nullptr) == SQLITE_OK &&
               sqlite3_prepare_v3(raw,
                                  "INSERT INTO defaults(key, type, value) VALUES(?1, ?2, ?3) ON CONFLICT(key) "
                                  "DO UPDATE SET type = excluded.type, value = excluded.value",
                                  -1, SQLITE_PREPARE_PERSISTENT, &upsert, nullptr) == SQLITE_OK;
    }

    ~Fixture() {
        sqlite3_finalize(select);
        sqlite3_finalize(upsert);
        sqlite3_close_v2(raw);
        store.reset();
        storeWithoutPrecheck.reset();
        std::error_code ec;
        if (!folder.empty()) std::filesystem::remove_all(folder, ec);
    }
};

Fixture* fixture = nullptr;

void BM_StoreCachedRead(benchmark::State& state) {
    for (auto _ : state) {
        auto v = fixture->store->integer(kReadKey);
        benchmark::DoNotOptimize(v);
    }
}

void BM_StoreCachedReadDataVersionOnly(benchmark::State& state) {
    for (auto _ : state) {
        auto v = fixture->storeWithoutPrecheck->integer(kReadKey);
        benchmark::DoNotOptimize(v);
    }
}

void BM_RawSelect(benchmark::State& state) {
    sqlite3_stmt* s = fixture->select;
    for (auto _ : state) {
        sqlite3_bind_text(s, 1, kReadKey, -1, SQLITE_STATIC);
        sqlite3_int64 v = 0;
        if (sqlite3_step(s) == SQLITE_ROW && sqlite3_column_int64(s, 0) == 2) v = sqlite3_column_int64(s, 1);
        sqlite3_reset(s);
        benchmark::DoNotOptimize(v);
    }
}

void BM_StoreWrite(benchmark::State& state) {
    long long i = 0;
    for (auto _ : state) fixture->store->set("tx_badge", ++i);
}

void BM_RawUpsert(benchmark::State& state) {
    sqlite3_stmt* s = fixture->upsert;
    long long i = 0;
    for (auto _ : state) {
        sqlite3_bind_text(s, 1, "tx_openCounter", -1, SQLITE_STATIC);
        sqlite3_bind_int64(s, 2, 2);
        sqlite3_bind_int64(s, 3, ++i);
        if (sqlite3_step(s) != SQLITE_DONE) state.SkipWithError("upsert failed");
        sqlite3_reset(s);
    }
}

BENCHMARK(BM_StoreCachedRead)->MinTime(0.2)->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK(BM_StoreCachedReadDataVersionOnly)->MinTime(0.2)->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK(BM_RawSelect)->MinTime(0.2)->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK(BM_StoreWrite)->MinTime(0.2)->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK(BM_RawUpsert)->MinTime(0.2)->Repetitions(3)->ReportAggregatesOnly(true);

// Keeps each benchmark's median time per iteration for the ratio lines.
class MedianReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const auto& run : runs)
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median" && !run.error_occurred)
                medians[run.run_name.function_name] = run.GetAdjustedRealTime();
    }
    std::map<std::string, double> medians;
};

void printRatio(const MedianReporter& r, const char* what, const std::string& a, const std::string& b, double goal) {
    auto x = r.medians.find(a), y = r.medians.find(b);
    if (x == r.medians.end() || y == r.medians.end() || y->second <= 0) return;
    double ratio = x->second / y->second;
    std::printf("%-42s %.2fx (goal <= %.1fx)%s\n", what, ratio, goal, ratio <= goal ? "" : "  MISSED");
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    Fixture f;
    if (!f.open()) {
        std::fprintf(stderr, "cannot set up the benchmark database\n");
        return 1;
    }
    fixture = &f;
    MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\n");
    printRatio(reporter, "cached read / raw SELECT:", "BM_StoreCachedRead", "BM_RawSelect", 0.5);
    printRatio(reporter, "write / raw upsert:", "BM_StoreWrite", "BM_RawUpsert", 1.3);
    std::printf("(without the WAL-header precheck, cached read / raw SELECT: ");
    auto x = reporter.medians.find("BM_StoreCachedReadDataVersionOnly"), y = reporter.medians.find("BM_RawSelect");
    if (x != reporter.medians.end() && y != reporter.medians.end()) std::printf("%.2fx)\n", x->second / y->second);
    else std::printf("not run)\n");
    benchmark::Shutdown();
    return 0;
}
