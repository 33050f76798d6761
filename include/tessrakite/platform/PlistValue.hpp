#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>

namespace tessrakite {

using Data = std::vector<std::uint8_t>;

/// A point in time, seconds since 1970 (the platform's Date).
struct Date {
    double secondsSince1970 = 0;
    friend bool operator==(const Date&, const Date&) = default;
};

struct PlistNull {
    friend bool operator==(const PlistNull&, const PlistNull&) = default;
};

class PlistValue;
using PlistArray = std::vector<PlistValue>;
using PlistDictionary = std::map<std::string, PlistValue, std::less<>>;

/// A property-list value: the dynamic tree that user-info dictionaries, Info.plist
/// files and the shared store are made of.
class TESSRA_EXPORT PlistValue {
public:
    enum class Type { null, boolean, integer, real, string, data, date, array, dictionary };

    PlistValue() = default;
    PlistValue(std::nullptr_t) {}
    PlistValue(PlistNull) {}
    PlistValue(bool b) : value_(b) {}
    PlistValue(int v) : value_(std::int64_t{v}) {}
    PlistValue(long v) : value_(std::int64_t{v}) {}
    PlistValue(long long v) : value_(static_cast<std::int64_t>(v)) {}
    PlistValue(unsigned v) : value_(std::int64_t{v}) {}
    PlistValue(double d) : value_(d) {}
    PlistValue(const char* s) : value_(std::string(s)) {}
    PlistValue(std::string s) : value_(std::move(s)) {}
    PlistValue(std::string_view s) : value_(std::string(s)) {}
    PlistValue(Data d) : value_(std::move(d)) {}
    PlistValue(Date d) : value_(d) {}
    PlistValue(PlistArray a) : value_(std::move(a)) {}
    PlistValue(PlistDictionary d) : value_(std::move(d)) {}

    // The destructor takes a tree apart without recursion, so dropping a deeply nested
    // value (however it was built) cannot exhaust the stack.
    ~PlistValue();
    PlistValue(const PlistValue&) = default;
    PlistValue(PlistValue&&) = default;
    PlistValue& operator=(const PlistValue&) = default;
    PlistValue& operator=(PlistValue&&) = default;

    Type type() const { return static_cast<Type>(value_.index()); }
    bool isNull() const { return type() == Type::null; }

    // Typed views: nullptr when the value holds another type. No conversions, so an
    // integer is never read as a Bool and a Bool never as an integer.
    const bool* asBool() const { return std::get_if<bool>(&value_); }
    const std::int64_t* asInteger() const { return std::get_if<std::int64_t>(&value_); }
    const double* asReal() const { return std::get_if<double>(&value_); }
    const std::string* asString() const { return std::get_if<std::string>(&value_); }
    const Data* asData() const { return std::get_if<Data>(&value_); }
    const Date* asDate() const { return std::get_if<Date>(&value_); }
    const PlistArray* asArray() const { return std::get_if<PlistArray>(&value_); }
    const PlistDictionary* asDictionary() const { return std::get_if<PlistDictionary>(&value_); }
    PlistArray* asArray() { return std::get_if<PlistArray>(&value_); }
    PlistDictionary* asDictionary() { return std::get_if<PlistDictionary>(&value_); }

    /// Dictionary member lookup; nullptr when this is not a dictionary or has no such key.
    const PlistValue* find(std::string_view key) const;

    /// True for a dictionary whose tree holds only JSON-representable values: no data,
    /// no date, no NaN and no infinity anywhere.
    bool isValidJSONObject() const;
    /// True when this value and everything below it can be written as JSON. Only the
    /// first 256 levels are looked at: deeper trees are refused by toJSON anyway.
    bool isJSONRepresentable() const;

    /// JSON form; data, dates and containers nested deeper than 256 levels have none and
    /// raise std::invalid_argument.
    nlohmann::ordered_json toJSON() const;
    /// Serialised JSON bytes (compact); raises std::invalid_argument like toJSON.
    std::string toJSONString() const;
    /// From JSON: booleans, integers, doubles, strings, null, arrays and objects. Raises
    /// std::invalid_argument for containers nested deeper than 256 levels.
    static PlistValue fromJSON(const nlohmann::ordered_json& json);
    static PlistValue fromJSON(const nlohmann::json& json);

    /// A short name of the type, as tools print it ("bool", "int", "double", ...).
    static const char* typeName(Type type);

    friend bool operator==(const PlistValue& a, const PlistValue& b) { return a.value_ == b.value_; }

private:
    std::variant<PlistNull, bool, std::int64_t, double, std::string, Data, Date, PlistArray, PlistDictionary>
        value_;
};

}  // namespace tessrakite
