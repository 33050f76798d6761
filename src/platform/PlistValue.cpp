#include <tessrakite/platform/PlistValue.hpp>

#include <cmath>
#include <stdexcept>

namespace tessrakite {

const PlistValue* PlistValue::find(std::string_view key) const {
    const auto* dict = asDictionary();
    if (!dict) return nullptr;
    auto it = dict->find(key);
    return it == dict->end() ? nullptr : &it->second;
}

bool PlistValue::isJSONRepresentable() const {
    switch (type()) {
        case Type::data:
        case Type::date:
            return false;
        case Type::real:
            return std::isfinite(*asReal());
        case Type::array:
            for (const auto& v : *asArray())
                if (!v.isJSONRepresentable()) return false;
            return true;
        case Type::dictionary:
            for (const auto& [k, v] : *asDictionary())
                if (!v.isJSONRepresentable()) return false;
            return true;
        default:
            return true;
    }
}

bool PlistValue::isValidJSONObject() const { return type() == Type::dictionary && isJSONRepresentable(); }

nlohmann::ordered_json PlistValue::toJSON() const {
    switch (type()) {
        case Type::null: return nullptr;
        case Type::boolean: return *asBool();
        case Type::integer: return *asInteger();
        case Type::real:
            if (!std::isfinite(*asReal())) throw std::invalid_argument("a non-finite number has no JSON form");
            return *asReal();
        case Type::string: return *asString();
        case Type::data: throw std::invalid_argument("data has no JSON form");
        case Type::date: throw std::invalid_argument("a date has no JSON form");
        case Type::array: {
            auto out = nlohmann::ordered_json::array();
            for (const auto& v : *asArray()) out.push_back(v.toJSON());
            return out;
        }
        case Type::dictionary: {
            auto out = nlohmann::ordered_json::object();
            for (const auto& [k, v] : *asDictionary()) out[k] = v.toJSON();
            return out;
        }
    }
    return nullptr;
}

std::string PlistValue::toJSONString() const { return toJSON().dump(); }

namespace {
template <class Json>
PlistValue fromAnyJSON(const Json& j) {
    switch (j.type()) {
        case nlohmann::json::value_t::null: return PlistValue();
        case nlohmann::json::value_t::boolean: return PlistValue(j.template get<bool>());
        case nlohmann::json::value_t::number_integer: return PlistValue(j.template get<std::int64_t>());
        case nlohmann::json::value_t::number_unsigned: {
            auto u = j.template get<std::uint64_t>();
            if (u > static_cast<std::uint64_t>(INT64_MAX)) return PlistValue(static_cast<double>(u));
            return PlistValue(static_cast<std::int64_t>(u));
        }
        case nlohmann::json::value_t::number_float: return PlistValue(j.template get<double>());
        case nlohmann::json::value_t::string: return PlistValue(j.template get<std::string>());
        case nlohmann::json::value_t::array: {
            PlistArray out;
            out.reserve(j.size());
            for (const auto& e : j) out.push_back(fromAnyJSON(e));
            return PlistValue(std::move(out));
        }
        case nlohmann::json::value_t::object: {
            PlistDictionary out;
            for (auto it = j.begin(); it != j.end(); ++it) out.emplace(it.key(), fromAnyJSON(it.value()));
            return PlistValue(std::move(out));
        }
        case nlohmann::json::value_t::binary: {
            const auto& b = j.get_binary();
            return PlistValue(Data(b.begin(), b.end()));
        }
        case nlohmann::json::value_t::discarded: return PlistValue();
    }
    return PlistValue();
}
}  // namespace

PlistValue PlistValue::fromJSON(const nlohmann::ordered_json& json) { return fromAnyJSON(json); }
PlistValue PlistValue::fromJSON(const nlohmann::json& json) { return fromAnyJSON(json); }

const char* PlistValue::typeName(Type type) {
    switch (type) {
        case Type::null: return "null";
        case Type::boolean: return "bool";
        case Type::integer: return "int";
        case Type::real: return "double";
        case Type::string: return "string";
        case Type::data: return "data";
        case Type::date: return "date";
        case Type::array: return "array";
        case Type::dictionary: return "dict";
    }
    return "null";
}

}  // namespace tessrakite
