#include <tessrakite/push/PushObj.hpp>

#include "core/JSONCoding.hpp"

namespace tessrakite {

void to_json(nlohmann::ordered_json& json, const PushObj& value) {
    coding::KeyedEncoder out(json);
    out.encode("aps", value.aps);
}

void from_json(const nlohmann::ordered_json& json, PushObj& value) {
    coding::KeyedDecoder in(json);
    value.aps = in.decode<Aps>("aps");
}

}  // namespace tessrakite
