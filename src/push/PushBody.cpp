#include <tessrakite/push/PushBody.hpp>

#include <tessrakite/core/ActivityBody.hpp>
#include <tessrakite/core/StorageManager.hpp>
#include <tessrakite/platform/Platform.hpp>

namespace tessrakite {

using nlohmann::ordered_json;

PushBody PushBody::forToken(const std::string& token, CS sessionInfo, std::string installationId) {
    const auto context = AppContext::current();
    StorageManager storage;
    PushBody body;
    std::map<std::string, std::string> user;
    if (auto id = storage.getStringFromStorage(StorageKey::userId)) user["user_id"] = *id;
    if (auto id = storage.getStringFromStorage(StorageKey::partnerId)) user["partner_id"] = *id;
    body.u = std::move(user);
    body.appVersion = context.appVersion;
    body.sdkVersion = context.sdkVersion;
    body.os = context.osName;
    body.version = context.osVersion;
    body.mfg = context.vendor;
    body.model = context.model;
    body.sdk = "Tessra push sdk";
    body.lang = context.lang;
    body.rid = std::move(installationId);
    body.token = token;
    body.timestamp = static_cast<std::int64_t>(platform::currentPlatform()->clock->now());
    body.code = 200;
    body.app = context.bundleIdentifier;
    body.status = true;
    body.bundle = context.bundleIdentifier;
    body.cs = std::move(sessionInfo);
    return body;
}

namespace {
template <class T>
void put(ordered_json& j, const char* key, const std::optional<T>& value) {
    if (value) j[key] = *value;
}
template <class T>
void take(const ordered_json& j, const char* key, std::optional<T>& value) {
    if (auto it = j.find(key); it != j.end() && !it->is_null()) value = it->template get<T>();
}
}  // namespace

void to_json(ordered_json& j, const PushBody& b) {
    j = ordered_json::object();
    j["ts_current"] = b.timestamp;
    j["app"] = b.app;
    put(j, "app_version", b.appVersion);
    put(j, "sdk_version", b.sdkVersion);
    put(j, "os", b.os);
    put(j, "version", b.version);
    put(j, "mfg", b.mfg);
    put(j, "model", b.model);
    put(j, "sdk", b.sdk);
    put(j, "lang", b.lang);
    put(j, "u", b.u);
    put(j, "token", b.token);
    put(j, "status", b.status);
    j["cs"] = b.cs;
    put(j, "rid", b.rid);
    j["code"] = b.code;
}

void from_json(const ordered_json& j, PushBody& b) {
    j.at("ts_current").get_to(b.timestamp);
    j.at("app").get_to(b.app);
    take(j, "app_version", b.appVersion);
    take(j, "sdk_version", b.sdkVersion);
    take(j, "os", b.os);
    take(j, "version", b.version);
    take(j, "mfg", b.mfg);
    take(j, "model", b.model);
    take(j, "sdk", b.sdk);
    take(j, "lang", b.lang);
    take(j, "u", b.u);
    take(j, "token", b.token);
    take(j, "status", b.status);
    j.at("cs").get_to(b.cs);
    take(j, "rid", b.rid);
    j.at("code").get_to(b.code);
}

}  // namespace tessrakite
