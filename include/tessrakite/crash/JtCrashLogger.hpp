#pragma once

#include <csignal>
#include <exception>
#include <string>
#include <vector>

#include <tessrakite/Export.hpp>

namespace tessrakite {

/// Catches fatal signals and uncaught C++ exceptions and writes a plain-text crash
/// report to "<documents>/crashlog/crash.txt". The host installs it with
/// registerLogger(); the SDK never does.
///
/// Trapped signals, in order: SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGTRAP. The
/// signal path runs on a 64 KiB alternate stack that belongs to the thread that called
/// registerLogger, and is async-signal-safe: everything it needs is prepared at
/// registration, so a crash while the allocator is locked still writes its report.
class TESSRA_EXPORT JtCrashLogger {
public:
    /// Installs the uncaught-exception (terminate) handler, the alternate stack of the
    /// calling thread and the six signal handlers. False when a step fails; the steps
    /// already done stay in place.
    static bool registerLogger();
    /// Traps one signal (SA_SIGINFO | SA_ONSTACK, empty mask). On failure prints
    /// "Signal registration for <name> failed: <error>" and returns false.
    static bool registerHandlerForSignal(int signal);
    /// Writes the report of a fatal signal.
    static void signalCallback(int signal, siginfo_t* info, void* uap);
    /// Writes the report of an uncaught exception, then uninstalls the handlers
    /// (SIGTRAP stays trapped).
    static void exceptionCallback(std::exception_ptr exception);

    /// The log folder, created (with its parents) on every call.
    static std::string getLogPath();
    /// The log file: getLogPath() + "/crash.txt".
    static std::string getLogFileName();
    /// Local time as "yyyyMMdd_HHmmss".
    static std::string getLogTimeString();
    /// Local time as "yyyy-MM-dd HH:mm:ss".
    static std::string getCurrentTime();
    /// Symbolises return addresses; skips entry 0 (the capturing frame) and keeps at
    /// most 19 entries.
    static std::vector<std::string> getCallStackStringArray(void* const* addresses, int size);
    /// uname's machine field.
    static std::string deviceModel();
};

}  // namespace tessrakite
