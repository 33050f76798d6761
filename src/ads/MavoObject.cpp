#include <tessrakite/ads/MavoObject.hpp>

#include <tuple>

#include <tessrakite/platform/Console.hpp>

#include "core/RecordFields.hpp"
#include "core/Text.hpp"

namespace tessrakite {

namespace {

using coding::optionalField;

// In the feed's coding order, which is not the declaration order.
const auto kMdFields = std::tuple{
    optionalField("l2", &Md::l2),         optionalField("img", &Md::img),     optionalField("cmpid", &Md::cmpid),
    optionalField("url", &Md::url),       optionalField("title", &Md::title), optionalField("phone", &Md::phone),
    optionalField("downl", &Md::downl),   optionalField("sprice", &Md::sprice),
    optionalField("displayurl", &Md::displayurl),
    optionalField("cpm_t", &Md::cpmT),    optionalField("cpv_t", &Md::cpvT),  optionalField("cpc_t", &Md::cpcT),
    optionalField("creid", &Md::creid)};

const auto kItemFields = std::tuple{optionalField("md", &Item::md), optionalField("s", &Item::s),
                                    optionalField("w", &Item::w),   optionalField("r", &Item::r),
                                    optionalField("h", &Item::h),   optionalField("l", &Item::l),
                                    optionalField("e", &Item::e)};

const auto kMavoObjectFields = std::tuple{
    optionalField("items", &MavoObject::items), optionalField("session_id", &MavoObject::sessionID),
    optionalField("callback", &MavoObject::callback), optionalField("elapsed", &MavoObject::elapsed),
    optionalField("ts", &MavoObject::ts)};

}  // namespace

void to_json(nlohmann::ordered_json& json, const Md& value) { coding::encodeFields(json, value, kMdFields); }
void from_json(const nlohmann::ordered_json& json, Md& value) { coding::decodeFields(json, value, kMdFields); }
void to_json(nlohmann::ordered_json& json, const Item& value) { coding::encodeFields(json, value, kItemFields); }
void from_json(const nlohmann::ordered_json& json, Item& value) { coding::decodeFields(json, value, kItemFields); }

void to_json(nlohmann::ordered_json& json, const MavoObject& value) {
    coding::encodeFields(json, value, kMavoObjectFields);
}

void from_json(const nlohmann::ordered_json& json, MavoObject& value) {
    coding::decodeFields(json, value, kMavoObjectFields);
    value.viewId = detail::uuidString();
}

std::optional<std::string> MavoObject::getImageUrl() const {
    if (!items) return std::nullopt;
    if (items->empty()) fatalError("Index out of range: getImageUrl() on an ad feed answer with no items");
    const auto& md = items->front().md;
    return md ? md->img : std::nullopt;
}

}  // namespace tessrakite
