#include "core/JSONCoding.hpp"

#include <cmath>
#include <limits>
#include <stdexcept>
#include <string_view>

#include "platform/Nesting.hpp"

namespace tessrakite::coding {

std::string describeError(const char* kind, const std::vector<std::string>& path, const std::string& text) {
    std::string out = kind;
    if (!path.empty()) {
        out += " at ";
        bool first = true;
        for (const auto& element : path) {
            if (!first && (element.empty() || element.front() != '[')) out += '.';
            out += element;
            first = false;
        }
    }
    out += ": ";
    out += text;
    return out;
}

const char* foundName(const Json& json) noexcept {
    switch (json.type()) {
        case Json::value_t::null: return "null";
        case Json::value_t::boolean: return "a boolean";
        case Json::value_t::number_integer:
        case Json::value_t::number_unsigned:
        case Json::value_t::number_float: return "a number";
        case Json::value_t::string: return "a string";
        case Json::value_t::array: return "an array";
        case Json::value_t::object: return "a dictionary";
        case Json::value_t::binary: return "binary data";
        case Json::value_t::discarded: return "nothing";
    }
    return "nothing";
}

bool fitsInt64(double d) noexcept {
    // -2^63 is exact as a double; 2^63 is the first double past the range.
    return d >= -9223372036854775808.0 && d < 9223372036854775808.0;
}

void throwTypeMismatch(const char* expected, const Json& found) {
    throw DecodingError(DecodingError::Kind::typeMismatch,
                        std::string("Expected to decode ") + expected + " but found " + foundName(found) + " instead.");
}

void decodeValue(const Json& json, bool& out) {
    if (!json.is_boolean()) throwTypeMismatch("Bool", json);
    out = json.get_ref<const Json::boolean_t&>();
}

void decodeValue(const Json& json, std::int64_t& out) {
    if (json.is_number_unsigned()) {
        auto u = json.get_ref<const Json::number_unsigned_t&>();
        if (u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
            throw DecodingError(DecodingError::Kind::dataCorrupted,
                                "Parsed JSON number " + std::to_string(u) + " does not fit in Int64.");
        out = static_cast<std::int64_t>(u);
        return;
    }
    if (json.is_number_float()) {
        // As the platform's decoder does: a number with an integral value (3.0, 3e0) is an
        // integer, a fraction is not.
        const double d = json.get_ref<const Json::number_float_t&>();
        if (d != std::trunc(d)) throwTypeMismatch("Int64", json);
        if (!fitsInt64(d))
            throw DecodingError(DecodingError::Kind::dataCorrupted,
                                "Parsed JSON number " + json.dump() + " does not fit in Int64.");
        out = static_cast<std::int64_t>(d);
        return;
    }
    if (!json.is_number_integer()) throwTypeMismatch("Int64", json);
    out = json.get_ref<const Json::number_integer_t&>();
}

void decodeValue(const Json& json, double& out) {
    if (!json.is_number()) throwTypeMismatch("Double", json);
    out = json.get<double>();
}

void decodeValue(const Json& json, std::string& out) {
    if (!json.is_string()) throwTypeMismatch("String", json);
    out = json.get_ref<const Json::string_t&>();
}

namespace {

bool isUTF8(std::string_view s) noexcept {
    std::size_t i = 0;
    const std::size_t n = s.size();
    while (i < n) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (c < 0x80) {
            ++i;
            continue;
        }
        std::size_t len = 0;
        std::uint32_t cp = 0;
        if ((c & 0xE0) == 0xC0) {
            len = 2;
            cp = c & 0x1Fu;
        } else if ((c & 0xF0) == 0xE0) {
            len = 3;
            cp = c & 0x0Fu;
        } else if ((c & 0xF8) == 0xF0) {
            len = 4;
            cp = c & 0x07u;
        } else {
            return false;
        }
        if (n - i < len) return false;
        for (std::size_t k = 1; k < len; ++k) {
            const auto cc = static_cast<unsigned char>(s[i + k]);
            if ((cc & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (cc & 0x3Fu);
        }
        // Overlong forms, surrogates and values past U+10FFFF have no text form.
        if ((len == 2 && cp < 0x80) || (len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000) ||
            (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF)
            return false;
        i += len;
    }
    return true;
}

void checkString(const std::string& s) {
    if (!isUTF8(s)) throw std::invalid_argument("The data couldn't be written: a string is not valid UTF-8.");
}

Json serializeAt(const PlistDictionary& dictionary, int level);

Json toJSON(const PlistValue& value, int level) {
    switch (value.type()) {
        case PlistValue::Type::null: return nullptr;
        case PlistValue::Type::boolean: return *value.asBool();
        case PlistValue::Type::integer: return *value.asInteger();
        case PlistValue::Type::real:
            if (!std::isfinite(*value.asReal()))
                throw std::invalid_argument("The data couldn't be written: a number is not finite.");
            return *value.asReal();
        case PlistValue::Type::string: checkString(*value.asString()); return *value.asString();
        case PlistValue::Type::data:
        case PlistValue::Type::date:
            throw std::invalid_argument(std::string("The data couldn't be written: a ") +
                                        PlistValue::typeName(value.type()) + " has no JSON form.");
        case PlistValue::Type::array: {
            nesting::check(level);
            auto out = Json::array();
            out.get_ref<Json::array_t&>().reserve(value.asArray()->size());
            for (const auto& element : *value.asArray()) out.push_back(toJSON(element, level + 1));
            return out;
        }
        case PlistValue::Type::dictionary: return serializeAt(*value.asDictionary(), level);
    }
    return nullptr;
}

}  // namespace

bool isValidJSONObject(const PlistDictionary& dictionary) {
    for (const auto& [key, value] : dictionary)
        if (!value.isJSONRepresentable()) return false;
    return true;
}

Json serialize(const PlistDictionary& dictionary) { return serializeAt(dictionary, 1); }

namespace {

Json serializeAt(const PlistDictionary& dictionary, int level) {
    nesting::check(level);
    auto out = Json::object();
    auto& members = out.get_ref<Json::object_t&>();
    members.reserve(dictionary.size());
    for (const auto& [key, value] : dictionary) {
        checkString(key);
        // The source keys are unique, so append without the ordered map's lookup.
        members.Json::object_t::Container::emplace_back(key, toJSON(value, level + 1));
    }
    return out;
}

}  // namespace

}  // namespace tessrakite::coding
