#include <tessrakite/push/NotificationBody.hpp>

#include "core/JSONCoding.hpp"

namespace tessrakite {

void to_json(nlohmann::ordered_json& json, const NotificationBody& value) {
    coding::KeyedEncoder out(json);
    out.encodeIfPresent("bl", value.bl);
    out.encodeIfPresent("gl", value.gl);
    out.encode("title", value.title);
    out.encodeIfPresent("mavo", value.mavo);
    out.encodeIfPresent("e", value.e);
    out.encodeIfPresent("n", value.n);
    out.encodeIfPresent("v", value.v);
    out.encodeIfPresent("t", value.t);
}

void from_json(const nlohmann::ordered_json& json, NotificationBody& value) {
    coding::KeyedDecoder in(json);
    value.bl = in.decodeIfPresent<std::vector<std::string>>("bl");
    value.gl = in.decodeIfPresent<std::vector<Gl>>("gl");
    value.title = in.decode<std::string>("title");
    value.mavo = in.decodeIfPresent<bool>("mavo");
    value.e = in.decodeIfPresent<std::string>("e");
    value.n = in.decodeIfPresent<N>("n");
    value.v = in.decodeIfPresent<std::string>("v");
    value.t = in.decodeIfPresent<std::vector<std::string>>("t");
}

}  // namespace tessrakite
