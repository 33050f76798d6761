#pragma once
// Building blocks that are safe to run inside a signal handler: no allocation, no locks
// of our own, no stdio. Everything they need is prepared ahead of time.

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tessrakite::crash {

/// Appends text and numbers to a caller-owned buffer; stops (and remembers) when full.
class FixedWriter {
public:
    FixedWriter(char* buffer, std::size_t capacity) : buffer_(buffer), capacity_(capacity) {}

    void append(const char* text, std::size_t length);
    void append(std::string_view text) { append(text.data(), text.size()); }
    void appendCString(const char* text);
    void appendChar(char c) { append(&c, 1); }
    void appendDecimal(std::int64_t value);
    void appendUnsigned(std::uint64_t value);
    /// Hexadecimal digits, at least `minDigits` of them (zero-padded).
    void appendHex(std::uint64_t value, int minDigits, bool upperCase);
    /// A pointer the way printf's %p writes it: "(nil)" or "0x" and lower-case digits.
    void appendPointer(const void* pointer);

    const char* data() const { return buffer_; }
    std::size_t size() const { return size_; }
    bool truncated() const { return truncated_; }
    void clear() { size_ = 0, truncated_ = false; }
    /// Writes a NUL after the text (within the capacity) and returns the buffer.
    const char* cString();

private:
    char* buffer_;
    std::size_t capacity_;
    std::size_t size_ = 0;
    bool truncated_ = false;
};

/// One address described exactly as backtrace_symbols() describes it
/// ("file(symbol+0x1f) [0x...]", "file(+0x1f) [0x...]" or "[0x...]"), from dladdr1.
void appendSymbol(FixedWriter& out, const void* address);

/// Whether an array entry is written in double quotes: anything but ASCII letters,
/// digits and underscores (and the empty text) needs them.
bool needsQuotes(std::string_view entry);

/// The UTC offsets of the local time zone from now on, found ahead of time so that the
/// signal path can format local time without localtime().
struct ZoneTable {
    static constexpr int kMaxEntries = 16;
    int count = 0;
    std::int64_t start[kMaxEntries] = {};   // UTC seconds from which offset[i] applies
    std::int64_t offset[kMaxEntries] = {};  // seconds east of UTC

    /// Scans the next 400 days for offset changes (daylight saving time).
    static ZoneTable build(std::int64_t now);
    std::int64_t offsetAt(std::int64_t utcSeconds) const;
};

/// "yyyy-MM-dd HH:mm:ss" for a UTC time shifted by the zone's offset.
void appendLocalTime(FixedWriter& out, std::int64_t utcSeconds, const ZoneTable& zone);

/// The current time in seconds since 1970 (clock_gettime).
std::int64_t nowSeconds();

}  // namespace tessrakite::crash
