#include <tessrakite/push/PCampaignObject.hpp>

#include "core/JSONCoding.hpp"

namespace tessrakite {

PlistDictionary PCampaignObject::dictionary() const {
    nlohmann::ordered_json json = *this;
    auto value = PlistValue::fromJSON(json);
    return std::move(*value.asDictionary());
}

void to_json(nlohmann::ordered_json& json, const PCampaignObject& value) {
    coding::KeyedEncoder out(json);
    out.encode("p", value.p);
    out.encodeIfPresent("t", value.t);
}

void from_json(const nlohmann::ordered_json& json, PCampaignObject& value) {
    coding::KeyedDecoder in(json);
    value.p = in.decode<std::vector<P>>("p");
    value.t = in.decodeIfPresent<std::vector<std::string>>("t");
}

}  // namespace tessrakite
