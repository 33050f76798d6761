#include <tessrakite/location/Geofences.hpp>

#include <tuple>

#include "core/RecordFields.hpp"

namespace tessrakite {

namespace {
const auto kGeofencesFields = std::tuple{coding::requiredField("gl", &Geofences::gl)};
}  // namespace

void to_json(nlohmann::ordered_json& json, const Geofences& value) {
    coding::encodeFields(json, value, kGeofencesFields);
}
void from_json(const nlohmann::ordered_json& json, Geofences& value) {
    coding::decodeFields(json, value, kGeofencesFields);
}

}  // namespace tessrakite
