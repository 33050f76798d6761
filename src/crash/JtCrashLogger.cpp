#include <tessrakite/crash/JtCrashLogger.hpp>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <typeinfo>

#include <cxxabi.h>
#include <execinfo.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/FileRoots.hpp>

#include "crash/AlternateStack.hpp"
#include "crash/AtomicFile.hpp"
#include "crash/CrashReport.hpp"
#include "crash/SignalSafe.hpp"
#include "crash/ThrowSite.hpp"

namespace tessrakite {

namespace {

constexpr int kTrappedSignals[] = {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGTRAP};
// Reset when an exception report is done: SIGTRAP stays trapped, SIGPIPE is reset.
constexpr int kUninstalledSignals[] = {SIGABRT, SIGILL, SIGSEGV, SIGFPE, SIGBUS, SIGPIPE};
constexpr int kMaxFrames = 128;

std::mutex gRegisterMutex;
std::atomic<std::terminate_handler> gPreviousTerminate{nullptr};

// The signal path's buffers live here, not on the 64 KiB alternate stack.
void* gFrames[kMaxFrames];
char gReport[256 * 1024];
std::atomic<bool> gReportBusy{false};
std::atomic<pid_t> gCapturingThread{0};
// How long a second crashing thread waits for the first one's report.
constexpr int kLoserWaitMs = 10000;

void setDefaultAction(int signal) {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    ::sigaction(signal, &action, nullptr);
}

void sleepMilliseconds(long ms) {
    timespec ts{ms / 1000, (ms % 1000) * 1000000L};
    while (::nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

pid_t currentThreadId() { return static_cast<pid_t>(::syscall(SYS_gettid)); }

// Resets the handlers and raises the signal again: it is delivered when the handler
// returns (or the faulting instruction runs again), and the process dies with it.
void endWith(int signal) {
    for (int s : kTrappedSignals) setDefaultAction(s);
    ::raise(signal);
}

extern "C" void tessraCrashSignalHandler(int signal, siginfo_t* info, void* uap) {
    // Capture is claimed before anything else: while one thread writes its report the
    // handlers stay in place, so a second crashing thread lands here and waits instead
    // of being killed by the default action half-way through the report.
    const pid_t self = currentThreadId();
    pid_t none = 0;
    if (!gCapturingThread.compare_exchange_strong(none, self)) {
        // The capturing thread crashed again inside its own handler: give up the report.
        if (none == self) return endWith(signal);
        // Another thread writes its report and ends the process; wait for that. Should it
        // hang, end the process ourselves rather than hang the host.
        for (int i = 0; i < kLoserWaitMs / 10; ++i) sleepMilliseconds(10);
        return endWith(signal);
    }
    JtCrashLogger::signalCallback(signal, info, uap);
    endWith(signal);
}

void onTerminate() {
    auto previous = gPreviousTerminate.load();
    if (auto exception = std::current_exception()) JtCrashLogger::exceptionCallback(exception);
    // End the way the process would have ended without us.
    if (previous) previous();
    // A terminate handler must not return.
    std::abort();
}

std::optional<std::string> reasonOf(const std::exception_ptr& exception) {
    if (!exception) return std::nullopt;
    try {
        std::rethrow_exception(exception);
    } catch (const std::exception& e) {
        return std::string(e.what());
    } catch (...) {
        const std::type_info* type = abi::__cxa_current_exception_type();
        if (!type) return std::nullopt;
        int status = 0;
        std::unique_ptr<char, decltype(&std::free)> demangled(
            abi::__cxa_demangle(type->name(), nullptr, nullptr, &status), &std::free);
        return std::string(status == 0 && demangled ? demangled.get() : type->name());
    }
}

std::string formatLocalTime(const char* format) {
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    ::localtime_r(&now, &tm);
    char buffer[64];
    const std::size_t n = std::strftime(buffer, sizeof buffer, format, &tm);
    return std::string(buffer, n);
}

}  // namespace

bool JtCrashLogger::registerLogger() {
    try {
        std::lock_guard lock(gRegisterMutex);
        auto previous = std::set_terminate(&onTerminate);
        if (previous != &onTerminate) gPreviousTerminate.store(previous);
        crash::captureThrowSites(true);

        // Prepare everything the signal path needs, and let backtrace() load its
        // unwinder now: its first call allocates.
        const auto& context = crash::prepareSignalContext();
        void* warmUp[4];
        ::backtrace(warmUp, 4);
        char dryRunBuffer[4096];
        crash::FixedWriter dryRun(dryRunBuffer, sizeof dryRunBuffer);
        crash::formatSignalReport(dryRun, context, 0, nullptr, warmUp, 0);
        (void)getLogPath();

        if (!crash::installPermanentAlternateStack()) return false;
        for (int s : kTrappedSignals)
            if (!registerHandlerForSignal(s)) return false;
        return true;
    } catch (...) {
        return false;
    }
}

bool JtCrashLogger::registerHandlerForSignal(int signal) {
    struct sigaction action {};
    action.sa_sigaction = &tessraCrashSignalHandler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    if (::sigaction(signal, &action, nullptr) == 0) return true;
    const int error = errno;
    try {
        const char* name = ::strsignal(signal);
        Console::print(std::string("Signal registration for ") + (name ? name : "") +
                       " failed: " + std::strerror(error));
    } catch (...) {
    }
    return false;
}

void JtCrashLogger::signalCallback(int signal, siginfo_t* info, void* /*uap*/) {
    // The buffers are shared: a second caller at the same moment waits a little, then
    // gives up rather than corrupt the first report.
    bool expected = false;
    for (int i = 0; !gReportBusy.compare_exchange_strong(expected, true); ++i) {
        if (i >= 100) return;
        expected = false;
        sleepMilliseconds(10);
    }
    const int count = ::backtrace(gFrames, kMaxFrames);
    const crash::SignalContext* context = crash::currentSignalContext();
    if (!context) {
        // Called without registerLogger: prepare now (this path may allocate).
        try {
            context = &crash::prepareSignalContext();
        } catch (...) {
            gReportBusy.store(false);
            return;
        }
    }
    crash::FixedWriter report(gReport, sizeof gReport);
    crash::formatSignalReport(report, *context, signal, info, gFrames, count);
    crash::writeReportSafely(*context, report.data(), report.size());
    const std::string& line = context->pathLine;
    [[maybe_unused]] auto written = ::write(STDOUT_FILENO, line.data(), line.size());
    gReportBusy.store(false);
}

void JtCrashLogger::exceptionCallback(std::exception_ptr exception) {
    try {
        // The stack where the exception was thrown, when its throw was seen; else ours.
        void* frames[kMaxFrames];
        int count = crash::throwSiteFrames(exception, frames, kMaxFrames);
        const bool atThrow = count > 0;
        if (!atThrow) count = ::backtrace(frames, kMaxFrames);
        const auto bundle = crash::mainBundleValues();
        JtCrashLogFile record;
        record.appVersion = bundle.appVersion;
        record.buildVersion = bundle.buildVersion;
        record.type = 1;
        record.code = 0;
        record.callStack = getCallStackStringArray(frames, count);
        record.reason = reasonOf(exception);
        // At the throw, entry 0 is the capturing wrapper: the first frame reported is the thrower's.
        const int first = atThrow ? 1 : 0;
        record.address =
            count > first ? static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(frames[first])) : 0;
        record.osVersion = crash::osVersion();
        record.time = getCurrentTime();
        record.deviceModel = deviceModel();

        const std::string report = crash::exceptionReport(record, bundle.name);
        crash::writeFileAtomically(getLogFileName(), report);
        Console::print("PATHHHOOHH: " + getLogPath() + "/crash.txt");
    } catch (...) {
    }
    // Uninstall.
    crash::captureThrowSites(false);
    std::set_terminate(gPreviousTerminate.load() ? gPreviousTerminate.load() : std::get_terminate());
    for (int s : kUninstalledSignals) setDefaultAction(s);
}

std::string JtCrashLogger::getLogPath() {
    try {
        auto folder = crash::logDirectory();
        platform::FileRoots::ensureDirectory(folder);
        return folder.string();
    } catch (...) {
        return {};
    }
}

std::string JtCrashLogger::getLogFileName() {
    try {
        return getLogPath() + "/crash.txt";
    } catch (...) {
        return {};
    }
}

std::string JtCrashLogger::getLogTimeString() {
    try {
        return formatLocalTime("%Y%m%d_%H%M%S");
    } catch (...) {
        return {};
    }
}

std::string JtCrashLogger::getCurrentTime() {
    try {
        return formatLocalTime("%Y-%m-%d %H:%M:%S");
    } catch (...) {
        return {};
    }
}

std::vector<std::string> JtCrashLogger::getCallStackStringArray(void* const* addresses, int size) {
    std::vector<std::string> out;
    if (!addresses || size <= 1) return out;
    try {
        std::unique_ptr<char*, decltype(&std::free)> symbols(::backtrace_symbols(addresses, size), &std::free);
        if (!symbols) return out;
        for (int i = 1; i < size && i <= 19; ++i) out.emplace_back(symbols.get()[i] ? symbols.get()[i] : "");
    } catch (...) {
    }
    return out;
}

std::string JtCrashLogger::deviceModel() {
    utsname u{};
    if (::uname(&u) != 0) return {};
    return u.machine;
}

}  // namespace tessrakite
