#pragma once
// Typed reads from a loosely typed dictionary (a push's user info): a missing key and a
// value of another type both read as absent. No conversions: a Bool is not an integer,
// a fraction is not an integer, a number is not a string.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tessrakite/platform/PlistValue.hpp>

namespace tessrakite::loose {

inline std::optional<std::string> string(const PlistDictionary& d, std::string_view key) {
    auto it = d.find(key);
    if (it == d.end() || !it->second.asString()) return std::nullopt;
    return *it->second.asString();
}

inline std::optional<bool> boolean(const PlistDictionary& d, std::string_view key) {
    auto it = d.find(key);
    if (it == d.end() || !it->second.asBool()) return std::nullopt;
    return *it->second.asBool();
}

inline std::optional<std::int64_t> integer(const PlistDictionary& d, std::string_view key) {
    auto it = d.find(key);
    if (it == d.end() || !it->second.asInteger()) return std::nullopt;
    return *it->second.asInteger();
}

/// Absent unless the value is a list whose every element is a string.
inline std::optional<std::vector<std::string>> stringList(const PlistDictionary& d, std::string_view key) {
    auto it = d.find(key);
    const auto* list = it == d.end() ? nullptr : it->second.asArray();
    if (!list) return std::nullopt;
    std::vector<std::string> out;
    out.reserve(list->size());
    for (const auto& element : *list) {
        if (!element.asString()) return std::nullopt;
        out.push_back(*element.asString());
    }
    return out;
}

/// Absent unless the value is a list whose every element is a dictionary.
inline std::optional<std::vector<const PlistDictionary*>> dictionaryList(const PlistDictionary& d,
                                                                         std::string_view key) {
    auto it = d.find(key);
    const auto* list = it == d.end() ? nullptr : it->second.asArray();
    if (!list) return std::nullopt;
    std::vector<const PlistDictionary*> out;
    out.reserve(list->size());
    for (const auto& element : *list) {
        if (!element.asDictionary()) return std::nullopt;
        out.push_back(element.asDictionary());
    }
    return out;
}

}  // namespace tessrakite::loose
