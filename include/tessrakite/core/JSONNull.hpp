#pragma once

#include <cstddef>
#include <functional>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>

namespace tessrakite {

/// The JSON null as a value of its own, as `JSONAny` holds it.
struct TESSRA_EXPORT JSONNull {
    // There is only one null: any two are equal and all hash alike.
    friend bool operator==(const JSONNull&, const JSONNull&) noexcept { return true; }
    std::size_t hashValue() const noexcept { return 0; }
};

/// Accepts only null; anything else raises a type mismatch "Wrong type for JSONNull".
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& json, JSONNull& value);
/// Writes null.
TESSRA_EXPORT void to_json(nlohmann::ordered_json& json, const JSONNull& value);

}  // namespace tessrakite

template <>
struct std::hash<tessrakite::JSONNull> {
    std::size_t operator()(const tessrakite::JSONNull& value) const noexcept { return value.hashValue(); }
};
