#include <tessrakite/platform/PlistValue.hpp>

#include <cmath>
#include <stdexcept>

#include "platform/Nesting.hpp"

namespace tessrakite {
namespace {

bool isContainer(const PlistValue& v) { return v.asArray() || v.asDictionary(); }

// Moves the containers directly below `v` into `pending` and empties `v`.
void takeNested(PlistValue& v, std::vector<PlistValue>& pending) {
    if (auto* array = v.asArray()) {
        for (auto& e : *array)
            if (isContainer(e)) pending.push_back(std::move(e));
        array->clear();
    } else if (auto* dictionary = v.asDictionary()) {
        for (auto& [k, e] : *dictionary)
            if (isContainer(e)) pending.push_back(std::move(e));
        dictionary->clear();
    }
}

}  // namespace

PlistValue::~PlistValue() {
    if (!isContainer(*this)) return;
    std::vector<PlistValue> pending;
    takeNested(*this, pending);
    while (!pending.empty()) {
        PlistValue next = std::move(pending.back());
        pending.pop_back();
        takeNested(next, pending);  // `next` then goes without anything left below it
    }
}

const PlistValue* PlistValue::find(std::string_view key) const {
    const auto* dict = asDictionary();
    if (!dict) return nullptr;
    auto it = dict->find(key);
    return it == dict->end() ? nullptr : &it->second;
}

namespace {

bool representable(const PlistValue& value, int level) {
    switch (value.type()) {
        case PlistValue::Type::data:
        case PlistValue::Type::date:
            return false;
        case PlistValue::Type::real:
            return std::isfinite(*value.asReal());
        case PlistValue::Type::array:
            if (level > nesting::kMaxDepth) return true;  // toJSON refuses it
            for (const auto& v : *value.asArray())
                if (!representable(v, level + 1)) return false;
            return true;
        case PlistValue::Type::dictionary:
            if (level > nesting::kMaxDepth) return true;
            for (const auto& [k, v] : *value.asDictionary())
                if (!representable(v, level + 1)) return false;
            return true;
        default:
            return true;
    }
}

nlohmann::ordered_json toJSONAt(const PlistValue& value, int level) {
    switch (value.type()) {
        case PlistValue::Type::null: return nullptr;
        case PlistValue::Type::boolean: return *value.asBool();
        case PlistValue::Type::integer: return *value.asInteger();
        case PlistValue::Type::real:
            if (!std::isfinite(*value.asReal())) throw std::invalid_argument("a non-finite number has no JSON form");
            return *value.asReal();
        case PlistValue::Type::string: return *value.asString();
        case PlistValue::Type::data: throw std::invalid_argument("data has no JSON form");
        case PlistValue::Type::date: throw std::invalid_argument("a date has no JSON form");
        case PlistValue::Type::array: {
            nesting::check(level);
            auto out = nlohmann::ordered_json::array();
            for (const auto& v : *value.asArray()) out.push_back(toJSONAt(v, level + 1));
            return out;
        }
        case PlistValue::Type::dictionary: {
            nesting::check(level);
            auto out = nlohmann::ordered_json::object();
            for (const auto& [k, v] : *value.asDictionary()) out[k] = toJSONAt(v, level + 1);
            return out;
        }
    }
    return nullptr;
}

}  // namespace

bool PlistValue::isJSONRepresentable() const { return representable(*this, 1); }

bool PlistValue::isValidJSONObject() const { return type() == Type::dictionary && isJSONRepresentable(); }

nlohmann::ordered_json PlistValue::toJSON() const { return toJSONAt(*this, 1); }

std::string PlistValue::toJSONString() const { return toJSON().dump(); }

namespace {
template <class Json>
PlistValue fromAnyJSON(const Json& j, int level) {
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
            nesting::check(level);
            PlistArray out;
            out.reserve(j.size());
            for (const auto& e : j) out.push_back(fromAnyJSON(e, level + 1));
            return PlistValue(std::move(out));
        }
        case nlohmann::json::value_t::object: {
            nesting::check(level);
            PlistDictionary out;
            for (auto it = j.begin(); it != j.end(); ++it) out.emplace(it.key(), fromAnyJSON(it.value(), level + 1));
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

PlistValue PlistValue::fromJSON(const nlohmann::ordered_json& json) { return fromAnyJSON(json, 1); }
PlistValue PlistValue::fromJSON(const nlohmann::json& json) { return fromAnyJSON(json, 1); }

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
