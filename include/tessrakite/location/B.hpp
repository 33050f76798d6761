#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/PlistValue.hpp>

namespace tessrakite {

/// One beacon of an administrative push. The JSON key is the field name; "id" and "ib"
/// are required.
struct TESSRA_EXPORT B {
    std::string id;
    std::string ib;
    std::optional<std::int64_t> major;
    std::optional<std::int64_t> minor;
    std::optional<std::int64_t> distance;

    /// From one element of a push's "bl" list. "id" and "ib" must be strings, or the
    /// process stops: the backend sent a malformed push. "major", "minor" and "distance"
    /// of another type than integer read as absent.
    static B init(const PlistDictionary& with);

    friend bool operator==(const B&, const B&) = default;
};

TESSRA_EXPORT void to_json(nlohmann::ordered_json& json, const B& value);
/// Raises DecodingError.
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& json, B& value);

}  // namespace tessrakite
