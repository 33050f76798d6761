#include <tessrakite/core/Config.hpp>

namespace tessrakite {

using nlohmann::ordered_json;

namespace {
// Optional members: absent and null both read as absent; a wrong type is an error.
template <class T>
void readOptional(const ordered_json& j, const char* key, std::optional<T>& out) {
    auto it = j.find(key);
    if (it == j.end() || it->is_null()) return;
    out = it->template get<T>();
}
template <class T>
void writeOptional(ordered_json& j, const char* key, const std::optional<T>& value) {
    if (value) j[key] = *value;
}
}  // namespace

void to_json(ordered_json& j, const ConfigUrls& v) {
    j = ordered_json::object();
    writeOptional(j, "activity", v.activity);
    writeOptional(j, "crash", v.crash);
    writeOptional(j, "user", v.user);
}
void from_json(const ordered_json& j, ConfigUrls& v) {
    if (!j.is_object()) throw ordered_json::type_error::create(302, "\"url\" must be an object", &j);
    readOptional(j, "activity", v.activity);
    readOptional(j, "crash", v.crash);
    readOptional(j, "user", v.user);
}

void to_json(ordered_json& j, const PushConfig& v) {
    j = ordered_json::object();
    writeOptional(j, "enabled", v.enabled);
    writeOptional(j, "override", v.override);
    if (v.prompts) j["prompts"] = *v.prompts;
}
void from_json(const ordered_json& j, PushConfig& v) {
    if (!j.is_object()) throw ordered_json::type_error::create(302, "\"push_config\" must be an object", &j);
    readOptional(j, "enabled", v.enabled);
    readOptional(j, "override", v.override);
    if (auto it = j.find("prompts"); it != j.end() && !it->is_null()) v.prompts = *it;
}

void to_json(ordered_json& j, const Config& v) {
    j = ordered_json::object();
    writeOptional(j, "consent", v.consent);
    writeOptional(j, "analytics", v.analytics);
    writeOptional(j, "push_config", v.pushConfig);
    writeOptional(j, "url", v.url);
}
void from_json(const ordered_json& j, Config& v) {
    if (!j.is_object()) throw ordered_json::type_error::create(302, "the configuration must be an object", &j);
    readOptional(j, "consent", v.consent);
    readOptional(j, "analytics", v.analytics);
    readOptional(j, "push_config", v.pushConfig);
    readOptional(j, "url", v.url);
}

}  // namespace tessrakite
