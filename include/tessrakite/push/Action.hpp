#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>

namespace tessrakite {

/// One action button of a message. Keys "action", "title" (both required), "url".
struct TESSRA_EXPORT Action {
    std::string action;              // the action's identifier
    std::string title;               // the button title
    std::optional<std::string> url;  // opened when the button is chosen

    friend bool operator==(const Action&, const Action&) = default;
};

TESSRA_EXPORT void to_json(nlohmann::ordered_json& json, const Action& value);
/// Raises DecodingError.
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& json, Action& value);

}  // namespace tessrakite
