#include <tessrakite/push/P.hpp>

#include "core/JSONCoding.hpp"

namespace tessrakite {

void to_json(nlohmann::ordered_json& json, const P& value) {
    coding::KeyedEncoder out(json);
    out.encodeIfPresent("i", value.i);
    out.encode("o", value.o);
    out.encodeIfPresent("t", value.t);
}

void from_json(const nlohmann::ordered_json& json, P& value) {
    coding::KeyedDecoder in(json);
    value.i = in.decodeIfPresent<std::vector<std::string>>("i");
    value.o = in.decode<N>("o");
    value.t = in.decodeIfPresent<std::string>("t");
}

}  // namespace tessrakite
