#pragma once

#include <functional>
#include <string>
#include <string_view>

#include <tessrakite/Export.hpp>

namespace tessrakite {

/// Where the SDK's console lines go. The default sink writes each line to stdout in one
/// write and flushes; hosts and tests install their own sink to capture the lines.
class TESSRA_EXPORT Console {
public:
    using Sink = std::function<void(std::string_view line)>;

    /// Prints one line (a text may itself hold line breaks; it stays one line for sinks).
    static void print(std::string_view text);
    /// Replaces the sink; an empty function restores the default.
    static void setSink(Sink sink);
};

/// Prints "Fatal error: <message>" to stderr and aborts. Only the system's named fatal
/// stops call this.
[[noreturn]] TESSRA_EXPORT void fatalError(std::string_view message);

}  // namespace tessrakite
