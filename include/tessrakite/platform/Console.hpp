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
    /// A message and what it is about on one line, joined by one blank as the platform's
    /// print of two items does: a message ending in a blank shows two.
    static void print(std::string_view message, std::string_view detail);
    /// Replaces the sink; an empty function restores the default.
    static void setSink(Sink sink);
};

/// Prints "Fatal error: <message>" to stderr and aborts. Only the system's named fatal
/// stops call this.
[[noreturn]] TESSRA_EXPORT void fatalError(std::string_view message);

}  // namespace tessrakite
