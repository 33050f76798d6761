#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/PlistValue.hpp>
#include <tessrakite/push/P.hpp>

namespace tessrakite {

/// The campaign shape: a "p" list (required) of entries, one message each, and
/// campaign-level trackers "t". Also what a campaign endpoint answers.
struct TESSRA_EXPORT PCampaignObject {
    std::vector<P> p;
    std::optional<std::vector<std::string>> t;  // campaign-level tracker URLs

    /// The campaign as a user-info dictionary: its JSON form read back as a dictionary,
    /// so that it decodes to this campaign again.
    PlistDictionary dictionary() const;

    friend bool operator==(const PCampaignObject&, const PCampaignObject&) = default;
};

TESSRA_EXPORT void to_json(nlohmann::ordered_json& json, const PCampaignObject& value);
/// Raises DecodingError; one malformed entry fails the whole campaign.
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& json, PCampaignObject& value);

}  // namespace tessrakite
