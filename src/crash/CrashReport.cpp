#include "crash/CrashReport.hpp"

#include <atomic>
#include <cerrno>
#include <mutex>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tessrakite/crash/JtCrashLogger.hpp>
#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/FileRoots.hpp>
#include <tessrakite/platform/Platform.hpp>

namespace tessrakite::crash {

namespace {

std::string appIdentifier() {
    auto bundle = platform::Bundle::main();
    if (bundle)
        if (auto id = bundle->bundleIdentifier(); id && !id->empty()) return *id;
    // Without an identifier the app is named after its executable.
    std::error_code ec;
    auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::string("app") : exe.filename().string();
}

std::atomic<const SignalContext*> gContext{nullptr};
std::mutex gPrepareMutex;

}  // namespace

BundleValues mainBundleValues() {
    BundleValues values;
    if (auto bundle = platform::Bundle::main()) {
        values.name = bundle->string("CFBundleName");
        values.appVersion = bundle->string("CFBundleShortVersionString");
        values.buildVersion = bundle->string("CFBundleVersion");
    }
    return values;
}

std::filesystem::path logDirectory() { return platform::FileRoots::documents(appIdentifier()) / "crashlog"; }

std::string osVersion() {
    auto p = platform::currentPlatform();
    return p && p->device ? p->device->systemVersion() : std::string();
}

std::string orNull(const std::optional<std::string>& text) { return text ? *text : std::string("(null)"); }

std::string describeArray(const std::optional<std::vector<std::string>>& entries) {
    if (!entries) return "(null)";
    std::string out = "(\n";
    for (std::size_t i = 0; i < entries->size(); ++i) {
        const auto& e = (*entries)[i];
        out += "    ";
        if (needsQuotes(e)) {
            out += '"';
            out += e;
            out += '"';
        } else {
            out += e;
        }
        if (i + 1 < entries->size()) out += ',';
        out += '\n';
    }
    out += ')';
    return out;
}

std::string exceptionReport(const JtCrashLogFile& r, const std::optional<std::string>& bundleName) {
    std::string out;
    out += "From exception: " + orNull(bundleName);
    out += "\nVersion: " + orNull(r.appVersion) + " build: " + orNull(r.buildVersion);
    out += "\nType: " + std::to_string(r.type);
    out += "\nReason: " + orNull(r.reason);
    out += "\nCallStack: " + describeArray(r.callStack);
    out += "\nCode: " + std::to_string(r.code);
    out += "\nDevice:" + orNull(r.deviceModel);
    out += "\nOS:" + orNull(r.osVersion);
    out += "\nTime :" + orNull(r.time);
    return out;
}

const SignalContext& prepareSignalContext() {
    std::lock_guard lock(gPrepareMutex);
    auto* context = new SignalContext();  // never freed: a handler may hold it
    context->previous = gContext.load();
    const auto bundle = mainBundleValues();
    context->head = "FROM signal: " + orNull(bundle.name) + "\nVERSION: " + orNull(bundle.appVersion) +
                    "BUILD: " + orNull(bundle.buildVersion) + "\nTYPE: 2\nCODE: ";
    context->tail = "\nOS: " + osVersion() + "\nDEVICE: " + JtCrashLogger::deviceModel() + "\nTIME: ";
    const auto folder = logDirectory();
    context->pathLine = "PATHHHHHH: " + folder.string() + "\n";
    std::filesystem::path partial;
    for (const auto& part : folder) {
        partial /= part;
        if (partial.has_relative_path()) context->folders.push_back(partial.string());
    }
    context->logFile = (folder / "crash.txt").string();
    context->tempPrefix = (folder / "crash.txt.tmp.").string();
    context->zone = ZoneTable::build(nowSeconds());
    gContext.store(context);
    return *context;
}

const SignalContext* currentSignalContext() { return gContext.load(); }

void formatSignalReport(FixedWriter& out, const SignalContext& context, int signal, const siginfo_t* info,
                        void* const* frames, int frameCount) {
    const void* faultAddress = info ? info->si_addr : nullptr;
    const auto low32 = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(faultAddress));

    out.append(context.head);
    out.appendDecimal(info ? info->si_code : 0);
    out.append("\nSTACK: (\n");
    // Entry 0 is the capturing frame; at most 19 entries follow.
    const int last = frameCount - 1 < 19 ? frameCount - 1 : 19;
    static char symbolBuffer[16384];
    for (int i = 1; i <= last; ++i) {
        FixedWriter symbol(symbolBuffer, sizeof symbolBuffer);
        appendSymbol(symbol, frames[i]);
        const bool quoted = needsQuotes(std::string_view(symbol.data(), symbol.size()));
        out.append("    ");
        if (quoted) out.appendChar('"');
        out.append(symbol.data(), symbol.size());
        if (quoted) out.appendChar('"');
        if (i < last) out.appendChar(',');
        out.appendChar('\n');
    }
    out.append(")\nInfo: signal:");
    out.appendDecimal(signal);
    out.append("\naddress:0x");
    out.appendHex(low32, 8, true);
    out.appendChar('\n');
    appendSymbol(out, faultAddress);
    out.append(context.tail);
    appendLocalTime(out, nowSeconds(), context.zone);
    out.appendChar('\n');
}

void writeReportSafely(const SignalContext& context, const char* data, std::size_t length) {
    // Usually the folder is there; its parents are made only when it is not.
    if (!context.folders.empty() && ::mkdir(context.folders.back().c_str(), 0700) != 0 && errno == ENOENT)
        for (const auto& folder : context.folders) ::mkdir(folder.c_str(), 0700);
    static char tempName[8192];
    FixedWriter name(tempName, sizeof tempName);
    name.append(context.tempPrefix);
    name.appendDecimal(::getpid());
    if (name.truncated()) return;
    const int fd = ::open(name.cString(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return;
    std::size_t done = 0;
    while (done < length) {
        const ssize_t n = ::write(fd, data + done, length - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    ::close(fd);
    if (done == length)
        ::rename(tempName, context.logFile.c_str());
    else
        ::unlink(tempName);
}

}  // namespace tessrakite::crash
