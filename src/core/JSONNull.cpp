#include <tessrakite/core/JSONNull.hpp>

#include <tessrakite/core/DecodingError.hpp>

namespace tessrakite {

void from_json(const nlohmann::ordered_json& json, JSONNull& /*value*/) {
    if (!json.is_null()) throw DecodingError(DecodingError::Kind::typeMismatch, "Wrong type for JSONNull");
}

void to_json(nlohmann::ordered_json& json, const JSONNull& /*value*/) { json = nullptr; }

}  // namespace tessrakite
