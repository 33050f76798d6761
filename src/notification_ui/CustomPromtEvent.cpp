#include <tessrakite/notification_ui/CustomPromtEvent.hpp>

#include <exception>
#include <tuple>

#include "core/RecordFields.hpp"
#include "platform/Nesting.hpp"

namespace tessrakite {

using nlohmann::ordered_json;

namespace {
constexpr auto kCustomPromtEventFields = std::tuple{coding::optionalField("event", &CustomPromtEvent::event),
                                                    coding::optionalField("data", &CustomPromtEvent::data)};
}  // namespace

void to_json(ordered_json& j, const DataClass&) { j = ordered_json::object(); }
void from_json(const ordered_json& j, DataClass&) {
    // Any object will do; what is inside is not the SDK's business.
    if (!j.is_object()) coding::throwTypeMismatch("Dictionary", j);
}

void to_json(ordered_json& j, const CustomPromtEvent& v) { coding::encodeFields(j, v, kCustomPromtEventFields); }
void from_json(const ordered_json& j, CustomPromtEvent& v) { coding::decodeFields(j, v, kCustomPromtEventFields); }

CustomPromtEvent CustomPromtEvent::decode(const std::string& text) {
    ordered_json json;
    try {
        json = nesting::parseJSON<ordered_json>(text);
    } catch (const std::exception& e) {
        throw DecodingError(DecodingError::Kind::dataCorrupted,
                            std::string("The given data was not valid JSON. ") + e.what());
    }
    return json.get<CustomPromtEvent>();
}

std::string CustomPromtEvent::description() const {
    const std::string eventText =
        event ? "Optional(" + ordered_json(*event).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + ")"
              : "nil";
    return "CustomPromtEvent(event: " + eventText + ", data: " + (data ? "Optional(DataClass())" : "nil") + ")";
}

}  // namespace tessrakite
