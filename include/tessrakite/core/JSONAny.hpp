#pragma once

#include <any>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>
#include <tessrakite/core/JSONNull.hpp>

namespace tessrakite {

/// A JSON value whose type is not known in advance.
///
/// After decoding, `value` holds one of: bool, std::int64_t, double, std::string,
/// JSONNull, JSONAny::Array or JSONAny::Dictionary (whose elements are again of these
/// types). A caller may put anything else into `value`; encoding then fails with
/// "Cannot encode JSONAny".
class TESSRA_EXPORT JSONAny {
public:
    using Array = std::vector<std::any>;
    using Dictionary = std::map<std::string, std::any>;

    JSONAny() : value(JSONNull{}) {}
    explicit JSONAny(std::any v) : value(std::move(v)) {}

    std::any value;

    /// The held value as T, or nullptr when it holds another type.
    template <class T>
    const T* get() const noexcept {
        return std::any_cast<T>(&value);
    }

    /// Arrays and objects recurse; a scalar is taken as the first of boolean, 64-bit
    /// integer, double, string and null that fits, so `true` is never an integer and `1`
    /// never a double. Raises DecodingError "Cannot decode JSONAny" when nothing fits.
    static JSONAny decode(const nlohmann::ordered_json& json);
    /// The mirror of decode. Raises EncodingError "Cannot encode JSONAny" for a value of
    /// any other type, anywhere in the tree.
    nlohmann::ordered_json encode() const;
};

TESSRA_EXPORT void from_json(const nlohmann::ordered_json& json, JSONAny& value);
TESSRA_EXPORT void to_json(nlohmann::ordered_json& json, const JSONAny& value);

}  // namespace tessrakite
