#include <tessrakite/push/Aps.hpp>

#include <tessrakite/platform/Console.hpp>

#include "core/JSONCoding.hpp"

namespace tessrakite {
namespace {

// Senders copy these two from the delivery headers, where they are text ("10"), so a
// value that is not an integer is printed and dropped rather than failing the message.
std::optional<std::int64_t> decodeLenientInteger(const coding::KeyedDecoder& in, const char* key) {
    try {
        return in.decodeIfPresent<std::int64_t>(key);
    } catch (const DecodingError& error) {
        Console::print(error.description());
        return std::nullopt;
    }
}

}  // namespace

void to_json(nlohmann::ordered_json& json, const Aps& value) {
    coding::KeyedEncoder out(json);
    out.encode("alert", value.notificationBody);
    out.encodeIfPresent("apns-priority", value.apnsPriority);
    out.encodeIfPresent("mutable-content", value.mutableContent);
}

void from_json(const nlohmann::ordered_json& json, Aps& value) {
    coding::KeyedDecoder in(json);
    value.notificationBody = in.decode<NotificationBody>("alert");
    value.apnsPriority = decodeLenientInteger(in, "apns-priority");
    value.mutableContent = decodeLenientInteger(in, "mutable-content");
}

}  // namespace tessrakite
