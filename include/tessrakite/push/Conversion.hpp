#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>

namespace tessrakite {

/// What opening a message leads to and what it reports (the "data" object of a message).
/// Keys "url" (required), "t".
struct TESSRA_EXPORT Conversion {
    std::string url;                             // web link or deep link
    std::optional<std::vector<std::string>> t;  // conversion-tracker URLs fired on open

    friend bool operator==(const Conversion&, const Conversion&) = default;
};

TESSRA_EXPORT void to_json(nlohmann::ordered_json& json, const Conversion& value);
/// Raises DecodingError.
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& json, Conversion& value);

}  // namespace tessrakite
