#include <tessrakite/push/Conversion.hpp>

#include "core/JSONCoding.hpp"

namespace tessrakite {

void to_json(nlohmann::ordered_json& json, const Conversion& value) {
    coding::KeyedEncoder out(json);
    out.encode("url", value.url);
    out.encodeIfPresent("t", value.t);
}

void from_json(const nlohmann::ordered_json& json, Conversion& value) {
    coding::KeyedDecoder in(json);
    value.url = in.decode<std::string>("url");
    value.t = in.decodeIfPresent<std::vector<std::string>>("t");
}

}  // namespace tessrakite
