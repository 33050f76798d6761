// Crash capture: each crash runs in a forked child; the parent reads the report.

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <ctime>
#include <regex>
#include <set>
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

struct Crash {
    const char* name;
    void (*trigger)();
    int expectedSignal;  // the signal the child dies with
    int reportType;      // 2: signal report, 1: exception report
    int reportedSignal;  // the "signal:" value of a signal report
    const char* reason;  // the "Reason:" of an exception report
    // The fault address whose symbol the report names, when the test knows it.
    const void* (*faultAddress)();
};

// ---- triggers -------------------------------------------------------------------

void raiseAbrt() { ::raise(SIGABRT); }
void raiseBus() { ::raise(SIGBUS); }
void raiseFpe() { ::raise(SIGFPE); }
void raiseIll() { ::raise(SIGILL); }
void raiseSegv() { ::raise(SIGSEGV); }
void raiseTrap() { ::raise(SIGTRAP); }

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

void throwRuntimeError() { throw std::runtime_error("boom"); }
void throwInt() { throw 42; }
void (*volatile gThrower)() = nullptr;
void callNoexcept() noexcept { gThrower(); }
void uncaughtRuntimeError() {
    gThrower = &throwRuntimeError;
    callNoexcept();
}
void uncaughtInt() {
    gThrower = &throwInt;
    callNoexcept();
}

// ---- fixture ----------------------------------------------------------------------

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

    // Local times "yyyy-MM-dd HH:mm:ss" of every second in [from, to], a second wider on
    // each side: time() reads a coarse clock that may lag the one the report uses.
    static std::set<std::string> timesBetween(std::time_t from, std::time_t to) {
        std::set<std::string> out;
        for (std::time_t t = from - 1; t <= to + 1; ++t) {
            std::tm tm{};
            ::localtime_r(&t, &tm);
            char buf[32];
            std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
            out.insert(buf);
        }
        return out;
    }

    // Checks the "(", entries, ")" block starting at lines[i]; returns the index after it.
    static std::size_t expectStack(const std::vector<std::string>& lines, std::size_t i, std::size_t& entries) {
        static const std::regex entry(R"re(    "(.*\(.*\) )?\[(0x[0-9a-f]+|\(nil\))\]",?)re");
        entries = 0;
        while (i < lines.size() && lines[i] != ")") {
            EXPECT_TRUE(std::regex_match(lines[i], entry)) << lines[i];
            const bool last = i + 1 < lines.size() && lines[i + 1] == ")";
            EXPECT_EQ(lines[i].back() == ',', !last) << lines[i];
            ++entries;
            ++i;
        }
        EXPECT_LT(i, lines.size());
        return i + 1;
    }

    void expectSignalReport(const std::string& text, const Crash& c, std::time_t from, std::time_t to) {
        auto lines = splitLines(text);
        ASSERT_GE(lines.size(), 13u) << text;
        std::size_t i = 0;
        EXPECT_EQ(lines[i++], "FROM signal: CrashSample");
        EXPECT_EQ(lines[i++], "VERSION: 2.5BUILD: 77");
        EXPECT_EQ(lines[i++], "TYPE: 2");
        EXPECT_TRUE(std::regex_match(lines[i++], std::regex("CODE: -?[0-9]+"))) << lines[i - 1];
        EXPECT_EQ(lines[i++], "STACK: (");
        std::size_t entries = 0;
        i = expectStack(lines, i, entries);
        EXPECT_GE(entries, 1u);
        EXPECT_LE(entries, 19u);
        ASSERT_LT(i + 7, lines.size() + 1) << text;
        EXPECT_EQ(lines[i++], "Info: signal:" + std::to_string(c.reportedSignal));
        EXPECT_TRUE(std::regex_match(lines[i++], std::regex("address:0x[0-9A-F]{8,}"))) << lines[i - 1];
        const std::string symbol = lines[i++];
        EXPECT_TRUE(std::regex_match(symbol, std::regex(R"re((.*\(.*\) )?\[(0x[0-9a-f]+|\(nil\))\])re"))) << symbol;
        if (c.faultAddress) {
            // The signal path names the fault address exactly as backtrace_symbols does.
            void* address = const_cast<void*>(c.faultAddress());
            char** symbols = ::backtrace_symbols(&address, 1);
            ASSERT_NE(symbols, nullptr);
            EXPECT_EQ(symbol, symbols[0]);
            std::free(symbols);
            char hex[32];
            std::snprintf(hex, sizeof hex, "address:0x%08X",
                          static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(address) & 0xFFFFFFFFu));
            EXPECT_EQ(lines[i - 2], hex);
        }
        EXPECT_EQ(lines[i++], "OS: " + release_);
        EXPECT_EQ(lines[i++], "DEVICE: " + machine_);
        ASSERT_LT(i, lines.size());
        const std::string time = lines[i++];
        ASSERT_EQ(time.rfind("TIME: ", 0), 0u) << time;
        EXPECT_TRUE(timesBetween(from, to).count(time.substr(6))) << time;
        ASSERT_EQ(i + 1, lines.size()) << "the report ends with one line break";
        EXPECT_EQ(lines[i], "");
    }

    void expectExceptionReport(const std::string& text, const std::string& reason, std::time_t from,
                               std::time_t to) {
        auto lines = splitLines(text);
        ASSERT_GE(lines.size(), 10u) << text;
        std::size_t i = 0;
        EXPECT_EQ(lines[i++], "From exception: CrashSample");
        EXPECT_EQ(lines[i++], "Version: 2.5 build: 77");
        EXPECT_EQ(lines[i++], "Type: 1");
        EXPECT_EQ(lines[i++], "Reason: " + reason);
        EXPECT_EQ(lines[i++], "CallStack: (");
        std::size_t entries = 0;
        i = expectStack(lines, i, entries);
        EXPECT_GE(entries, 1u);
        ASSERT_EQ(i + 4, lines.size()) << text;
        EXPECT_EQ(lines[i++], "Code: 0");
        EXPECT_EQ(lines[i++], "Device:" + machine_);
        EXPECT_EQ(lines[i++], "OS:" + release_);
        const std::string time = lines[i++];
        ASSERT_EQ(time.rfind("Time :", 0), 0u) << time;
        EXPECT_TRUE(timesBetween(from, to).count(time.substr(6))) << time;
    }

    ScopedHome home_;
    std::string machine_, release_;
};

const Crash kCrashes[] = {
    {"raise SIGABRT", &raiseAbrt, SIGABRT, 2, SIGABRT, nullptr, nullptr},
    {"raise SIGBUS", &raiseBus, SIGBUS, 2, SIGBUS, nullptr, nullptr},
    {"raise SIGFPE", &raiseFpe, SIGFPE, 2, SIGFPE, nullptr, nullptr},
    {"raise SIGILL", &raiseIll, SIGILL, 2, SIGILL, nullptr, nullptr},
    {"raise SIGSEGV", &raiseSegv, SIGSEGV, 2, SIGSEGV, nullptr, nullptr},
    {"raise SIGTRAP", &raiseTrap, SIGTRAP, 2, SIGTRAP, nullptr, nullptr},
    {"null-pointer write", &writeNull, SIGSEGV, 2, SIGSEGV, nullptr, &nullAddress},
    {"write into machine code", &writeCode, SIGSEGV, 2, SIGSEGV, nullptr, &codeAddress},
    {"stack overflow", &overflowStack, SIGSEGV, 2, SIGSEGV, nullptr, nullptr},
    {"uncaught std::runtime_error", &uncaughtRuntimeError, SIGABRT, 1, 0, "boom", nullptr},
    {"uncaught int", &uncaughtInt, SIGABRT, 1, 0, "int", nullptr},
};

TEST_F(CrashCapture, EveryCrashKindDiesWithItsSignalAndLeavesAReport) {
    for (const auto& c : kCrashes) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove(logFile());
        const std::time_t from = std::time(nullptr);
        auto outcome = runInChild([&] {
            if (!JtCrashLogger::registerLogger()) ::_exit(3);
            c.trigger();
        });
        const std::time_t to = std::time(nullptr);
        ASSERT_TRUE(outcome.signaled) << describe(outcome);
        EXPECT_EQ(outcome.signal, c.expectedSignal);
        const std::string report = readFile(logFile());
        ASSERT_FALSE(report.empty()) << "no report at " << logFile();
        if (c.reportType == 2)
            expectSignalReport(report, c, from, to);
        else
            expectExceptionReport(report, c.reason, from, to);
        // Only the report is left behind.
        std::size_t files = 0;
        for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(logFolder())) ++files;
        EXPECT_EQ(files, 1u);
    }
}

TEST_F(CrashCapture, NullWriteReportsTheFaultCodeAndAZeroAddress) {
    auto outcome = runInChild([] {
        JtCrashLogger::registerLogger();
        writeNull();
    });
    ASSERT_TRUE(outcome.signaled) << describe(outcome);
    const auto text = readFile(logFile());
    EXPECT_NE(text.find("\nCODE: " + std::to_string(SEGV_MAPERR) + "\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\naddress:0x00000000\n[(nil)]\n"), std::string::npos) << text;
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
    const auto complete = [](const std::string& text) {
        const auto time = text.rfind("\nTIME: ");
        return text.rfind("FROM signal: CrashSample\n", 0) == 0 &&
               text.find("\nInfo: signal:" + std::to_string(SIGSEGV) + "\n") != std::string::npos &&
               time != std::string::npos &&
               std::regex_match(text.substr(time), std::regex("\nTIME: [0-9-]{10} [0-9:]{8}\n"));
    };
    int completeReports = 0;
    for (int run = 0; run < 100; ++run) {
        std::filesystem::remove_all(logFolder());
        auto outcome = runInChild([] {
            JtCrashLogger::registerLogger();
            twoThreadsFaultTogether();
        });
        ASSERT_TRUE(outcome.signaled) << describe(outcome);
        EXPECT_EQ(outcome.signal, SIGSEGV);
        std::vector<std::string> files;
        for (const auto& e : std::filesystem::directory_iterator(logFolder()))
            files.push_back(e.path().filename().string());
        EXPECT_EQ(files, std::vector<std::string>{"crash.txt"}) << "run " << run;
        if (complete(readFile(logFile()))) ++completeReports;
    }
    EXPECT_EQ(completeReports, 100);
}

TEST_F(CrashCapture, AnUncaughtExceptionIsReportedWhereItWasThrown) {
    auto outcome = runInChild([] {
        JtCrashLogger::registerLogger();
        // Caught and thrown again elsewhere first: the report names the throw that escaped.
        try {
            throw std::logic_error("caught");
        } catch (const std::exception&) {
        }
        std::thread([] { tessraTestThrowSite(); }).join();
    });
    ASSERT_TRUE(outcome.signaled) << describe(outcome);
    EXPECT_EQ(outcome.signal, SIGABRT);
    const auto lines = splitLines(readFile(logFile()));
    ASSERT_GE(lines.size(), 6u);
    EXPECT_EQ(lines[3], "Reason: thrown here");
    EXPECT_EQ(lines[4], "CallStack: (");
    EXPECT_NE(lines[5].find("(tessraTestThrowSite+0x"), std::string::npos) << lines[5];
}

TEST_F(CrashCapture, SigtrapIsStillCaughtAfterAnExceptionReport) {
    auto outcome = runInChild([] {
        JtCrashLogger::registerLogger();
        JtCrashLogger::exceptionCallback(std::make_exception_ptr(std::logic_error("first")));
        ::raise(SIGTRAP);
    });
    ASSERT_TRUE(outcome.signaled) << describe(outcome);
    EXPECT_EQ(outcome.signal, SIGTRAP);
    const auto text = readFile(logFile());
    EXPECT_EQ(text.rfind("FROM signal: CrashSample\n", 0), 0u) << text;
    EXPECT_NE(text.find("\nInfo: signal:" + std::to_string(SIGTRAP) + "\n"), std::string::npos) << text;
}

TEST_F(CrashCapture, AfterAnExceptionReportTheOtherSignalsAreNoLongerTrapped) {
    auto outcome = runInChild([] {
        JtCrashLogger::registerLogger();
        JtCrashLogger::exceptionCallback(std::make_exception_ptr(std::logic_error("first")));
        ::raise(SIGSEGV);
    });
    ASSERT_TRUE(outcome.signaled) << describe(outcome);
    EXPECT_EQ(outcome.signal, SIGSEGV);
    const auto text = readFile(logFile());
    EXPECT_EQ(text.rfind("From exception: CrashSample\n", 0), 0u) << text;
    EXPECT_NE(text.find("\nReason: first\n"), std::string::npos) << text;
}

TEST_F(CrashCapture, RegisteringTwiceStillCaptures) {
    auto outcome = runInChild([] {
        if (!JtCrashLogger::registerLogger() || !JtCrashLogger::registerLogger()) ::_exit(3);
        overflowStack();
    });
    ASSERT_TRUE(outcome.signaled) << describe(outcome);
    EXPECT_EQ(outcome.signal, SIGSEGV);
    EXPECT_EQ(readFile(logFile()).rfind("FROM signal: CrashSample\n", 0), 0u);
}

// An operation that overflows its stack on one of the SDK's queue threads.
class OverflowingOperation : public Operation {
public:
    void main() override { overflowStack(); }
};

TEST_F(CrashCapture, AStackOverflowOnAnSdkWorkerThreadIsReported) {
    auto outcome = runInChild([] {
        JtCrashLogger::registerLogger();
        auto queue = std::make_shared<OperationQueue>();
        queue->addOperation(std::make_shared<OverflowingOperation>());
        queue->waitUntilAllOperationsAreFinished(30);
    });
    ASSERT_TRUE(outcome.signaled) << describe(outcome);
    EXPECT_EQ(outcome.signal, SIGSEGV);
    EXPECT_EQ(readFile(logFile()).rfind("FROM signal: CrashSample\n", 0), 0u);
}

TEST_F(CrashCapture, FailedSignalRegistrationPrintsTheSystemsMessage) {
    ConsoleCapture console;
    EXPECT_FALSE(JtCrashLogger::registerHandlerForSignal(SIGKILL));
    EXPECT_EQ(console.lines(), std::vector<std::string>{"Signal registration for Killed failed: Invalid argument"});
}

TEST_F(CrashCapture, PathsTimesAndDeviceModel) {
    EXPECT_EQ(JtCrashLogger::getLogPath(), logFolder());
    EXPECT_TRUE(std::filesystem::is_directory(logFolder()));
    std::filesystem::remove_all(logFolder());
    EXPECT_EQ(JtCrashLogger::getLogFileName(), logFile());
    EXPECT_TRUE(std::filesystem::is_directory(logFolder())) << "asking for the path creates the folder";

    EXPECT_TRUE(std::regex_match(JtCrashLogger::getCurrentTime(),
                                 std::regex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}")));
    EXPECT_TRUE(std::regex_match(JtCrashLogger::getLogTimeString(), std::regex("[0-9]{8}_[0-9]{6}")));
    EXPECT_EQ(JtCrashLogger::deviceModel(), machine_);
}

TEST_F(CrashCapture, CallStackSkipsTheCapturingFrameAndKeepsNineteenEntries) {
    void* frames[40];
    for (int i = 0; i < 40; ++i) frames[i] = reinterpret_cast<void*>(&faultTarget);
    EXPECT_TRUE(JtCrashLogger::getCallStackStringArray(frames, 0).empty());
    EXPECT_TRUE(JtCrashLogger::getCallStackStringArray(frames, 1).empty());
    EXPECT_EQ(JtCrashLogger::getCallStackStringArray(frames, 2).size(), 1u);
    EXPECT_EQ(JtCrashLogger::getCallStackStringArray(frames, 20).size(), 19u);
    EXPECT_EQ(JtCrashLogger::getCallStackStringArray(frames, 40).size(), 19u);
    char** expected = ::backtrace_symbols(frames, 2);
    EXPECT_EQ(JtCrashLogger::getCallStackStringArray(frames, 2)[0], expected[1]);
    std::free(expected);
}

}  // namespace
}  // namespace tessrakite::test
