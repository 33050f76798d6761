#include <tessrakite/platform/Console.hpp>

#include "platform/FatalStop.hpp"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

namespace tessrakite {
namespace {
// Never destroyed: completions may still print while the process exits.
std::mutex& sinkMutex() {
    static auto* m = new std::mutex;
    return *m;
}
std::shared_ptr<Console::Sink>& sinkSlot() {
    static auto* sink = new std::shared_ptr<Console::Sink>;
    return *sink;
}
}  // namespace

void Console::print(std::string_view text) {
    std::shared_ptr<Sink> sink;
    {
        std::lock_guard lock(sinkMutex());
        sink = sinkSlot();
    }
    if (sink) {
        (*sink)(text);
        return;
    }
    // One write per line, so lines from several threads never interleave.
    std::string line(text);
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

void Console::print(std::string_view message, std::string_view detail) {
    std::string line(message);
    line += ' ';
    line += detail;
    print(line);
}

void Console::setSink(Sink sink) {
    std::lock_guard lock(sinkMutex());
    sinkSlot() = sink ? std::make_shared<Sink>(std::move(sink)) : nullptr;
}

void fatalError(std::string_view message) {
    std::string line = "Fatal error: ";
    line.append(message);
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
#ifdef TESSRA_FATAL_UNWINDS
    throw FatalStop{std::string(message)};
#else
    std::abort();
#endif
}

}  // namespace tessrakite
