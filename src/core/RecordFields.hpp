#pragma once

// A record's JSON coding written once, as a table of (key, member) entries in coding
// order, from which both directions are derived: the two cannot drift apart, and a new
// record is its table and two one-line functions.
//
//   constexpr auto kItemFields = std::tuple{coding::optionalField("md", &Item::md), ...};
//   void to_json(Json& json, const Item& v) { coding::encodeFields(json, v, kItemFields); }
//   void from_json(const Json& json, Item& v) { coding::decodeFields(json, v, kItemFields); }

#include <optional>
#include <tuple>

#include "core/JSONCoding.hpp"

namespace tessrakite::coding {

/// A member that may be missing: missing or null decodes to nothing, nothing is not encoded.
template <class Record, class T>
struct OptionalField {
    const char* key;
    std::optional<T> Record::*member;

    void encode(KeyedEncoder& out, const Record& record) const { out.encodeIfPresent(key, record.*member); }
    void decode(const KeyedDecoder& in, Record& record) const { record.*member = in.decodeIfPresent<T>(key); }
};

/// A member that must be there: missing or null is a decoding error.
template <class Record, class T>
struct RequiredField {
    const char* key;
    T Record::*member;

    void encode(KeyedEncoder& out, const Record& record) const { out.encode(key, record.*member); }
    void decode(const KeyedDecoder& in, Record& record) const { record.*member = in.decode<T>(key); }
};

template <class Record, class T>
constexpr OptionalField<Record, T> optionalField(const char* key, std::optional<T> Record::*member) {
    return {key, member};
}

template <class Record, class T>
constexpr RequiredField<Record, T> requiredField(const char* key, T Record::*member) {
    return {key, member};
}

/// Writes the fields in the table's order.
template <class Record, class... Fields>
void encodeFields(Json& json, const Record& record, const std::tuple<Fields...>& table) {
    KeyedEncoder out(json);
    std::apply([&](const auto&... field) { (field.encode(out, record), ...); }, table);
}

/// Reads every field of the table; the first failing one raises DecodingError.
template <class Record, class... Fields>
void decodeFields(const Json& json, Record& record, const std::tuple<Fields...>& table) {
    KeyedDecoder in(json);
    std::apply([&](const auto&... field) { (field.decode(in, record), ...); }, table);
}

}  // namespace tessrakite::coding
