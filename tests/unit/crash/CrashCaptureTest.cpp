// Crash capture: each crash runs in a forked child; the parent reads the report.

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <ctime>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <execinfo.h>
#include <sys/utsname.h>

#include <tessrakite/crash/JtCrashLogger.hpp>
#include <tessrakite/crash/OperationQueue.hpp>

#include "CrashChild.hpp"
#include "TestEnv.hpp"

// A thrower the report can name: the test binary exports its symbols, and an unmangled
// name reads the same in every frame description.
volatile int gThrowCount = 0;
extern "C" __attribute__((noinline)) void tessraTestThrowSite() {
    gThrowCount = gThrowCount + 1;
    throw std::runtime_error("thrown here");
}

namespace tessrakite::test {
namespace {

const char* const kBundleId = "com.example.crash";

// ---- triggers -------------------------------------------------------------------

// Faulting stores stay out of sanitizer instrumentation, which would touch its own
// shadow memory first and fault elsewhere.
#define TESSRA_UNINSTRUMENTED __attribute__((no_sanitize_undefined, no_sanitize_address, no_sanitize_thread))

int* volatile gNullPointer = nullptr;
TESSRA_UNINSTRUMENTED void writeNull() { *gNullPointer = 42; }

// A store into our own machine code faults with the function's address.
__attribute__((noinline)) void faultTarget() { asm volatile(""); }
void (*volatile gFaultTarget)() = &faultTarget;
TESSRA_UNINSTRUMENTED void writeCode() { *reinterpret_cast<volatile char*>(gFaultTarget) = 0; }
const void* codeAddress() { return reinterpret_cast<const void*>(gFaultTarget); }
const void* nullAddress() { return nullptr; }

volatile bool gRecurse = true;
__attribute__((noinline)) int recurse(int depth) {
    volatile char pad[1024];
    pad[0] = static_cast<char>(depth);
    if (gRecurse) return recurse(depth + 1) + pad[0];
    return pad[0];
}
void overflowStack() { (void)recurse(0); }

// An operation that overflows its stack on one of the SDK's queue threads.
class OverflowingOperation : public Operation {
public:
    void main() override { overflowStack(); }
};
void overflowOnSdkWorker() {
    auto queue = std::make_shared<OperationQueue>();
    queue->addOperation(std::make_shared<OverflowingOperation>());
    queue->waitUntilAllOperationsAreFinished(30);
}

void uncaughtRuntimeError() {
    std::thread([] { throw std::runtime_error("boom"); }).join();
}
void uncaughtInt() {
    std::thread([] { throw 42; }).join();
}

// ---- fixture ----------------------------------------------------------------------

struct Crash {
    const char* name;
    void (*trigger)();   // nullptr: raise the signal
    int signal;          // the child dies with it; a signal report names it
    const char* reason;  // the "Reason:" of an exception report; nullptr: a signal report
    int code;            // the report's "CODE:" when the test knows it, else 0
    const void* (*faultAddress)();  // the address the report names, when the test knows it
};

std::string literal(const std::string& text) {
    static const std::regex metacharacter(R"([.^$|()\[\]{}*+?\\])");
    return std::regex_replace(text, metacharacter, R"(\$&)");
}

// A frame as backtrace_symbols names it; a stack block quotes one a line, the last without a comma.
const std::string kSymbol = R"re((?:.*\(.*\) )?\[(?:0x[0-9a-f]+|\(nil\))\])re";
const std::string kFrame = "    \"" + kSymbol + "\"";
const std::string kTime = "([0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2})";

class CrashCapture : public ::testing::Test {
protected:
    void SetUp() override {
        installMainBundle(home_.path(), kBundleId,
                          {{"CFBundleName", "CrashSample"},
                           {"CFBundleShortVersionString", "2.5"},
                           {"CFBundleVersion", "77"}});
        utsname u{};
        ::uname(&u);
        machine_ = u.machine;
        release_ = u.release;
    }

    std::string logFolder() const { return (home_.path() / "Apps" / kBundleId / "Documents" / "crashlog").string(); }
    std::string logFile() const { return logFolder() + "/crash.txt"; }

    // The report's local time lies in [from, to], a second wider on each side: time() reads
    // a coarse clock that may lag the one the report uses.
    static void expectTimeWithin(const std::string& text, std::time_t from, std::time_t to) {
        std::tm tm{};
        ASSERT_TRUE(::strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &tm)) << text;
        tm.tm_isdst = -1;
        const std::time_t t = std::mktime(&tm);
        EXPECT_TRUE(t >= from - 1 && t <= to + 1) << text;
    }

    void expectReport(const std::string& text, const Crash& c, std::time_t from, std::time_t to) {
        std::smatch m;
        if (c.reason) {
            const std::regex report("From exception: CrashSample\nVersion: 2\\.5 build: 77\nType: 1\nReason: " +
                                    literal(c.reason) + "\nCallStack: \\(\n(?:" + kFrame + ",\n)*" + kFrame +
                                    "\n\\)\nCode: 0\nDevice:" + literal(machine_) + "\nOS:" + literal(release_) +
                                    "\nTime :" + kTime);
            ASSERT_TRUE(std::regex_match(text, m, report)) << text;
            return expectTimeWithin(m[1], from, to);
        }
        // At most nineteen frames, then the signal, the fault address and its symbol.
        const std::regex report("FROM signal: CrashSample\nVERSION: 2\\.5BUILD: 77\nTYPE: 2\nCODE: (-?[0-9]+)\n"
                                "STACK: \\(\n(?:" + kFrame + ",\n){0,18}" + kFrame + "\n\\)\nInfo: signal:" +
                                std::to_string(c.signal) + "\naddress:(0x[0-9A-F]{8,})\n(" + kSymbol +
                                ")\nOS: " + literal(release_) + "\nDEVICE: " + literal(machine_) + "\nTIME: " +
                                kTime + "\n");
        ASSERT_TRUE(std::regex_match(text, m, report)) << text;
        EXPECT_TRUE(!c.code || m[1] == std::to_string(c.code)) << m[1];
        if (c.faultAddress) {
            // The signal path names the fault address exactly as backtrace_symbols does.
            void* address = const_cast<void*>(c.faultAddress());
            char** symbols = ::backtrace_symbols(&address, 1);
            ASSERT_NE(symbols, nullptr);
            EXPECT_EQ(m[3].str(), symbols[0]);
            std::free(symbols);
            char hex[32];
            std::snprintf(hex, sizeof hex, "0x%08X",
                          static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(address) & 0xFFFFFFFFu));
            EXPECT_EQ(m[2].str(), hex);
        }
        expectTimeWithin(m[4], from, to);
    }

    ScopedHome home_;
    std::string machine_, release_;
};

const Crash kCrashes[] = {
    {"raise SIGABRT", nullptr, SIGABRT, nullptr, SI_TKILL, nullptr},
    {"raise SIGBUS", nullptr, SIGBUS, nullptr, SI_TKILL, nullptr},
    {"raise SIGFPE", nullptr, SIGFPE, nullptr, SI_TKILL, nullptr},
    {"raise SIGILL", nullptr, SIGILL, nullptr, SI_TKILL, nullptr},
    {"raise SIGSEGV", nullptr, SIGSEGV, nullptr, SI_TKILL, nullptr},
    {"raise SIGTRAP", nullptr, SIGTRAP, nullptr, SI_TKILL, nullptr},
    {"null-pointer write", &writeNull, SIGSEGV, nullptr, SEGV_MAPERR, &nullAddress},
    {"write into machine code", &writeCode, SIGSEGV, nullptr, SEGV_ACCERR, &codeAddress},
    {"stack overflow", &overflowStack, SIGSEGV, nullptr, 0, nullptr},
    {"stack overflow on an SDK worker thread", &overflowOnSdkWorker, SIGSEGV, nullptr, 0, nullptr},
    {"uncaught std::runtime_error", &uncaughtRuntimeError, SIGABRT, "boom", 0, nullptr},
    {"uncaught int", &uncaughtInt, SIGABRT, "int", 0, nullptr},
};

TEST_F(CrashCapture, EveryCrashKindDiesWithItsSignalAndLeavesAReport) {
    for (const auto& c : kCrashes) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove(logFile());
        const std::time_t from = std::time(nullptr);
        // Registering twice must not hurt.
        EXPECT_EQ(runInChild([&] {
                      if (!JtCrashLogger::registerLogger() || !JtCrashLogger::registerLogger()) ::_exit(3);
                      c.trigger ? c.trigger() : (void)::raise(c.signal);
                  }),
                  c.signal);
        expectReport(readFile(logFile()), c, from, std::time(nullptr));
        // Only the report is left behind.
        std::size_t files = 0;
        for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(logFolder())) ++files;
        EXPECT_EQ(files, 1u);
    }
}

// Two threads that write through a null pointer at the same moment.
void twoThreadsFaultTogether() {
    std::atomic<int> arrived{0};
    auto fault = [&arrived] {
        arrived.fetch_add(1);
        while (arrived.load() < 2) {
        }
        writeNull();
    };
    std::thread first(fault), second(fault);
    first.join();
    second.join();
}

TEST_F(CrashCapture, TwoThreadsCrashingTogetherLeaveOneCompleteReport) {
    const std::regex complete("FROM signal: CrashSample\n[\\s\\S]*\nInfo: signal:" + std::to_string(SIGSEGV) +
                              "\n[\\s\\S]*\nTIME: [0-9-]{10} [0-9:]{8}\n");
    int completeReports = 0;
    for (int run = 0; run < 100; ++run) {
        std::filesystem::remove_all(logFolder());
        EXPECT_EQ(runInChild([] {
                      JtCrashLogger::registerLogger();
                      twoThreadsFaultTogether();
                  }),
                  SIGSEGV);
        std::vector<std::string> files;
        for (const auto& e : std::filesystem::directory_iterator(logFolder()))
            files.push_back(e.path().filename().string());
        EXPECT_EQ(files, std::vector<std::string>{"crash.txt"}) << "run " << run;
        if (std::regex_match(readFile(logFile()), complete)) ++completeReports;
    }
    EXPECT_EQ(completeReports, 100);
}

TEST_F(CrashCapture, AnUncaughtExceptionIsReportedWhereItWasThrown) {
    EXPECT_EQ(runInChild([] {
                  JtCrashLogger::registerLogger();
                  // Caught and thrown again elsewhere first: the report names the throw that escaped.
                  try {
                      throw std::logic_error("caught");
                  } catch (const std::exception&) {
                  }
                  std::thread([] { tessraTestThrowSite(); }).join();
              }),
              SIGABRT);
    const auto text = readFile(logFile());
    EXPECT_TRUE(std::regex_search(text, std::regex("\nReason: thrown here\nCallStack: \\(\n    \"[^\n]*"
                                                   "\\(tessraTestThrowSite\\+0x")))
        << text;
}

TEST_F(CrashCapture, AfterAnExceptionReportOnlySigtrapIsStillTrapped) {
    // SIGTRAP writes a signal report over the exception's; any other signal leaves it alone.
    for (int signal : {SIGTRAP, SIGSEGV}) {
        SCOPED_TRACE(signal);
        std::filesystem::remove(logFile());
        EXPECT_EQ(runInChild([signal] {
                      JtCrashLogger::registerLogger();
                      JtCrashLogger::exceptionCallback(std::make_exception_ptr(std::logic_error("first")));
                      ::raise(signal);
                  }),
                  signal);
        const auto text = readFile(logFile());
        if (signal == SIGTRAP)
            EXPECT_EQ(text.rfind("FROM signal: CrashSample\n", 0), 0u) << text;
        else
            EXPECT_EQ(text.rfind("From exception: CrashSample\nVersion: 2.5 build: 77\nType: 1\nReason: first\n", 0),
                      0u)
                << text;
    }
}

TEST_F(CrashCapture, FailedSignalRegistrationPrintsTheSystemsMessage) {
    ConsoleCapture console;
    EXPECT_FALSE(JtCrashLogger::registerHandlerForSignal(SIGKILL));
    EXPECT_EQ(console.lines(), std::vector<std::string>{"Signal registration for Killed failed: Invalid argument"});
}


}  // namespace
}  // namespace tessrakite::test
