#include <tessrakite/core/ActivityBody.hpp>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <mutex>

#include <tessrakite/BuildConfig.hpp>
#include <tessrakite/core/Device.hpp>
#include <tessrakite/core/StorageManager.hpp>
#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/Platform.hpp>

#include "core/JSONCoding.hpp"

namespace tessrakite {

using nlohmann::ordered_json;

namespace {

std::string languageCode() {
    for (const char* var : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(var);
        if (!value || !*value) continue;
        std::string text(value);
        auto end = text.find_first_of("_.@-");
        std::string lang = text.substr(0, end);
        if (lang == "C" || lang == "POSIX" || lang.empty()) return "en";
        return lang;
    }
    return "en";
}

std::int64_t utcOffsetMinutes(double now) {
    auto t = static_cast<std::time_t>(now);
    std::tm local{};
    ::localtime_r(&t, &local);
    return static_cast<std::int64_t>(local.tm_gmtoff / 60);
}

std::string sizeText(const platform::Rect& r) {
    return std::to_string(std::llround(r.width)) + "x" + std::to_string(std::llround(r.height));
}

}  // namespace

// ---- CS ----

CS CS::fromStorage(const StorageManager& storage) {
    CS cs;
    cs.ns = storage.getIntFromStorage(StorageKey::sessionNum).value_or(0);
    cs.sid = storage.getStringFromStorage(StorageKey::sessionId).value_or("");
    cs.scn = storage.getIntFromStorage(StorageKey::visitedPCount).value_or(0);
    cs.cid = storage.getStringFromStorage(StorageKey::uniqSessionId).value_or("");
    return cs;
}

void to_json(ordered_json& j, const CS& cs) {
    coding::KeyedEncoder e(j);
    e.encode("ns", cs.ns);
    e.encode("sid", cs.sid);
    e.encode("scn", cs.scn);
    e.encode("cid", cs.cid);
}

void from_json(const ordered_json& j, CS& cs) {
    coding::KeyedDecoder d(j);
    cs.ns = d.decode<std::int64_t>("ns");
    cs.sid = d.decode<std::string>("sid");
    cs.scn = d.decode<std::int64_t>("scn");
    cs.cid = d.decode<std::string>("cid");
}

// ---- UserAgent ----

UserAgent UserAgent::current() {
    auto platform = platform::currentPlatform();
    auto bundle = platform::Bundle::main();
    UserAgent ua;
    ua.z = platform->device->systemName();
    ua.t = platform->device->kind();
    ua.de = modelName();
    ua.dt = Device().getDeviceModel();
    ua.sr = sizeText(platform->screen->bounds());
    ua.vp = ua.sr;
    ua.n = bundle->displayName().value_or("");
    ua.v = bundle->string("CFBundleShortVersionString").value_or("");
    return ua;
}

namespace {
// The user agent's members, each encoded under its own name, in this order.
constexpr std::pair<const char*, std::string UserAgent::*> kUserAgentFields[] = {
    {"z", &UserAgent::z}, {"t", &UserAgent::t},   {"de", &UserAgent::de}, {"dt", &UserAgent::dt},
    {"sr", &UserAgent::sr}, {"vp", &UserAgent::vp}, {"n", &UserAgent::n}, {"v", &UserAgent::v},
};
}  // namespace

void to_json(ordered_json& j, const UserAgent& ua) {
    coding::KeyedEncoder e(j);
    for (const auto& [key, field] : kUserAgentFields) e.encode(key, ua.*field);
}

void from_json(const ordered_json& j, UserAgent& ua) {
    coding::KeyedDecoder d(j);
    for (const auto& [key, field] : kUserAgentFields) ua.*field = d.decode<std::string>(key);
}

// ---- AppContext ----

AppContext AppContext::current() {
    // Everything but the clock-dependent and screen-dependent values is fixed for a given
    // app bundle and platform, so it is worked out once, not for every report.
    struct Cached {
        std::mutex mutex;
        std::weak_ptr<platform::Bundle> bundle;
        std::weak_ptr<platform::Platform> platform;
        std::optional<AppContext> context;
    };
    static Cached& cache = *new Cached;  // never destroyed: reports may be built while the process exits
    auto bundle = platform::Bundle::main();
    auto platform = platform::currentPlatform();
    AppContext c;
    {
        std::lock_guard lock(cache.mutex);
        if (!cache.context || cache.bundle.lock() != bundle || cache.platform.lock() != platform) {
            AppContext fresh;
            fresh.bundleIdentifier = StorageManager::bundleId();
            fresh.appVersion = bundle->string("CFBundleShortVersionString").value_or("");
            fresh.sdkVersion = TESSRA_SDK_VERSION_STRING;
            fresh.model = Device().getDeviceModel();
            fresh.osName = platform->device->systemName();
            fresh.osVersion = platform->device->systemVersion();
            fresh.vendor = platform->device->vendor();
            fresh.lang = languageCode();
            fresh.ua = UserAgent::current();
            cache.context = std::move(fresh);
            cache.bundle = bundle;
            cache.platform = platform;
        }
        c = *cache.context;
    }
    c.tmz = utcOffsetMinutes(platform->clock->now());
    c.ua.sr = sizeText(platform->screen->bounds());
    c.ua.vp = c.ua.sr;
    return c;
}

// ---- ActivityBody ----

ActivityBody::ActivityBody(std::int64_t code_, std::string u_, CS sessionInfo)
    : u(std::move(u_)), code(code_), cs(std::move(sessionInfo)) {
    auto context = AppContext::current();
    sdkVersion = context.sdkVersion;
    version = context.appVersion;
    model = context.model;
    lang = context.lang;
    rid = cs.cid;
    timestamp = static_cast<std::int64_t>(platform::currentPlatform()->clock->now());
    app = context.bundleIdentifier;
    dl = "app://" + app + "/" + u;
    tmz = context.tmz;
    ua = context.ua;
}

void to_json(ordered_json& j, const ActivityBody& b) {
    j = ordered_json::object();
    j["ts_current"] = b.timestamp;
    j["app"] = b.app;
    j["e"] = b.e;
    j["ver"] = b.sdkVersion;
    j["version"] = b.version;
    j["model"] = b.model;
    j["lang"] = b.lang;
    j["u"] = b.u;
    j["code"] = b.code;
    j["cs"] = b.cs;
    j["dl"] = b.dl;
    j["vt"] = b.vt;
    j["tmz"] = b.tmz;
    j["msg"] = b.msg;
    j["ua"] = b.ua;
}

void from_json(const ordered_json& j, ActivityBody& b) {
    coding::KeyedDecoder d(j);
    b.timestamp = d.decode<std::int64_t>("ts_current");
    b.app = d.decode<std::string>("app");
    b.e = j.at("e");
    b.sdkVersion = d.decode<std::string>("ver");
    b.version = d.decode<std::string>("version");
    b.model = d.decode<std::string>("model");
    b.lang = d.decode<std::string>("lang");
    b.u = d.decode<std::string>("u");
    b.code = d.decode<std::int64_t>("code");
    b.cs = d.decode<CS>("cs");
    b.dl = d.decode<std::string>("dl");
    b.vt = d.decode<std::string>("vt");
    b.tmz = d.decode<std::int64_t>("tmz");
    b.msg = d.decode<std::string>("msg");
    b.ua = d.decode<UserAgent>("ua");
}

}  // namespace tessrakite
