#include <tessrakite/core/Config.hpp>

#include "core/JSONCoding.hpp"

namespace tessrakite {

using nlohmann::ordered_json;
using coding::KeyedDecoder;
using coding::KeyedEncoder;

void to_json(ordered_json& j, const ConfigUrls& v) {
    KeyedEncoder e(j);
    e.encodeIfPresent("activity", v.activity);
    e.encodeIfPresent("crash", v.crash);
    e.encodeIfPresent("user", v.user);
}
void from_json(const ordered_json& j, ConfigUrls& v) {
    KeyedDecoder d(j);
    v.activity = d.decodeIfPresent<std::string>("activity");
    v.crash = d.decodeIfPresent<std::string>("crash");
    v.user = d.decodeIfPresent<std::string>("user");
}

void to_json(ordered_json& j, const PushConfig& v) {
    KeyedEncoder e(j);
    e.encodeIfPresent("enabled", v.enabled);
    e.encodeIfPresent("override", v.override);
    e.encodeIfPresent("prompts", v.prompts);
}
void from_json(const ordered_json& j, PushConfig& v) {
    KeyedDecoder d(j);
    v.enabled = d.decodeIfPresent<bool>("enabled");
    v.override = d.decodeIfPresent<bool>("override");
    // Carried as received for the prompt page; any JSON shape is accepted.
    if (auto it = j.find("prompts"); it != j.end() && !it->is_null()) v.prompts = *it;
}

void to_json(ordered_json& j, const Config& v) {
    KeyedEncoder e(j);
    e.encodeIfPresent("consent", v.consent);
    e.encodeIfPresent("analytics", v.analytics);
    e.encodeIfPresent("push_config", v.pushConfig);
    e.encodeIfPresent("url", v.url);
}
void from_json(const ordered_json& j, Config& v) {
    KeyedDecoder d(j);
    v.consent = d.decodeIfPresent<bool>("consent");
    v.analytics = d.decodeIfPresent<bool>("analytics");
    v.pushConfig = d.decodeIfPresent<PushConfig>("push_config");
    v.url = d.decodeIfPresent<ConfigUrls>("url");
}

}  // namespace tessrakite
