#include "crash/SignalSafe.hpp"

#include <climits>
#include <cstring>
#include <ctime>

#include <dlfcn.h>
#include <link.h>

namespace tessrakite::crash {

void FixedWriter::append(const char* text, std::size_t length) {
    // One byte is kept for cString().
    const std::size_t room = capacity_ > size_ + 1 ? capacity_ - size_ - 1 : 0;
    if (length > room) {
        length = room;
        truncated_ = true;
    }
    std::memcpy(buffer_ + size_, text, length);
    size_ += length;
}

void FixedWriter::appendCString(const char* text) {
    if (text) append(text, std::strlen(text));
}

void FixedWriter::appendUnsigned(std::uint64_t value) {
    char digits[24];
    int n = 0;
    do {
        digits[n++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (n > 0) appendChar(digits[--n]);
}

void FixedWriter::appendDecimal(std::int64_t value) {
    if (value < 0) {
        appendChar('-');
        // Negating in unsigned arithmetic also covers the smallest value.
        appendUnsigned(0 - static_cast<std::uint64_t>(value));
    } else {
        appendUnsigned(static_cast<std::uint64_t>(value));
    }
}

void FixedWriter::appendHex(std::uint64_t value, int minDigits, bool upperCase) {
    const char* alphabet = upperCase ? "0123456789ABCDEF" : "0123456789abcdef";
    char digits[16];
    int n = 0;
    do {
        digits[n++] = alphabet[value & 0xF];
        value >>= 4;
    } while (value != 0);
    for (int pad = minDigits - n; pad > 0; --pad) appendChar('0');
    while (n > 0) appendChar(digits[--n]);
}

void FixedWriter::appendPointer(const void* pointer) {
    if (!pointer) {
        append("(nil)");
        return;
    }
    append("0x");
    appendHex(reinterpret_cast<std::uintptr_t>(pointer), 1, false);
}

const char* FixedWriter::cString() {
    if (capacity_ > 0) buffer_[size_ < capacity_ ? size_ : capacity_ - 1] = '\0';
    return buffer_;
}

void appendSymbol(FixedWriter& out, const void* address) {
    Dl_info info{};
    link_map* map = nullptr;
    const int status = ::dladdr1(address, &info, reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP);
    if (status == 0 || !info.dli_fname || info.dli_fname[0] == '\0') {
        out.appendChar('[');
        out.appendPointer(address);
        out.appendChar(']');
        return;
    }
    // The load bias rather than the load address, as backtrace_symbols reports it.
    const auto base = map ? static_cast<std::uintptr_t>(map->l_addr) : reinterpret_cast<std::uintptr_t>(info.dli_fbase);
    const auto symbolStart = info.dli_sname ? reinterpret_cast<std::uintptr_t>(info.dli_saddr) : base;
    out.appendCString(info.dli_fname);
    out.appendChar('(');
    if (info.dli_sname || symbolStart != 0) {
        out.appendCString(info.dli_sname);
        const auto where = reinterpret_cast<std::uintptr_t>(address);
        const bool after = where >= symbolStart;
        const std::uint64_t offset = after ? where - symbolStart : symbolStart - where;
        out.appendChar(after ? '+' : '-');
        // printf's "%#tx": no prefix for zero.
        if (offset != 0) out.append("0x");
        out.appendHex(offset, 1, false);
    }
    out.append(") [");
    out.appendPointer(address);
    out.appendChar(']');
}

bool needsQuotes(std::string_view entry) {
    if (entry.empty()) return true;
    for (char c : entry) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
        if (!plain) return true;
    }
    return false;
}

namespace {

std::int64_t localOffset(std::int64_t utcSeconds) {
    std::time_t t = static_cast<std::time_t>(utcSeconds);
    std::tm tm{};
    if (!::localtime_r(&t, &tm)) return 0;
    return tm.tm_gmtoff;
}

// Days since 1970-01-01 to a civil date (proleptic Gregorian).
void civilFromDays(std::int64_t days, std::int64_t& year, unsigned& month, unsigned& day) {
    days += 719468;
    const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const auto doe = static_cast<unsigned>(days - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    day = doy - (153 * mp + 2) / 5 + 1;
    month = mp < 10 ? mp + 3 : mp - 9;
    year = static_cast<std::int64_t>(yoe) + era * 400 + (month <= 2 ? 1 : 0);
}

}  // namespace

ZoneTable ZoneTable::build(std::int64_t now) {
    ZoneTable table;
    table.start[0] = INT64_MIN;
    table.offset[0] = localOffset(now);
    table.count = 1;
    constexpr std::int64_t kDay = 86400;
    std::int64_t current = table.offset[0];
    for (int d = 1; d <= 400 && table.count < kMaxEntries; ++d) {
        const std::int64_t probe = now + d * kDay;
        const std::int64_t offset = localOffset(probe);
        if (offset == current) continue;
        // The change lies within the last day: find its second.
        std::int64_t lo = probe - kDay, hi = probe;
        while (hi - lo > 1) {
            const std::int64_t mid = lo + (hi - lo) / 2;
            if (localOffset(mid) == current)
                lo = mid;
            else
                hi = mid;
        }
        table.start[table.count] = hi;
        table.offset[table.count] = offset;
        ++table.count;
        current = offset;
    }
    return table;
}

std::int64_t ZoneTable::offsetAt(std::int64_t utcSeconds) const {
    std::int64_t offset = count > 0 ? this->offset[0] : 0;
    for (int i = 1; i < count; ++i)
        if (utcSeconds >= start[i]) offset = this->offset[i];
    return offset;
}

void appendLocalTime(FixedWriter& out, std::int64_t utcSeconds, const ZoneTable& zone) {
    const std::int64_t local = utcSeconds + zone.offsetAt(utcSeconds);
    std::int64_t days = local / 86400;
    std::int64_t secs = local % 86400;
    if (secs < 0) {
        secs += 86400;
        --days;
    }
    std::int64_t year = 0;
    unsigned month = 0, day = 0;
    civilFromDays(days, year, month, day);
    const auto two = [&out](std::int64_t v) {
        out.appendChar(static_cast<char>('0' + v / 10));
        out.appendChar(static_cast<char>('0' + v % 10));
    };
    if (year < 0) {
        out.appendChar('-');
        year = -year;
    }
    if (year < 1000) out.appendChar('0');
    if (year < 100) out.appendChar('0');
    if (year < 10) out.appendChar('0');
    out.appendUnsigned(static_cast<std::uint64_t>(year));
    out.appendChar('-');
    two(month);
    out.appendChar('-');
    two(day);
    out.appendChar(' ');
    two(secs / 3600);
    out.appendChar(':');
    two(secs / 60 % 60);
    out.appendChar(':');
    two(secs % 60);
}

std::int64_t nowSeconds() {
    timespec ts{};
    ::clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<std::int64_t>(ts.tv_sec);
}

}  // namespace tessrakite::crash
