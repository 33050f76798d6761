#include <tessrakite/push/MultiMessagePush.hpp>

#include "core/JSONCoding.hpp"

namespace tessrakite {

void to_json(nlohmann::ordered_json& json, const MultiMessagePush& value) {
    coding::KeyedEncoder out(json);
    out.encodeIfPresent("p", value.p);
    out.encodeIfPresent("isMultiple", value.isMultiple);
}

void from_json(const nlohmann::ordered_json& json, MultiMessagePush& value) {
    coding::KeyedDecoder in(json);
    value.p = in.decodeIfPresent<std::vector<P>>("p");
    value.isMultiple = in.decodeIfPresent<bool>("isMultiple");
}

}  // namespace tessrakite
