// Time from a fault to the crash report on disk, and to the process's death, over many
// child runs, next to the same child dying without the handler.
//
//   bench_CrashBench [runs]   (default 300 of each kind)

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tessrakite/crash/JtCrashLogger.hpp>

#include "TestEnv.hpp"

namespace {

std::int64_t nowNs() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

int* volatile gNull = nullptr;

struct Shared {
    std::atomic<std::int64_t> faultNs{0};
};

struct Sample {
    double toReportMs = -1;
    double toDeathMs = -1;
};

// One child that registers the handler (or not) and writes through a null pointer. With
// an inotify descriptor the parent also notes when the report lands; that wakes the
// parent while the child is still dying, so deaths are timed in runs without it.
bool runOnce(bool withHandler, Shared* shared, int inotifyFd, Sample& sample) {
    shared->faultNs.store(0);
    alignas(inotify_event) char buffer[4096];
    // Forget the events of earlier runs.
    if (inotifyFd >= 0)
        while (::read(inotifyFd, buffer, sizeof buffer) > 0) {
        }
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(10);
        ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
        // The same child either way: registered, and then, without the handler, the six
        // signals put back to their defaults.
        tessrakite::JtCrashLogger::registerLogger();
        if (!withHandler)
            for (int s : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGTRAP}) ::signal(s, SIG_DFL);
        shared->faultNs.store(nowNs());
        *gNull = 1;
        ::_exit(0);
    }
    if (pid < 0) return false;
    if (inotifyFd >= 0) {
        pollfd p{inotifyFd, POLLIN, 0};
        if (::poll(&p, 1, 10'000) == 1) {
            const std::int64_t seen = nowNs();
            while (::read(inotifyFd, buffer, sizeof buffer) > 0) {
            }
            sample.toReportMs = static_cast<double>(seen - shared->faultNs.load()) / 1e6;
        }
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    const std::int64_t dead = nowNs();
    sample.toDeathMs = static_cast<double>(dead - shared->faultNs.load()) / 1e6;
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV && (inotifyFd < 0 || sample.toReportMs >= 0);
}

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    const auto index = static_cast<std::size_t>(p / 100.0 * static_cast<double>(v.size() - 1) + 0.5);
    return v[std::min(index, v.size() - 1)];
}

void printRow(const char* name, const std::vector<double>& v) {
    std::printf("%-34s %9.3f %9.3f %9.3f %9.3f\n", name, percentile(v, 50), percentile(v, 90), percentile(v, 99),
                percentile(v, 100));
}

}  // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 300;
    tessrakite::test::ScopedHome home;
    tessrakite::test::installMainBundle(home.path(), "com.example.crashbench", {{"CFBundleName", "CrashBench"}});
    const std::string folder = tessrakite::JtCrashLogger::getLogPath();

    auto* shared = static_cast<Shared*>(
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    if (shared == MAP_FAILED) return 1;
    new (shared) Shared();
    const int inotifyFd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotifyFd < 0 || ::inotify_add_watch(inotifyFd, folder.c_str(), IN_MOVED_TO) < 0) return 1;

    // The child's "PATHHHHHH" line would flood the output.
    std::fflush(stdout);
    const int savedStdout = ::dup(STDOUT_FILENO);
    const int devNull = ::open("/dev/null", O_WRONLY);
    ::dup2(devNull, STDOUT_FILENO);

    std::vector<double> plainDeath, handlerReport, handlerDeath;
    int failures = 0;
    for (int i = 0; i < runs; ++i) {
        // Interleaved, so that machine load affects both kinds alike.
        Sample plain, handled, watched;
        if (runOnce(false, shared, -1, plain))
            plainDeath.push_back(plain.toDeathMs);
        else
            ++failures;
        if (runOnce(true, shared, -1, handled))
            handlerDeath.push_back(handled.toDeathMs);
        else
            ++failures;
        if (runOnce(true, shared, inotifyFd, watched))
            handlerReport.push_back(watched.toReportMs);
        else
            ++failures;
    }

    ::dup2(savedStdout, STDOUT_FILENO);
    std::printf("crash capture, %d runs of each kind (milliseconds)\n", runs);
    std::printf("%-34s %9s %9s %9s %9s\n", "", "p50", "p90", "p99", "max");
    printRow("no handler: fault -> death", plainDeath);
    printRow("handler: fault -> report on disk", handlerReport);
    printRow("handler: fault -> death", handlerDeath);
    const double added50 = percentile(handlerDeath, 50) - percentile(plainDeath, 50);
    const double added99 = percentile(handlerDeath, 99) - percentile(plainDeath, 99);
    std::printf("added by the handler: p50 %+.3f ms, p99 %+.3f ms (goal: under 20 ms at p99)\n", added50, added99);
    std::printf("ratio handler/no handler: p50 %.2fx, p99 %.2fx\n",
                percentile(handlerDeath, 50) / std::max(1e-9, percentile(plainDeath, 50)),
                percentile(handlerDeath, 99) / std::max(1e-9, percentile(plainDeath, 99)));
    if (failures) std::printf("failed runs: %d\n", failures);
    return failures == 0 && added99 < 20.0 ? 0 : 2;
}
