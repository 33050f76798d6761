#include <tessrakite/location/Gl.hpp>

#include "core/JSONCoding.hpp"

namespace tessrakite {

void to_json(nlohmann::ordered_json& json, const Gl& value) {
    coding::KeyedEncoder out(json);
    out.encode("c", value.c);
    out.encodeIfPresent("e", value.e);
    out.encodeIfPresent("er", value.er);
    out.encodeIfPresent("lr", value.lr);
    out.encodeIfPresent("r", value.r);
    out.encode("id", value.id);
}

void from_json(const nlohmann::ordered_json& json, Gl& value) {
    coding::KeyedDecoder in(json);
    value.c = in.decode<std::vector<std::string>>("c");
    value.e = in.decodeIfPresent<std::string>("e");
    value.er = in.decodeIfPresent<bool>("er");
    value.lr = in.decodeIfPresent<bool>("lr");
    value.r = in.decodeIfPresent<std::int64_t>("r");
    value.id = in.decode<std::string>("id");
}

}  // namespace tessrakite
