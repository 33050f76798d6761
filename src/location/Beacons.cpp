#include <tessrakite/location/Beacons.hpp>

#include <tuple>

#include "core/RecordFields.hpp"

namespace tessrakite {

namespace {
const auto kBeaconsFields = std::tuple{coding::requiredField("bl", &Beacons::bl)};
}  // namespace

void to_json(nlohmann::ordered_json& json, const Beacons& value) {
    coding::encodeFields(json, value, kBeaconsFields);
}
void from_json(const nlohmann::ordered_json& json, Beacons& value) {
    coding::decodeFields(json, value, kBeaconsFields);
}

}  // namespace tessrakite
