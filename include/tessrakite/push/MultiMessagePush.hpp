#pragma once

#include <optional>
#include <vector>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>
#include <tessrakite/push/P.hpp>

namespace tessrakite {

/// A campaign with several entries. Keys "p", "isMultiple".
struct TESSRA_EXPORT MultiMessagePush {
    std::optional<std::vector<P>> p;
    std::optional<bool> isMultiple;

    friend bool operator==(const MultiMessagePush&, const MultiMessagePush&) = default;
};

TESSRA_EXPORT void to_json(nlohmann::ordered_json& json, const MultiMessagePush& value);
/// Raises DecodingError.
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& json, MultiMessagePush& value);

}  // namespace tessrakite
