#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>
#include <tessrakite/location/Gl.hpp>
#include <tessrakite/push/N.hpp>

namespace tessrakite {

/// The "alert" object of a direct push, extended with the SDK's keys. Keys in coding
/// order: "bl", "gl", "title" (required), "mavo", "e", "n", "v", "t".
struct TESSRA_EXPORT NotificationBody {
    std::optional<std::vector<std::string>> bl;  // beacon list
    std::optional<std::vector<Gl>> gl;           // geofence list
    std::string title;
    std::optional<bool> mavo;                    // remembered when the push names an endpoint
    std::optional<std::string> e;                // campaign endpoint to fetch the message from
    std::optional<N> n;                          // the SDK's message fields
    std::optional<std::string> v;                // carried as received
    std::optional<std::vector<std::string>> t;  // impression-tracker URLs

    friend bool operator==(const NotificationBody&, const NotificationBody&) = default;
};

TESSRA_EXPORT void to_json(nlohmann::ordered_json& json, const NotificationBody& value);
/// Raises DecodingError.
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& json, NotificationBody& value);

}  // namespace tessrakite
