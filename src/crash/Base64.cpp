#include <tessrakite/crash/Base64.hpp>

#include <array>
#include <cstdint>

namespace tessrakite {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::int8_t, 256> makeDecodeTable() {
    std::array<std::int8_t, 256> table{};
    for (auto& v : table) v = -1;
    for (int i = 0; i < 64; ++i) table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::int8_t>(i);
    return table;
}
constexpr auto kDecode = makeDecodeTable();

bool isSkipped(unsigned char c) { return c == '\t' || c == '\n' || c == '\f' || c == '\r' || c == ' '; }

// Decodes one UTF-8 sequence; false on malformed input.
bool nextCodePoint(std::string_view s, std::size_t& i, std::uint32_t& cp) {
    auto b0 = static_cast<unsigned char>(s[i]);
    int extra = 0;
    if (b0 < 0x80) {
        cp = b0;
    } else if ((b0 & 0xE0) == 0xC0) {
        cp = b0 & 0x1Fu;
        extra = 1;
    } else if ((b0 & 0xF0) == 0xE0) {
        cp = b0 & 0x0Fu;
        extra = 2;
    } else if ((b0 & 0xF8) == 0xF0) {
        cp = b0 & 0x07u;
        extra = 3;
    } else {
        return false;
    }
    if (i + static_cast<std::size_t>(extra) >= s.size()) return false;
    for (int k = 1; k <= extra; ++k) {
        auto b = static_cast<unsigned char>(s[i + static_cast<std::size_t>(k)]);
        if ((b & 0xC0) != 0x80) return false;
        cp = (cp << 6) | (b & 0x3Fu);
    }
    static constexpr std::uint32_t kMin[] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMin[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += static_cast<std::size_t>(extra) + 1;
    return true;
}

bool isValidUtf8(std::string_view s) {
    std::size_t i = 0;
    std::uint32_t cp = 0;
    while (i < s.size())
        if (!nextCodePoint(s, i, cp)) return false;
    return true;
}

// The bytes of a UTF-8 string in another encoding; nothing when a character does not fit.
std::optional<Data> bytesIn(std::string_view string, StringEncoding encoding) {
    if (encoding == StringEncoding::utf8) {
        if (!isValidUtf8(string)) return std::nullopt;
        return Data(string.begin(), string.end());
    }
    const std::uint32_t limit = encoding == StringEncoding::ascii ? 0x7F : 0xFF;
    Data out;
    out.reserve(string.size());
    std::size_t i = 0;
    std::uint32_t cp = 0;
    while (i < string.size()) {
        if (!nextCodePoint(string, i, cp) || cp > limit) return std::nullopt;
        out.push_back(static_cast<std::uint8_t>(cp));
    }
    return out;
}

// A string from bytes in an encoding; nothing when the bytes are not valid in it.
std::optional<std::string> stringFrom(const Data& bytes, StringEncoding encoding) {
    std::string out;
    switch (encoding) {
        case StringEncoding::utf8:
            out.assign(bytes.begin(), bytes.end());
            if (!isValidUtf8(out)) return std::nullopt;
            return out;
        case StringEncoding::ascii:
            for (auto b : bytes) {
                if (b > 0x7F) return std::nullopt;
                out.push_back(static_cast<char>(b));
            }
            return out;
        case StringEncoding::isoLatin1:
            for (auto b : bytes) {
                if (b < 0x80) {
                    out.push_back(static_cast<char>(b));
                } else {
                    out.push_back(static_cast<char>(0xC0 | (b >> 6)));
                    out.push_back(static_cast<char>(0x80 | (b & 0x3F)));
                }
            }
            return out;
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> base64StringWithData(const Data& data) {
    if (data.empty()) return std::nullopt;
    std::string out;
    out.reserve((data.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= data.size(); i += 3) {
        std::uint32_t v = (std::uint32_t{data[i]} << 16) | (std::uint32_t{data[i + 1]} << 8) | data[i + 2];
        out.push_back(kAlphabet[(v >> 18) & 0x3F]);
        out.push_back(kAlphabet[(v >> 12) & 0x3F]);
        out.push_back(kAlphabet[(v >> 6) & 0x3F]);
        out.push_back(kAlphabet[v & 0x3F]);
    }
    const std::size_t rest = data.size() - i;
    if (rest == 1) {
        std::uint32_t v = std::uint32_t{data[i]} << 16;
        out.push_back(kAlphabet[(v >> 18) & 0x3F]);
        out.push_back(kAlphabet[(v >> 12) & 0x3F]);
        out.append("==");
    } else if (rest == 2) {
        std::uint32_t v = (std::uint32_t{data[i]} << 16) | (std::uint32_t{data[i + 1]} << 8);
        out.push_back(kAlphabet[(v >> 18) & 0x3F]);
        out.push_back(kAlphabet[(v >> 12) & 0x3F]);
        out.push_back(kAlphabet[(v >> 6) & 0x3F]);
        out.push_back('=');
    }
    return out;
}

std::optional<Data> dataWithBase64String(std::string_view string) {
    // The text is read as a C string: it ends at the first NUL.
    if (auto nul = string.find('\0'); nul != std::string_view::npos) string = string.substr(0, nul);
    Data out;
    out.reserve(string.size() / 4 * 3 + 2);
    std::uint32_t group = 0;
    int sextets = 0;
    for (char ch : string) {
        auto c = static_cast<unsigned char>(ch);
        if (c > 0x7F) return std::nullopt;  // no ASCII form
        if (isSkipped(c)) continue;
        if (c == '=') break;
        const std::int8_t v = kDecode[c];
        if (v < 0) return std::nullopt;
        group = (group << 6) | static_cast<std::uint32_t>(v);
        if (++sextets == 4) {
            out.push_back(static_cast<std::uint8_t>(group >> 16));
            out.push_back(static_cast<std::uint8_t>(group >> 8));
            out.push_back(static_cast<std::uint8_t>(group));
            group = 0;
            sextets = 0;
        }
    }
    switch (sextets) {
        case 1:
            return std::nullopt;
        case 2:
            out.push_back(static_cast<std::uint8_t>(group >> 4));
            break;
        case 3:
            out.push_back(static_cast<std::uint8_t>(group >> 10));
            out.push_back(static_cast<std::uint8_t>(group >> 2));
            break;
        default:
            break;
    }
    return out;
}

std::optional<std::string> base64StringWithString(std::string_view string, StringEncoding usingEncoding) {
    auto bytes = bytesIn(string, usingEncoding);
    if (!bytes) return std::nullopt;
    return base64StringWithData(*bytes);
}

std::optional<std::string> base64StringWithString(std::string_view string) {
    return base64StringWithString(string, StringEncoding::utf8);
}

std::optional<std::string> encodeBase64(std::string_view string) { return base64StringWithString(string); }

std::optional<std::string> encodeBase64UsingEncoding(std::string_view string, StringEncoding encoding) {
    return base64StringWithString(string, encoding);
}

std::optional<std::string> decodeBase64UsingEncoding(std::string_view string, StringEncoding encoding) {
    auto data = dataWithBase64String(string);
    if (!data) return std::nullopt;
    return stringFrom(*data, encoding);
}

std::optional<std::string> decodeBase64(std::string_view string) {
    return decodeBase64UsingEncoding(string, StringEncoding::utf8);
}

}  // namespace tessrakite
