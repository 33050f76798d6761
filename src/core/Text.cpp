#include "core/Text.hpp"

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>

namespace tessrakite::detail {

bool isValidUtf8(std::string_view text) {
    std::size_t i = 0;
    const auto n = text.size();
    while (i < n) {
        auto c = static_cast<unsigned char>(text[i]);
        std::size_t len = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
        if (len == 0 || i + len > n) return false;
        for (std::size_t k = 1; k < len; ++k)
            if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return false;
        i += len;
    }
    return true;
}

std::string textualRendering(const PlistValue& value) {
    switch (value.type()) {
        case PlistValue::Type::null: return "nil";
        case PlistValue::Type::boolean: return *value.asBool() ? "true" : "false";
        case PlistValue::Type::integer: return std::to_string(*value.asInteger());
        case PlistValue::Type::real: {
            double d = *value.asReal();
            if (std::isfinite(d) && d == std::floor(d) && std::fabs(d) < 1e15) {
                char buffer[32];
                std::snprintf(buffer, sizeof buffer, "%.1f", d);
                return buffer;
            }
            char buffer[40];
            std::snprintf(buffer, sizeof buffer, "%.17g", d);
            // Shortest text that reads back the same number.
            for (int precision = 1; precision <= 17; ++precision) {
                char candidate[40];
                std::snprintf(candidate, sizeof candidate, "%.*g", precision, d);
                if (std::strtod(candidate, nullptr) == d) return candidate;
            }
            return buffer;
        }
        case PlistValue::Type::string: return *value.asString();
        default:
            try {
                return value.toJSONString();
            } catch (const std::exception&) {
                return "<value>";
            }
    }
}

std::string dateDescription(double secondsSince1970) {
    auto t = static_cast<std::time_t>(secondsSince1970);
    std::tm gmt{};
    ::gmtime_r(&t, &gmt);
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d %02d:%02d:%02d +0000", gmt.tm_year + 1900, gmt.tm_mon + 1,
                  gmt.tm_mday, gmt.tm_hour, gmt.tm_min, gmt.tm_sec);
    return buffer;
}

std::string uuidString() {
    thread_local std::mt19937_64 generator{std::random_device{}()};
    std::array<std::uint8_t, 16> bytes{};
    for (std::size_t i = 0; i < bytes.size(); i += 8) {
        const std::uint64_t word = generator();
        for (std::size_t k = 0; k < 8; ++k) bytes[i + k] = static_cast<std::uint8_t>(word >> (8 * k));
    }
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    std::string out;
    out.reserve(36);
    char hex[3];
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out += '-';
        std::snprintf(hex, sizeof hex, "%02X", bytes[i]);
        out += hex;
    }
    return out;
}

}  // namespace tessrakite::detail
