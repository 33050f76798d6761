#pragma once

// One bound on how deep JSON and property-list trees may nest, shared by every parser,
// converter and serialiser of such trees. Our conversions recurse once per level (and so do
// nlohmann's dump, copy and get), so without it a document from outside (a user info, a
// configuration answer, a host's line) could take the whole stack. Header-only: the tools
// use it too.

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tessrakite::nesting {

/// The deepest nesting of arrays and dictionaries accepted: the outermost container is
/// level 1. Real payloads stay far below it.
inline constexpr int kMaxDepth = 256;

/// What a parser or converter raises for a tree deeper than kMaxDepth.
struct TooDeep : std::invalid_argument {
    TooDeep() : std::invalid_argument("The data is nested deeper than " + std::to_string(kMaxDepth) + " levels.") {}
};

/// For recursive converters: `level` is the level of the container about to be entered.
inline void check(int level) {
    if (level > kMaxDepth) throw TooDeep();
}

/// True when no array or object in the JSON text lies deeper than kMaxDepth. Brackets
/// inside strings do not count; whether the text is JSON at all is the parser's to say.
/// A scan is cheaper than nlohmann's parser callback, which runs for every value.
inline bool jsonWithinLimit(std::string_view text) noexcept {
    int depth = 0;
    const char* p = text.data();
    const char* const end = p + text.size();
    while (p != end) {
        const char c = *p++;
        if (c == '\0') return true;  // nlohmann's parser reads no further either
        if (c == '"') {
            while (p != end && *p != '"') p += (*p == '\\' && end - p > 1) ? 2 : 1;
            if (p != end) ++p;
        } else if (c == '[' || c == '{') {
            if (++depth > kMaxDepth) return false;
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return true;
}

/// nlohmann's parse of text from outside, refusing deeper nesting before any tree is built.
/// Raises TooDeep, or the parser's own error.
template <class Json>
Json parseJSON(std::string_view text) {
    if (!jsonWithinLimit(text)) throw TooDeep();
    return Json::parse(text);
}

}  // namespace tessrakite::nesting
