#pragma once

#include <vector>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>
#include <tessrakite/location/Gl.hpp>

namespace tessrakite {

/// The geofences an administrative push hands to the app ("gl", required).
struct TESSRA_EXPORT Geofences {
    std::vector<Gl> gl;

    friend bool operator==(const Geofences&, const Geofences&) = default;
};

TESSRA_EXPORT void to_json(nlohmann::ordered_json& json, const Geofences& value);
/// Raises DecodingError.
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& json, Geofences& value);

}  // namespace tessrakite
