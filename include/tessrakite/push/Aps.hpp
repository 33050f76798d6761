#pragma once

#include <cstdint>
#include <optional>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>
#include <tessrakite/push/NotificationBody.hpp>

namespace tessrakite {

/// The platform's "aps" dictionary. Keys in coding order: "alert" (required),
/// "apns-priority", "mutable-content".
struct TESSRA_EXPORT Aps {
    NotificationBody notificationBody;
    std::optional<std::int64_t> apnsPriority;    // delivery priority as sent
    std::optional<std::int64_t> mutableContent;  // 1 when the service extension may modify the message

    friend bool operator==(const Aps&, const Aps&) = default;
};

TESSRA_EXPORT void to_json(nlohmann::ordered_json& json, const Aps& value);
/// Raises DecodingError for a missing or malformed "alert". "apns-priority" and
/// "mutable-content" are lenient: a value that is not an integer prints its decoding
/// error and leaves the field absent instead of failing the record.
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& json, Aps& value);

}  // namespace tessrakite
