#include <tessrakite/push/PushBody.hpp>

#include <tessrakite/core/ActivityBody.hpp>
#include <tessrakite/core/StorageManager.hpp>
#include <tessrakite/platform/Platform.hpp>

#include "core/JSONCoding.hpp"

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

void to_json(ordered_json& j, const PushBody& b) {
    coding::KeyedEncoder e(j);
    e.encode("ts_current", b.timestamp);
    e.encode("app", b.app);
    e.encodeIfPresent("app_version", b.appVersion);
    e.encodeIfPresent("sdk_version", b.sdkVersion);
    e.encodeIfPresent("os", b.os);
    e.encodeIfPresent("version", b.version);
    e.encodeIfPresent("mfg", b.mfg);
    e.encodeIfPresent("model", b.model);
    e.encodeIfPresent("sdk", b.sdk);
    e.encodeIfPresent("lang", b.lang);
    e.encodeIfPresent("u", b.u);
    e.encodeIfPresent("token", b.token);
    e.encodeIfPresent("status", b.status);
    e.encode("cs", b.cs);
    e.encodeIfPresent("rid", b.rid);
    e.encode("code", b.code);
}

void from_json(const ordered_json& j, PushBody& b) {
    coding::KeyedDecoder d(j);
    b.timestamp = d.decode<std::int64_t>("ts_current");
    b.app = d.decode<std::string>("app");
    b.appVersion = d.decodeIfPresent<std::string>("app_version");
    b.sdkVersion = d.decodeIfPresent<std::string>("sdk_version");
    b.os = d.decodeIfPresent<std::string>("os");
    b.version = d.decodeIfPresent<std::string>("version");
    b.mfg = d.decodeIfPresent<std::string>("mfg");
    b.model = d.decodeIfPresent<std::string>("model");
    b.sdk = d.decodeIfPresent<std::string>("sdk");
    b.lang = d.decodeIfPresent<std::string>("lang");
    b.u = d.decodeIfPresent<std::map<std::string, std::string>>("u");
    b.token = d.decodeIfPresent<std::string>("token");
    b.status = d.decodeIfPresent<bool>("status");
    b.cs = d.decode<CS>("cs");
    b.rid = d.decodeIfPresent<std::string>("rid");
    b.code = d.decode<std::int64_t>("code");
}

}  // namespace tessrakite
