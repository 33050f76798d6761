#pragma once
// What the benchmarks share: timing helpers, a resident-size reading, libcurl's body
// collector, and the common main.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include <curl/curl.h>

#include <tessrakite/platform/Console.hpp>

namespace bench {

using Clock = std::chrono::steady_clock;

inline double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

inline double median(std::vector<double> samples) {
    std::sort(samples.begin(), samples.end());
    return samples[samples.size() / 2];
}

/// A kB figure from /proc/self/status ("VmRSS", "VmHWM").
inline double statusKb(const std::string& field) {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind(field + ":", 0) == 0) return std::stod(line.substr(field.size() + 1));
    return 0;
}

/// CURLOPT_WRITEFUNCTION appending to the std::string given as CURLOPT_WRITEDATA.
inline size_t collect(char* data, size_t size, size_t n, void* out) {
    static_cast<std::string*>(out)->append(data, size * n);
    return size * n;
}

/// Runs the registered benchmarks with the SDK's console silenced, then prints `goals`.
inline int runBenchmarks(int argc, char** argv, const char* goals) {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    tessrakite::Console::setSink([](std::string_view) {});
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::puts(goals);
    return 0;
}

}  // namespace bench
