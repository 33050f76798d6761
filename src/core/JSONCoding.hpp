#pragma once

// The keyed JSON coding that every record shares: strict types, absent optionals omitted,
// errors that name the path to the failing value.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include <nlohmann/json.hpp>

#include <tessrakite/core/DecodingError.hpp>
#include <tessrakite/platform/PlistValue.hpp>

namespace tessrakite::coding {

using Json = nlohmann::ordered_json;

/// "kind at a.b[2].c: text", the console form of coding errors.
std::string describeError(const char* kind, const std::vector<std::string>& path, const std::string& text);
/// "a string", "a number", ... for messages about what was found.
const char* foundName(const Json& json) noexcept;
[[noreturn]] void throwTypeMismatch(const char* expected, const Json& found);
/// True when the double, integral or not, lies within Int64's range.
bool fitsInt64(double d) noexcept;

template <class T>
inline constexpr bool isVector = false;
template <class T>
inline constexpr bool isVector<std::vector<T>> = true;

/// The name of what a member was expected to be, for messages.
template <class T>
constexpr const char* typeName() {
    if constexpr (std::is_same_v<T, bool>) return "Bool";
    else if constexpr (std::is_same_v<T, std::int64_t>) return "Int64";
    else if constexpr (std::is_same_v<T, double>) return "Double";
    else if constexpr (std::is_same_v<T, std::string>) return "String";
    else if constexpr (isVector<T>) return "Array";
    else return "Dictionary";
}

// Strict scalars: no number is read as a bool, no bool or fraction as an integer (a
// number with an integral value, like 3.0, is one).
void decodeValue(const Json& json, bool& out);
void decodeValue(const Json& json, std::int64_t& out);
void decodeValue(const Json& json, double& out);
void decodeValue(const Json& json, std::string& out);
template <class T>
void decodeValue(const Json& json, std::vector<T>& out);
template <class T>
void decodeValue(const Json& json, std::map<std::string, T>& out);
// Records decode through their own from_json.
template <class T>
void decodeValue(const Json& json, T& out) {
    from_json(json, out);
}

template <class T>
void decodeValue(const Json& json, std::vector<T>& out) {
    if (!json.is_array()) throwTypeMismatch("Array", json);
    out.clear();
    out.reserve(json.size());
    std::size_t index = 0;
    for (const auto& element : json) {
        try {
            if (element.is_null())
                throw DecodingError(DecodingError::Kind::valueNotFound,
                                    std::string("Expected ") + typeName<T>() + " value but found null instead.");
            T value{};
            decodeValue(element, value);
            out.push_back(std::move(value));
        } catch (DecodingError& e) {
            e.prependIndex(index);
            throw;
        }
        ++index;
    }
}

template <class T>
void decodeValue(const Json& json, std::map<std::string, T>& out) {
    if (!json.is_object()) throwTypeMismatch("Dictionary", json);
    out.clear();
    for (auto it = json.begin(); it != json.end(); ++it) {
        try {
            if (it->is_null())
                throw DecodingError(DecodingError::Kind::valueNotFound,
                                    std::string("Expected ") + typeName<T>() + " value but found null instead.");
            T value{};
            decodeValue(*it, value);
            out.insert_or_assign(it.key(), std::move(value));
        } catch (DecodingError& e) {
            e.prependKey(it.key());
            throw;
        }
    }
}

/// Reads the members of one JSON object.
class KeyedDecoder {
public:
    explicit KeyedDecoder(const Json& json) : json_(json) {
        if (!json.is_object()) throwTypeMismatch("Dictionary", json);
    }

    /// A required member: missing or null is an error.
    template <class T>
    T decode(const char* key) const {
        auto it = json_.find(key);
        if (it == json_.end())
            throw DecodingError(DecodingError::Kind::keyNotFound,
                                std::string("No value associated with key \"") + key + "\".");
        if (it->is_null())
            throw DecodingError(DecodingError::Kind::valueNotFound,
                                std::string("Expected ") + typeName<T>() + " value but found null instead.", {key});
        return member<T>(*it, key);
    }

    /// An optional member: missing or null gives nothing, a wrong type is still an error.
    template <class T>
    std::optional<T> decodeIfPresent(const char* key) const {
        auto it = json_.find(key);
        if (it == json_.end() || it->is_null()) return std::nullopt;
        return member<T>(*it, key);
    }

private:
    template <class T>
    static T member(const Json& json, const char* key) {
        try {
            T value{};
            decodeValue(json, value);
            return value;
        } catch (DecodingError& e) {
            e.prependKey(key);
            throw;
        }
    }

    const Json& json_;
};

/// Writes the members of one JSON object in the order they are put.
class KeyedEncoder {
public:
    explicit KeyedEncoder(Json& json) : json_(json) { json_ = Json::object(); }

    template <class T>
    void encode(const char* key, const T& value) {
        json_[key] = value;
    }
    template <class T>
    void encodeIfPresent(const char* key, const std::optional<T>& value) {
        if (value) json_[key] = *value;
    }

private:
    Json& json_;
};

/// True when every value in the dictionary has a JSON form (no data, date, NaN or infinity).
bool isValidJSONObject(const PlistDictionary& dictionary);
/// The JSON form of a user-info dictionary. Raises std::invalid_argument for a value
/// without one, for a string that is not UTF-8 (it could not be written as JSON text), or
/// for containers nested deeper than nesting::kMaxDepth.
Json serialize(const PlistDictionary& dictionary);

}  // namespace tessrakite::coding
