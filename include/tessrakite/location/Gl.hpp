#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/PlistValue.hpp>

namespace tessrakite {

/// One geofence of an administrative push. The JSON key is the field name; "c" and "id"
/// are required.
struct TESSRA_EXPORT Gl {
    std::vector<std::string> c;   // coordinates, as the backend writes them
    std::optional<std::string> e;
    std::optional<bool> er;
    std::optional<bool> lr;
    std::optional<std::int64_t> r;  // radius
    std::string id;

    /// From one element of a push's "gl" list. "c" (a list of strings) and "id" (a string)
    /// must be there, or the process stops: the backend sent a malformed push. "e", "er"
    /// and "lr" of another type read as absent. The radius comes from "e" read as an
    /// integer, never from "r": the backend's pushes carry it there, while its JSON
    /// documents use "r".
    static Gl init(const PlistDictionary& with);

    friend bool operator==(const Gl&, const Gl&) = default;
};

TESSRA_EXPORT void to_json(nlohmann::ordered_json& json, const Gl& value);
/// Raises DecodingError.
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& json, Gl& value);

}  // namespace tessrakite
