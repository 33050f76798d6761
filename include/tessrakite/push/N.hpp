#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>
#include <tessrakite/push/Action.hpp>
#include <tessrakite/push/Conversion.hpp>

namespace tessrakite {

/// The SDK's message fields: "alert"."n" of a direct push, "p"[k]."o" of a campaign.
/// Every field is optional; the JSON key is the field name.
struct TESSRA_EXPORT N {
    std::optional<bool> renotify;                        // shown again later when true
    std::optional<std::int64_t> el;                      // layout kind; 3 is the compact view
    std::optional<std::string> ap;                       // carried as received
    std::optional<std::string> an;                       // carried as received
    std::optional<std::string> tc;                       // carried as received
    std::optional<std::string> dc;                       // carried as received
    std::optional<std::int64_t> cl;                      // carried as received
    std::optional<std::string> tag;                      // a newer message with this tag replaces older ones
    std::optional<std::string> sound;                    // sound name
    std::optional<std::vector<std::int64_t>> vibrate;    // vibration pattern, carried as received
    std::optional<std::string> badge;                    // badge instruction
    std::optional<std::string> image;                    // URL of an image to attach
    std::optional<std::string> body;                     // the message text
    std::optional<std::vector<Action>> actions;          // action buttons
    std::optional<Conversion> data;                      // what opening the message does
    std::optional<bool> silent;                          // no sound when true
    std::optional<std::string> tid;                      // the campaign task that sent it
    std::optional<bool> scl;                             // carried as received

    friend bool operator==(const N&, const N&) = default;
};

TESSRA_EXPORT void to_json(nlohmann::ordered_json& json, const N& value);
/// Raises DecodingError; one malformed action fails the whole record.
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& json, N& value);

}  // namespace tessrakite
