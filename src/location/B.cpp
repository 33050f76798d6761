#include <tessrakite/location/B.hpp>

#include "core/JSONCoding.hpp"

namespace tessrakite {

void to_json(nlohmann::ordered_json& json, const B& value) {
    coding::KeyedEncoder out(json);
    out.encode("id", value.id);
    out.encode("ib", value.ib);
    out.encodeIfPresent("major", value.major);
    out.encodeIfPresent("minor", value.minor);
    out.encodeIfPresent("distance", value.distance);
}

void from_json(const nlohmann::ordered_json& json, B& value) {
    coding::KeyedDecoder in(json);
    value.id = in.decode<std::string>("id");
    value.ib = in.decode<std::string>("ib");
    value.major = in.decodeIfPresent<std::int64_t>("major");
    value.minor = in.decodeIfPresent<std::int64_t>("minor");
    value.distance = in.decodeIfPresent<std::int64_t>("distance");
}

}  // namespace tessrakite
