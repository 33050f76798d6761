#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>
#include <tessrakite/push/N.hpp>

namespace tessrakite {

/// One campaign entry, one message. Keys in coding order: "i", "o" (required), "t".
/// Here "t" is the title, unlike the tracker lists named "t" elsewhere.
struct TESSRA_EXPORT P {
    std::optional<std::vector<std::string>> i;  // impression-tracker URLs
    N o;                                        // the message fields
    std::optional<std::string> t;               // the message title

    friend bool operator==(const P&, const P&) = default;
};

TESSRA_EXPORT void to_json(nlohmann::ordered_json& json, const P& value);
/// Raises DecodingError.
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& json, P& value);

}  // namespace tessrakite
