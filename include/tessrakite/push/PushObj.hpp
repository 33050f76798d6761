#pragma once

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>
#include <tessrakite/push/Aps.hpp>

namespace tessrakite {

/// The direct push shape: everything under "aps" (required).
struct TESSRA_EXPORT PushObj {
    Aps aps;

    friend bool operator==(const PushObj&, const PushObj&) = default;
};

TESSRA_EXPORT void to_json(nlohmann::ordered_json& json, const PushObj& value);
/// Raises DecodingError.
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& json, PushObj& value);

}  // namespace tessrakite
