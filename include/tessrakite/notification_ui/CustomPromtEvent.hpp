#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>

namespace tessrakite {

/// The payload of a prompt event: any JSON object decodes into it and its content is
/// dropped; the SDK only needs to know that the page sent one.
struct TESSRA_EXPORT DataClass {
    friend bool operator==(const DataClass&, const DataClass&) = default;
};

/// What the prompt page posts on "JSBridge": {"event": "pns.ok", "data": {...}}.
struct TESSRA_EXPORT CustomPromtEvent {
    std::optional<std::string> event;  // "event"
    std::optional<DataClass> data;     // "data"

    friend bool operator==(const CustomPromtEvent&, const CustomPromtEvent&) = default;

    /// Decodes the JSON text of a message; raises DecodingError when it is not JSON or not
    /// this record.
    static CustomPromtEvent decode(const std::string& text);
    /// `CustomPromtEvent(event: Optional("pns.no"), data: nil)`, as the console shows it.
    std::string description() const;
};

TESSRA_EXPORT void to_json(nlohmann::ordered_json& j, const DataClass& v);
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& j, DataClass& v);
TESSRA_EXPORT void to_json(nlohmann::ordered_json& j, const CustomPromtEvent& v);
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& j, CustomPromtEvent& v);

}  // namespace tessrakite
