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
    j = ordered_json::object();
    j["ns"] = cs.ns;
    j["sid"] = cs.sid;
    j["scn"] = cs.scn;
    j["cid"] = cs.cid;
}

void from_json(const ordered_json& j, CS& cs) {
    j.at("ns").get_to(cs.ns);
    j.at("sid").get_to(cs.sid);
    j.at("scn").get_to(cs.scn);
    j.at("cid").get_to(cs.cid);
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

void to_json(ordered_json& j, const UserAgent& ua) {
    j = ordered_json::object();
    j["z"] = ua.z;
    j["t"] = ua.t;
    j["de"] = ua.de;
    j["dt"] = ua.dt;
    j["sr"] = ua.sr;
    j["vp"] = ua.vp;
    j["n"] = ua.n;
    j["v"] = ua.v;
}

void from_json(const ordered_json& j, UserAgent& ua) {
    j.at("z").get_to(ua.z);
    j.at("t").get_to(ua.t);
    j.at("de").get_to(ua.de);
    j.at("dt").get_to(ua.dt);
    j.at("sr").get_to(ua.sr);
    j.at("vp").get_to(ua.vp);
    j.at("n").get_to(ua.n);
    j.at("v").get_to(ua.v);
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
    static Cached cache;
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
    j.at("ts_current").get_to(b.timestamp);
    j.at("app").get_to(b.app);
    b.e = j.at("e");
    j.at("ver").get_to(b.sdkVersion);
    j.at("version").get_to(b.version);
    j.at("model").get_to(b.model);
    j.at("lang").get_to(b.lang);
    j.at("u").get_to(b.u);
    j.at("code").get_to(b.code);
    j.at("cs").get_to(b.cs);
    j.at("dl").get_to(b.dl);
    j.at("vt").get_to(b.vt);
    j.at("tmz").get_to(b.tmz);
    j.at("msg").get_to(b.msg);
    j.at("ua").get_to(b.ua);
}

}  // namespace tessrakite
