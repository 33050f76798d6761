#include <tessrakite/core/JSONAny.hpp>

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>

#include <tessrakite/core/DecodingError.hpp>
#include <tessrakite/core/EncodingError.hpp>

#include "core/JSONCoding.hpp"
#include "platform/Nesting.hpp"

namespace tessrakite {
namespace {

using Json = nlohmann::ordered_json;

[[noreturn]] void cannotDecode() { throw DecodingError(DecodingError::Kind::typeMismatch, "Cannot decode JSONAny"); }
[[noreturn]] void cannotEncode() { throw EncodingError(EncodingError::Kind::invalidValue, "Cannot encode JSONAny"); }

void checkDecodeDepth(int level) {
    if (level > nesting::kMaxDepth) throw DecodingError(DecodingError::Kind::dataCorrupted, nesting::TooDeep().what());
}
void checkEncodeDepth(int level) {
    if (level > nesting::kMaxDepth) throw EncodingError(EncodingError::Kind::invalidValue, nesting::TooDeep().what());
}

// The scalar types in their fixed order: the first that fits wins, so `true` is a
// boolean and never an integer, and `1` (or `1.0`, an integral value) an integer and never
// a double.
std::optional<std::any> decodeScalar(const Json& json) {
    if (json.is_boolean()) return std::any(json.get<bool>());
    if (json.is_number_integer()) {
        if (json.is_number_unsigned() &&
            json.get<std::uint64_t>() > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
            return std::any(json.get<double>());  // too large for Int64, so the double step takes it
        return std::any(json.get<std::int64_t>());
    }
    if (json.is_number()) {
        const double d = json.get<double>();
        if (d == std::trunc(d) && coding::fitsInt64(d)) return std::any(static_cast<std::int64_t>(d));
        return std::any(d);
    }
    if (json.is_string()) return std::any(json.get<std::string>());
    if (json.is_null()) return std::any(JSONNull{});
    return std::nullopt;
}

// `level`: the nesting level of the container being decoded or encoded, the outermost
// being 1.
JSONAny::Array decodeArray(const Json& json, int level);
JSONAny::Dictionary decodeDictionary(const Json& json, int level);

// An element of an array or dictionary: the scalars first, then a nested array, then a
// nested dictionary.
std::any decodeElement(const Json& json, int level) {
    if (auto scalar = decodeScalar(json)) return std::move(*scalar);
    if (json.is_array()) return decodeArray(json, level);
    if (json.is_object()) return decodeDictionary(json, level);
    cannotDecode();
}

JSONAny::Array decodeArray(const Json& json, int level) {
    checkDecodeDepth(level);
    JSONAny::Array out;
    out.reserve(json.size());
    std::size_t index = 0;
    for (const auto& element : json) {
        try {
            out.push_back(decodeElement(element, level + 1));
        } catch (DecodingError& e) {
            e.prependIndex(index);
            throw;
        }
        ++index;
    }
    return out;
}

JSONAny::Dictionary decodeDictionary(const Json& json, int level) {
    checkDecodeDepth(level);
    JSONAny::Dictionary out;
    for (auto it = json.begin(); it != json.end(); ++it) {
        try {
            out.insert_or_assign(it.key(), decodeElement(it.value(), level + 1));
        } catch (DecodingError& e) {
            e.prependKey(it.key());
            throw;
        }
    }
    return out;
}

Json encodeArray(const JSONAny::Array& array, int level);
Json encodeDictionary(const JSONAny::Dictionary& dictionary, int level);

// The mirror of decoding: boolean, integer, double, string, null, array, dictionary, and
// nothing else.
Json encodeValue(const std::any& value, int level) {
    if (const auto* b = std::any_cast<bool>(&value)) return *b;
    if (const auto* i = std::any_cast<std::int64_t>(&value)) return *i;
    if (const auto* d = std::any_cast<double>(&value)) {
        // JSON has no NaN or infinity; writing null instead would change the value.
        if (!std::isfinite(*d))
            throw EncodingError(EncodingError::Kind::invalidValue, "Cannot encode a non-finite double in JSON");
        return *d;
    }
    if (const auto* s = std::any_cast<std::string>(&value)) return *s;
    if (std::any_cast<JSONNull>(&value)) return nullptr;
    if (const auto* a = std::any_cast<JSONAny::Array>(&value)) return encodeArray(*a, level);
    if (const auto* m = std::any_cast<JSONAny::Dictionary>(&value)) return encodeDictionary(*m, level);
    cannotEncode();
}

Json encodeArray(const JSONAny::Array& array, int level) {
    checkEncodeDepth(level);
    auto out = Json::array();
    out.get_ref<Json::array_t&>().reserve(array.size());
    std::size_t index = 0;
    for (const auto& element : array) {
        try {
            out.push_back(encodeValue(element, level + 1));
        } catch (EncodingError& e) {
            e.prependIndex(index);
            throw;
        }
        ++index;
    }
    return out;
}

Json encodeDictionary(const JSONAny::Dictionary& dictionary, int level) {
    checkEncodeDepth(level);
    auto out = Json::object();
    auto& members = out.get_ref<Json::object_t&>();
    members.reserve(dictionary.size());
    for (const auto& [key, value] : dictionary) {
        try {
            // Keys of a map are unique: append without the ordered map's lookup.
            members.Json::object_t::Container::emplace_back(key, encodeValue(value, level + 1));
        } catch (EncodingError& e) {
            e.prependKey(key);
            throw;
        }
    }
    return out;
}

}  // namespace

JSONAny JSONAny::decode(const Json& json) {
    if (json.is_array()) return JSONAny(decodeArray(json, 1));
    if (json.is_object()) return JSONAny(decodeDictionary(json, 1));
    if (auto scalar = decodeScalar(json)) return JSONAny(std::move(*scalar));
    cannotDecode();
}

Json JSONAny::encode() const {
    if (const auto* a = std::any_cast<Array>(&value)) return encodeArray(*a, 1);
    if (const auto* m = std::any_cast<Dictionary>(&value)) return encodeDictionary(*m, 1);
    return encodeValue(value, 1);
}

void from_json(const Json& json, JSONAny& value) { value = JSONAny::decode(json); }

void to_json(Json& json, const JSONAny& value) { json = value.encode(); }

}  // namespace tessrakite
