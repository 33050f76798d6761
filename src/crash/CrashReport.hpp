#pragma once
// The two crash report texts and what they are made of.

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <tessrakite/crash/JtCrashLogFile.hpp>

#include "crash/SignalSafe.hpp"

namespace tessrakite::crash {

/// The main bundle's values the reports use.
struct BundleValues {
    std::optional<std::string> name;          // "CFBundleName"
    std::optional<std::string> appVersion;    // "CFBundleShortVersionString"
    std::optional<std::string> buildVersion;  // "CFBundleVersion"
};
BundleValues mainBundleValues();

/// The documents folder of the app + "crashlog" (not created).
std::filesystem::path logDirectory();
/// The platform's system version.
std::string osVersion();

/// A text as a string placeholder shows it: the text, or "(null)".
std::string orNull(const std::optional<std::string>& text);
/// An array of strings as the platform describes it: "(", a line break, the entries
/// indented by four spaces (quoted where needed) and separated by "," and a line break,
/// a line break and ")".
std::string describeArray(const std::optional<std::vector<std::string>>& entries);

/// The report of an uncaught exception.
std::string exceptionReport(const JtCrashLogFile& record, const std::optional<std::string>& bundleName);

/// Everything the signal path needs, prepared at registration: the fixed parts of the
/// report, the paths, the time zone. Contexts are never freed, so a handler that
/// loaded one can always use it.
struct SignalContext {
    const SignalContext* previous = nullptr;  // keeps older contexts reachable
    std::string head;   // "FROM signal: ...\nVERSION: ...BUILD: ...\nTYPE: 2\nCODE: "
    std::string tail;   // "\nOS: ...\nDEVICE: ...\nTIME: "
    std::string pathLine;  // "PATHHHHHH: <log folder>\n"
    std::vector<std::string> folders;  // the log folder and its parents, outermost first
    std::string logFile;
    std::string tempPrefix;  // the temporary file name without the process id
    ZoneTable zone;
};

/// Builds a context from the current bundle and platform values and publishes it.
const SignalContext& prepareSignalContext();
/// The published context, or nothing before the first prepareSignalContext().
const SignalContext* currentSignalContext();

/// Formats the report of signal `signal` into `out` without allocating.
void formatSignalReport(FixedWriter& out, const SignalContext& context, int signal, const siginfo_t* info,
                        void* const* frames, int frameCount);
/// Creates the log folder, writes the report to a temporary file and renames it over
/// the log file. Only async-signal-safe calls.
void writeReportSafely(const SignalContext& context, const char* data, std::size_t length);

}  // namespace tessrakite::crash
