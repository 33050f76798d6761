#include <tessrakite/push/Action.hpp>

#include "core/JSONCoding.hpp"

namespace tessrakite {

void to_json(nlohmann::ordered_json& json, const Action& value) {
    coding::KeyedEncoder out(json);
    out.encode("action", value.action);
    out.encode("title", value.title);
    out.encodeIfPresent("url", value.url);
}

void from_json(const nlohmann::ordered_json& json, Action& value) {
    coding::KeyedDecoder in(json);
    value.action = in.decode<std::string>("action");
    value.title = in.decode<std::string>("title");
    value.url = in.decodeIfPresent<std::string>("url");
}

}  // namespace tessrakite
