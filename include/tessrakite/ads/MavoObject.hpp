#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>

namespace tessrakite {

/// The creative's metadata. Every key is optional; "${l2}" in a tracker URL stands for `l2`.
/// Encoded in the feed's own key order: l2, img, cmpid, url, title, phone, downl, sprice,
/// displayurl, cpm_t, cpv_t, cpc_t, creid.
struct TESSRA_EXPORT Md {
    std::optional<std::string> phone;               // the advertiser's phone number
    std::optional<std::string> l2;                  // substituted for "${l2}" in tracker URLs
    std::optional<std::string> img;                 // URL of the creative image (also a GIF)
    std::optional<std::string> displayurl;          // URL text to display
    std::optional<std::string> sprice;              // price text
    std::optional<std::int64_t> cmpid;              // campaign identifier
    std::optional<std::string> downl;               // download text
    std::optional<std::string> url;                 // landing URL opened on a click
    std::optional<std::string> title;               // ad title
    std::optional<std::vector<std::string>> cpmT;   // "cpm_t": impression trackers; only the first is used
    std::optional<std::vector<std::string>> cpvT;   // "cpv_t": view trackers
    std::optional<std::vector<std::string>> cpcT;   // "cpc_t": click trackers
    std::optional<std::int64_t> creid;              // creative identifier

    friend bool operator==(const Md&, const Md&) = default;
};

/// One ad of the feed. Only `md` is used; the rest is carried.
struct TESSRA_EXPORT Item {
    std::optional<Md> md;
    std::optional<bool> s;
    std::optional<std::int64_t> w;
    std::optional<std::string> r;
    std::optional<std::int64_t> h;
    std::optional<std::string> l;
    std::optional<std::string> e;

    friend bool operator==(const Item&, const Item&) = default;
};

/// The ad feed's answer. Every key is optional (missing or null: absent); a key of the
/// wrong JSON type fails the whole record.
struct TESSRA_EXPORT MavoObject {
    std::optional<std::vector<Item>> items;  // the ads; only the first is ever used
    std::optional<std::string> sessionID;    // "session_id", carried
    std::optional<std::string> callback;     // carried
    std::optional<std::int64_t> elapsed;     // carried
    std::optional<std::string> ts;           // carried
    /// Not on the wire: a fresh upper-case UUID for every decoded record.
    std::string viewId;

    /// The first item's `md.img`; nothing when there are no items, no `md` or no `img`.
    /// Items present but empty is a fatal stop: the first element is read unconditionally.
    std::optional<std::string> getImageUrl() const;

    friend bool operator==(const MavoObject&, const MavoObject&) = default;
};

TESSRA_EXPORT void to_json(nlohmann::ordered_json& json, const Md& value);
/// Raises DecodingError.
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& json, Md& value);
TESSRA_EXPORT void to_json(nlohmann::ordered_json& json, const Item& value);
/// Raises DecodingError.
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& json, Item& value);
/// `viewId` is not encoded.
TESSRA_EXPORT void to_json(nlohmann::ordered_json& json, const MavoObject& value);
/// Raises DecodingError; gives the record a new `viewId`.
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& json, MavoObject& value);

}  // namespace tessrakite
