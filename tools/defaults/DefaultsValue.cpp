#include "DefaultsValue.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>

namespace tessra_defaults {

using tessrakite::PlistValue;
using Json = nlohmann::ordered_json;

namespace {

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

PlistValue parseContainer(std::string_view type, std::string_view text) {
    // Checked on the text, before parsing: converting a very deep document would exhaust the stack.
    if (!tessrakite::nesting::jsonWithinLimit(text))
        throw BadValue("the value is nested deeper than " + std::to_string(kMaxNesting) + " levels");
    Json json;
    try {
        json = Json::parse(text);
    } catch (const std::exception&) {
        throw BadValue("the value is not valid JSON");
    }
    if (type == "array" && !json.is_array()) throw BadValue("an array value is a JSON array, like [1, \"two\"]");
    if (type == "dict" && !json.is_object()) throw BadValue("a dict value is a JSON object, like {\"key\": 1}");
    return PlistValue::fromJSON(json);
}

std::string quoted(const std::string& text) {
    return Json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string hexOf(const tessrakite::Data& bytes) {
    std::string hex;
    char buffer[3];
    for (auto byte : bytes) {
        std::snprintf(buffer, sizeof buffer, "%02x", byte);
        hex += buffer;
    }
    return hex;
}

std::string describeNumber(double d) {
    if (std::isnan(d)) return "nan";
    if (std::isinf(d)) return d > 0 ? "inf" : "-inf";
    return Json(d).dump();  // shortest text that reads back as the same double
}

std::string describeDate(double seconds) {
    // Far outside what time_t and a calendar can show: print the number instead.
    if (!std::isfinite(seconds) || std::fabs(seconds) > 1e14) return describeNumber(seconds) + " s";
    const auto whole = static_cast<std::time_t>(std::floor(seconds));
    std::tm utc{};
    char buffer[64];
    if (!gmtime_r(&whole, &utc) || !std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S +0000", &utc))
        return describeNumber(seconds) + " s";
    return buffer;
}

}  // namespace

PlistValue parseValue(std::string_view type, std::string_view text) {
    if (type == "bool") {
        const std::string word = lower(text);
        if (word == "true" || word == "yes" || word == "1") return PlistValue(true);
        if (word == "false" || word == "no" || word == "0") return PlistValue(false);
        throw BadValue("a bool value is true or false (or yes/no, 1/0)");
    }
    if (type == "int") {
        std::string_view digits = text;
        if (digits.size() > 1 && digits.front() == '+') digits.remove_prefix(1);
        std::int64_t value = 0;
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
        if (error == std::errc::result_out_of_range) throw BadValue("the int value does not fit in 64 bits");
        if (error != std::errc() || end != digits.data() + digits.size() || digits.empty())
            throw BadValue("an int value is a whole number, like 42 or -7");
        return PlistValue(value);
    }
    if (type == "double") {
        std::string_view digits = text;
        if (digits.size() > 1 && digits.front() == '+') digits.remove_prefix(1);
        double value = 0;
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
        if (error != std::errc() || end != digits.data() + digits.size() || digits.empty() || !std::isfinite(value))
            throw BadValue("a double value is a finite number, like 2.5 or -1e3");
        return PlistValue(value);
    }
    if (type == "string") return PlistValue(std::string(text));
    if (type == "array" || type == "dict") return parseContainer(type, text);
    throw BadValue("unknown type \"" + std::string(type) + "\" (bool, int, double, string, array, dict)");
}

std::string describe(const PlistValue& value) {
    switch (value.type()) {
        case PlistValue::Type::null: return "null";
        case PlistValue::Type::boolean: return *value.asBool() ? "true" : "false";
        case PlistValue::Type::integer: return std::to_string(*value.asInteger());
        case PlistValue::Type::real: return describeNumber(*value.asReal());
        case PlistValue::Type::string: return quoted(*value.asString());
        case PlistValue::Type::data: return "<" + hexOf(*value.asData()) + ">";
        case PlistValue::Type::date: return describeDate(value.asDate()->secondsSince1970);
        case PlistValue::Type::array: {
            std::string out = "[";
            for (const auto& item : *value.asArray()) out += (out.size() > 1 ? ", " : "") + describe(item);
            return out + "]";
        }
        case PlistValue::Type::dictionary: {
            std::string out = "{";
            for (const auto& [key, item] : *value.asDictionary())
                out += (out.size() > 1 ? ", " : "") + quoted(key) + ": " + describe(item);
            return out + "}";
        }
    }
    return "null";
}

namespace {

Json plainJson(const PlistValue& value) {
    switch (value.type()) {
        case PlistValue::Type::null: return nullptr;
        case PlistValue::Type::boolean: return *value.asBool();
        case PlistValue::Type::integer: return *value.asInteger();
        case PlistValue::Type::real: return *value.asReal();  // NaN and infinities print as null
        case PlistValue::Type::string: return *value.asString();
        case PlistValue::Type::data: return hexOf(*value.asData());
        case PlistValue::Type::date: return value.asDate()->secondsSince1970;
        case PlistValue::Type::array: {
            Json out = Json::array();
            for (const auto& item : *value.asArray()) out.push_back(plainJson(item));
            return out;
        }
        case PlistValue::Type::dictionary: {
            Json out = Json::object();
            for (const auto& [key, item] : *value.asDictionary()) out[key] = plainJson(item);
            return out;
        }
    }
    return nullptr;
}

}  // namespace

Json typedJson(const PlistValue& value) {
    return {{"type", PlistValue::typeName(value.type())}, {"value", plainJson(value)}};
}

}  // namespace tessra_defaults
