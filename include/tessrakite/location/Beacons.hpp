#pragma once

#include <vector>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>
#include <tessrakite/location/B.hpp>

namespace tessrakite {

/// The beacons an administrative push hands to the app ("bl", required).
struct TESSRA_EXPORT Beacons {
    std::vector<B> bl;

    friend bool operator==(const Beacons&, const Beacons&) = default;
};

TESSRA_EXPORT void to_json(nlohmann::ordered_json& json, const Beacons& value);
/// Raises DecodingError.
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& json, Beacons& value);

}  // namespace tessrakite
