#include "Host.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <variant>

#include <tessrakite/ads/AppOpenAd.hpp>
#include <tessrakite/ads/BannerView.hpp>
#include <tessrakite/ads/InterstitialAD.hpp>
#include <tessrakite/core/StorageManager.hpp>
#include <tessrakite/core/TessraBuilder.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/FileRoots.hpp>
#include <tessrakite/crash/JtCrashLogFile.hpp>
#include <tessrakite/crash/JtCrashLogger.hpp>
#include <tessrakite/crash/JtCrashReporter.hpp>
#include <tessrakite/crash/OperationQueue.hpp>
#include <tessrakite/location/Beacons.hpp>
#include <tessrakite/location/Geofences.hpp>
#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/ViewSnapshot.hpp>
#include <tessrakite/push/NotificationObject.hpp>
#include <tessrakite/push/PCampaignObject.hpp>
#include <tessrakite/push/PushObj.hpp>
#include <tessrakite/platform/WebView.hpp>
#include <tessrakite/BuildConfig.hpp>
#if TESSRA_DESKTOP_PLATFORM
#include <tessrakite/platform/desktop/DesktopPlatform.hpp>
#endif

#include "notification_ui/CustomPromt.hpp"
#include "platform/Nesting.hpp"

namespace tessra_host {

using namespace tessrakite;
namespace hl = tessrakite::platform::headless;

// ---- A clock that scripts can stop: real time until {"op":"clock"}, then manual. ----
class SwitchableClock final : public platform::Clock {
public:
    double now() const override { return manual_ ? manualNow_.load() : system_.now(); }
    bool isManual() const override { return manual_; }
    void advanceTo(double seconds) override {
        if (manual_ && seconds > manualNow_.load()) manualNow_.store(seconds);
    }
    void setManual(double seconds) {
        manualNow_.store(seconds);
        manual_ = true;
    }

private:
    platform::SystemClock system_;
    std::atomic<bool> manual_{false};
    std::atomic<double> manualNow_{0};
};

// ---- The host's delegate: every call becomes a line. ----
class HostDelegate final : public TessraQuillDelegate {
public:
    explicit HostDelegate(Output& out) : out_(out) {}
    void notificationTokenChanged(const std::string& token) override {
        emit("notificationTokenChanged", {{"token", token}});
    }
    void enteredGeofenceRegionWith(const std::string& id) override { emit("enteredGeofenceRegionWith", {{"id", id}}); }
    void enteredBeaconRegionWith(const std::string& id) override { emit("enteredBeaconRegionWith", {{"id", id}}); }
    void tessraInited(bool inited) override { emit("tessraInited", {{"inited", inited}}); }
    void handleURL(const Url& url) override { emit("handleURL", {{"url", url.absoluteString()}}); }
    void locationChanged(double lat, double lng) override { emit("locationChanged", {{"lat", lat}, {"lng", lng}}); }
    void passLocation(const std::any& location) override {
        emit("passLocation", {{"hasValue", location.has_value()}});
    }

private:
    void emit(const char* name, Json args) { out_.write({{"delegate", name}, {"args", std::move(args)}}); }
    Output& out_;
};

// ---- The host's ad loader delegate: every call becomes a line. ----
class HostAdDelegate final : public TessraAdLoaderDelegate {
public:
    explicit HostAdDelegate(Output& out) : out_(out) {}
    void adLoader(TessraAdLoader&, const std::string& error) override {
        out_.write({{"delegate", "adLoaderDidFailToReceiveAd"}, {"args", {{"error", error}}}});
    }
    void adLoaderDidFinishLoading(TessraAdLoader&, const MavoObject& ad) override {
        out_.write({{"delegate", "adLoaderDidFinishLoading"},
                    {"args", {{"viewId", ad.viewId}, {"ad", ad}}}});
    }

private:
    Output& out_;
};

// ---- The host's banner delegate: every call becomes a line. ----
class HostBannerDelegate final : public AdBannerDelegate {
public:
    explicit HostBannerDelegate(Output& out) : out_(out) {}
    void adBannerDidReceiveAd(BannerView& banner) override {
        emit("adBannerDidReceiveAd", {{"bannerID", banner.bannerID}});
    }
    void bannerView(BannerView&, const TessraRequest::AdError& error) override {
        const auto* url = std::get_if<platform::UrlError>(&error);
        emit("bannerViewDidFailToReceiveAd",
             {{"error", url ? url->localizedDescription() : std::get<DecodingError>(error).description()}});
    }
    void adBannerWillPresentScreen(BannerView&) override { emit("adBannerWillPresentScreen", Json::object()); }
    void adBannerWillDismissScreen(BannerView&) override { emit("adBannerWillDismissScreen", Json::object()); }
    void adBannerWillLeaveApplication(BannerView&) override { emit("adBannerWillLeaveApplication", Json::object()); }
    void adBannerClosed(BannerView&) override { emit("adBannerClosed", Json::object()); }

private:
    void emit(const char* name, Json args) { out_.write({{"delegate", name}, {"args", std::move(args)}}); }
    Output& out_;
};

namespace {

// A screen whose type name is whatever the script says.
class ScriptedScreen final : public platform::ViewController {
public:
    explicit ScriptedScreen(std::string name) : name_(std::move(name)) {}
    std::string typeName() const override { return name_; }

private:
    std::string name_;
};

const Json& member(const Json& args, const char* key) {
    auto it = args.find(key);
    if (it == args.end()) throw BadArguments(std::string("missing \"") + key + "\"");
    return *it;
}
std::string stringArg(const Json& args, const char* key) {
    const auto& v = member(args, key);
    if (!v.is_string()) throw BadArguments(std::string("\"") + key + "\" must be a string");
    return v.get<std::string>();
}
double numberArg(const Json& args, const char* key) {
    const auto& v = member(args, key);
    if (!v.is_number()) throw BadArguments(std::string("\"") + key + "\" must be a number");
    return v.get<double>();
}
std::int64_t integerArg(const Json& args, const char* key) {
    const auto& v = member(args, key);
    if (!v.is_number_integer()) throw BadArguments(std::string("\"") + key + "\" must be an integer");
    return v.get<std::int64_t>();
}
std::optional<bool> optionalBool(const Json& args, const char* key) {
    auto it = args.find(key);
    if (it == args.end() || it->is_null()) return std::nullopt;
    if (!it->is_boolean()) throw BadArguments(std::string("\"") + key + "\" must be a boolean");
    return it->get<bool>();
}
PlistDictionary dictionaryArg(const Json& args, const char* key) {
    const auto& v = member(args, key);
    if (!v.is_object()) throw BadArguments(std::string("\"") + key + "\" must be an object");
    return *PlistValue::fromJSON(v).asDictionary();
}

// `level`: the nesting level `value` has if it is a container, the outermost being 1.
Json valueToJson(const PlistValue& value, int level = 1) {
    switch (value.type()) {
        case PlistValue::Type::data: {
            std::string hex;
            char buffer[3];
            for (auto byte : *value.asData()) {
                std::snprintf(buffer, sizeof buffer, "%02x", byte);
                hex += buffer;
            }
            return hex;
        }
        case PlistValue::Type::date: return value.asDate()->secondsSince1970;
        case PlistValue::Type::array: {
            nesting::check(level);
            Json out = Json::array();
            for (const auto& v : *value.asArray()) out.push_back(valueToJson(v, level + 1));
            return out;
        }
        case PlistValue::Type::dictionary: {
            nesting::check(level);
            Json out = Json::object();
            for (const auto& [k, v] : *value.asDictionary()) out[k] = valueToJson(v, level + 1);
            return out;
        }
        default: return value.toJSON();
    }
}

Json typedValue(const PlistValue& value) {
    return {{"type", PlistValue::typeName(value.type())}, {"value", valueToJson(value)}};
}

PlistValue storeValue(const std::string& type, const Json& v) {
    auto bad = [&] { return BadArguments("\"value\" does not fit type \"" + type + "\""); };
    if (type == "bool") {
        if (!v.is_boolean()) throw bad();
        return PlistValue(v.get<bool>());
    }
    if (type == "int") {
        if (!v.is_number_integer()) throw bad();
        return PlistValue(v.get<std::int64_t>());
    }
    if (type == "double") {
        if (!v.is_number()) throw bad();
        return PlistValue(v.get<double>());
    }
    if (type == "string") {
        if (!v.is_string()) throw bad();
        return PlistValue(v.get<std::string>());
    }
    if (type == "array") {
        if (!v.is_array()) throw bad();
        return PlistValue::fromJSON(v);
    }
    if (type == "dict") {
        if (!v.is_object()) throw bad();
        return PlistValue::fromJSON(v);
    }
    throw BadArguments("unknown type \"" + type + "\"");
}

Json configJson(const TessraConfig& c) {
    return {{"apiKey", c.apiKey()},     {"crash", c.crash()},       {"analytics", c.analytics()},
            {"push", c.push()},         {"geofence", c.geofence()}, {"beacon", c.beacon()},
            {"custom", c.custom()},     {"location", c.location()}, {"schedule", c.schedule()},
            {"mavo", c.mavo()},         {"consent", c.consent()}};
}

Json optionalJson(const std::optional<std::int64_t>& v) { return v ? Json(*v) : Json(nullptr); }
Json optionalJson(const std::optional<std::string>& v) { return v ? Json(*v) : Json(nullptr); }

Data hexArg(const Json& args, const char* key) {
    auto text = stringArg(args, key);
    if (text.size() % 2 != 0) throw BadArguments(std::string("\"") + key + "\" must have an even number of digits");
    Data bytes;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        auto digit = [&](char c) -> int {
            if (c >= '0' && c <= '9') return c - '0';
            if (c >= 'a' && c <= 'f') return c - 'a' + 10;
            if (c >= 'A' && c <= 'F') return c - 'A' + 10;
            throw BadArguments(std::string("\"") + key + "\" must be hexadecimal");
        };
        bytes.push_back(static_cast<std::uint8_t>(digit(text[i]) * 16 + digit(text[i + 1])));
    }
    return bytes;
}

template <class T>
void putOptional(Json& j, const char* key, const std::optional<T>& value) {
    if (value) j[key] = *value;
}

Json messageJson(const TessraReceivedObject& m) {
    Json j = Json::object();
    putOptional(j, "notifId", m.notifId);
    putOptional(j, "title", m.title);
    putOptional(j, "body", m.body);
    putOptional(j, "image", m.image);
    putOptional(j, "tag", m.tag);
    putOptional(j, "sound", m.sound);
    putOptional(j, "badge", m.badge);
    putOptional(j, "renotify", m.renotify);
    putOptional(j, "silent", m.silent);
    putOptional(j, "impTracker", m.impTracker);
    putOptional(j, "taskId", m.taskId);
    if (m.actions) {
        Json actions = Json::array();
        for (const auto& a : *m.actions) actions.push_back(a);
        j["actions"] = actions;
    }
    return j;
}

// ---- Notification contents, in the form the notification centre prints them ----

std::string stringMember(const Json& object, const char* key, const std::string& where) {
    auto it = object.find(key);
    if (it == object.end() || it->is_null()) return {};
    if (!it->is_string()) throw BadArguments("\"" + where + "." + key + "\" must be a string");
    return it->get<std::string>();
}

// The reverse of HeadlessUserNotificationCenter::toJSON: absent members keep the defaults
// of a fresh content, and a misspelt one is refused rather than lost.
platform::UNMutableNotificationContent contentFromJson(const Json& json, const std::string& where) {
    if (!json.is_object()) throw BadArguments("\"" + where + "\" must be an object");
    static const std::set<std::string> known = {"title", "subtitle", "body", "sound", "badge", "categoryIdentifier",
                                                "threadIdentifier", "userInfo", "attachments"};
    for (auto it = json.begin(); it != json.end(); ++it)
        if (!known.count(it.key())) throw BadArguments("\"" + where + "\" has no member \"" + it.key() + "\"");
    platform::UNMutableNotificationContent content;
    content.title = stringMember(json, "title", where);
    content.subtitle = stringMember(json, "subtitle", where);
    content.body = stringMember(json, "body", where);
    content.categoryIdentifier = stringMember(json, "categoryIdentifier", where);
    content.threadIdentifier = stringMember(json, "threadIdentifier", where);
    if (auto it = json.find("sound"); it != json.end() && !it->is_null()) content.sound = stringMember(json, "sound", where);
    if (auto it = json.find("badge"); it != json.end() && !it->is_null()) {
        if (!it->is_number_integer()) throw BadArguments("\"" + where + ".badge\" must be an integer");
        content.badge = it->get<std::int64_t>();
    }
    if (json.contains("userInfo")) content.userInfo = dictionaryArg(json, "userInfo");
    if (auto it = json.find("attachments"); it != json.end() && !it->is_null()) {
        if (!it->is_array()) throw BadArguments("\"" + where + ".attachments\" must be a list");
        for (const auto& a : *it) {
            if (!a.is_object()) throw BadArguments("\"" + where + ".attachments\" holds objects");
            content.attachments.push_back({stringMember(a, "identifier", where + ".attachments"),
                                           stringMember(a, "url", where + ".attachments"), {}});
        }
    }
    return content;
}

// What the platform puts into an extension's best-attempt copy: the alert's title and body.
platform::UNMutableNotificationContent alertContent(const PlistDictionary& userInfo) {
    platform::UNMutableNotificationContent content;
    content.userInfo = userInfo;
    const auto aps = userInfo.find("aps");
    const auto* apsDictionary = aps != userInfo.end() ? aps->second.asDictionary() : nullptr;
    if (!apsDictionary) return content;
    const auto alert = apsDictionary->find("alert");
    if (alert == apsDictionary->end()) return content;
    if (const auto* text = alert->second.asString()) {
        content.body = *text;
    } else if (const auto* fields = alert->second.asDictionary()) {
        for (auto [key, target] : {std::pair{"title", &content.title}, std::pair{"body", &content.body}})
            if (auto it = fields->find(key); it != fields->end() && it->second.asString()) *target = *it->second.asString();
    }
    return content;
}

Json actionOptionNames(unsigned options) {
    namespace O = platform::UNNotificationActionOptions;
    Json names = Json::array();
    for (auto [bit, name] : {std::pair{O::authenticationRequired, "authenticationRequired"},
                             std::pair{O::destructive, "destructive"}, std::pair{O::foreground, "foreground"}})
        if (options & bit) names.push_back(name);
    return names;
}

// ---- Crashes on request ----

[[noreturn]] void throwUncaught() { throw std::runtime_error("tessra-host: exception requested by the script"); }

// Recursion that the optimiser cannot turn into a loop: every frame keeps a live buffer.
int overflowStack(int depth) {
    volatile char frame[1024];
    frame[0] = static_cast<char>(depth);
    if (depth < 0) return frame[0];
    return overflowStack(depth + 1) + frame[0];
}

// Real faults, so that a report shows what the system says about them (si_code, fault
// address), not a raised signal. They stay out of sanitizer checks, which would stop first.
#define TESSRA_HOST_FAULT __attribute__((noinline, no_sanitize_address, no_sanitize_undefined, no_sanitize_thread))

// Page zero is never mapped: a write there is a segmentation fault at that address.
TESSRA_HOST_FAULT void writeToUnmappedAddress() {
    volatile int* volatile unmapped = reinterpret_cast<volatile int*>(std::uintptr_t{16});
    *unmapped = 1;
}

// Integer division by zero traps where the processor does (x86); elsewhere it is raised.
TESSRA_HOST_FAULT void divideByZero() {
    volatile int zero = 0;
    volatile int one = 1;
    one = one / zero;
    std::raise(SIGFPE);
}

void crashAsAsked(const std::string& kind) {
    static const std::map<std::string, int> raised = {
        {"SIGABRT", SIGABRT}, {"SIGBUS", SIGBUS}, {"SIGILL", SIGILL}, {"SIGTRAP", SIGTRAP}};
    std::fflush(stdout);
    if (kind == "SIGSEGV") {
        writeToUnmappedAddress();
        return;
    }
    if (kind == "SIGFPE") {
        divideByZero();
        return;
    }
    if (auto it = raised.find(kind); it != raised.end()) {
        std::raise(it->second);
        return;
    }
    if (kind == "nullWrite") {
        volatile int* volatile nowhere = nullptr;
        *nowhere = 1;
        return;
    }
    if (kind == "stackOverflow") {
        (void)overflowStack(0);
        return;
    }
    if (kind == "exception") {
        // Thrown through a function that may not throw: the terminate handler sees it live.
        []() noexcept { throwUncaught(); }();
    }
    throw BadArguments("unknown crash kind \"" + kind + "\"");
}

// ---- Crash reports read back ----

std::optional<std::string> unlessNull(const std::string& text) {
    if (text == "(null)") return std::nullopt;
    return text;
}

std::uint32_t low32OfHex(const std::string& hex) {
    return static_cast<std::uint32_t>(std::strtoull(hex.c_str(), nullptr, 16) & 0xFFFFFFFFu);
}

// A crash record with what a report says: the values the logger had when it wrote it.
JtCrashLogFile recordFromReport(const std::string& text) {
    std::vector<std::string> lines;
    for (std::size_t start = 0; start <= text.size();) {
        const auto end = std::min(text.find('\n', start), text.size());
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    const auto valueAfter = [&lines](const std::string& prefix) -> std::optional<std::string> {
        for (const auto& line : lines)
            if (line.rfind(prefix, 0) == 0) return line.substr(prefix.size());
        return std::nullopt;
    };
    const bool signal = text.rfind("FROM signal: ", 0) == 0;
    if (!signal && text.rfind("From exception: ", 0) != 0) throw BadArguments("crash.txt is not a crash report");

    JtCrashLogFile record;
    record.type = static_cast<std::int32_t>(std::stol(valueAfter(signal ? "TYPE: " : "Type: ").value_or("0")));
    record.code = std::stoll(valueAfter(signal ? "CODE: " : "Code: ").value_or("0"));
    // "VERSION: <version>BUILD: <build>" or "Version: <version> build: <build>".
    if (auto versions = valueAfter(signal ? "VERSION: " : "Version: ")) {
        const std::string separator = signal ? "BUILD: " : " build: ";
        if (const auto at = versions->rfind(separator); at != std::string::npos) {
            record.appVersion = unlessNull(versions->substr(0, at));
            record.buildVersion = unlessNull(versions->substr(at + separator.size()));
        }
    }
    // The stack: one frame a line between "(" and ")", indented, maybe quoted, comma-separated.
    std::vector<std::string> stack;
    const std::string opening = signal ? "STACK: (" : "CallStack: (";
    auto line = std::find(lines.begin(), lines.end(), opening);
    if (line != lines.end())
        for (++line; line != lines.end() && *line != ")"; ++line) {
            std::string frame = line->substr(std::min<std::size_t>(4, line->size()));
            if (!frame.empty() && frame.back() == ',') frame.pop_back();
            if (frame.size() >= 2 && frame.front() == '"' && frame.back() == '"') frame = frame.substr(1, frame.size() - 2);
            stack.push_back(frame);
        }
    record.callStack = stack;
    if (signal) {
        // "Info: signal:<n>", "address:0x<hex>", then the fault address described, up to "OS: ".
        auto info = std::find_if(lines.begin(), lines.end(), [](const std::string& l) { return l.rfind("Info: ", 0) == 0; });
        if (info != lines.end()) {
            std::string joined = info->substr(6);
            for (auto next = info + 1; next != lines.end() && next->rfind("OS: ", 0) != 0; ++next) joined += "\n" + *next;
            record.info = joined;
        }
        if (auto address = valueAfter("address:0x")) record.address = low32OfHex(*address);
    } else if (!stack.empty()) {
        // An exception's address is its first frame's: "... [0x<hex>]".
        if (const auto at = stack.front().rfind("[0x"); at != std::string::npos)
            record.address = low32OfHex(stack.front().substr(at + 3));
    }
    return record;
}

platform::DeviceOrientation orientationNamed(const std::string& name) {
    using O = platform::DeviceOrientation;
    static const std::map<std::string, O> names = {{"unknown", O::unknown},
                                                   {"portrait", O::portrait},
                                                   {"portraitUpsideDown", O::portraitUpsideDown},
                                                   {"landscapeLeft", O::landscapeLeft},
                                                   {"landscapeRight", O::landscapeRight},
                                                   {"faceUp", O::faceUp},
                                                   {"faceDown", O::faceDown}};
    auto it = names.find(name);
    if (it == names.end()) throw BadArguments("unknown orientation \"" + name + "\"");
    return it->second;
}

}  // namespace

Host::Host(Output& output, std::string bundleFolder, bool extension, bool desktop)
    : out_(output), extension_(extension) {
    Console::setSink([this](std::string_view line) { out_.write({{"console", std::string(line)}}); });
    platform::Bundle::setMain(platform::Bundle::open(bundleFolder));
    clock_ = std::make_shared<SwitchableClock>();
#if TESSRA_DESKTOP_PLATFORM
    if (desktop) {
        auto d = platform::desktop::makeDesktopPlatform({clock_, nullptr});
        headless_ = d.headless;
        platform_ = d.platform;
    }
#else
    (void)desktop;
#endif
    if (!platform_) {
        headless_ = hl::makeHeadlessPlatform({clock_, nullptr});
        platform_ = headless_.platform;
    }
    headless_.effects->setSink([this](const std::string& name, const Json& args) {
        Json line = {{"platform", name}};
        for (auto it = args.begin(); it != args.end(); ++it) line[it.key()] = it.value();
        out_.write(line);
    });
    platform::setCurrentPlatform(platform_);
    delegate_ = std::make_shared<HostDelegate>(out_);
    TessraQuill::setTessraDelegate(delegate_);
    // As the app delegate's response callback does: a click on a shown notification opens it.
    platform_->userNotificationCenter->setResponseHandler([this](const platform::UNNotificationResponse& response) {
        TessraQuill::pushTrackOpen(true, response, [this](std::optional<std::string> url) {
            out_.write({{"callback", "pushTrackOpen"}, {"args", {{"url", optionalJson(url)}}}});
        });
    });
    // As an app delegate does: the token the platform hands out goes to the SDK.
    headless_.application->setDeviceTokenHandler([](const Data& token) { TessraQuill::registerToken(token); });
    registerOperations();
    registerPromptOperations();
    registerLocationOperations();
}

Host::~Host() {
    screens_.clear();
    // Requests still in flight complete while the process exits, after this object is
    // gone: their lines keep the JSON form, and nothing reaches this host's output.
    Console::setSink([](std::string_view line) { Output().write({{"console", std::string(line)}}); });
    headless_.effects->setSink(nullptr);
}

void Host::pump(double maxSeconds) { headless_.platform->runLoop->runUntilIdle(maxSeconds); }

Host::ContentHandler Host::contentHandler(std::optional<std::string> identifier) {
    // The SDK may call it from a network thread: the platform's part runs on the main
    // queue, which only this host pumps, so `this` is alive whenever it runs.
    return [this, runLoop = headless_.platform->runLoop, identifier](platform::UNNotificationContent content) {
        runLoop->async([this, identifier, content = std::move(content)] {
            out_.write({{"callback", "contentHandler"},
                        {"args", {{"content", hl::HeadlessUserNotificationCenter::toJSON(content)}}}});
            if (identifier) headless_.userNotificationCenter->add({*identifier, content, std::nullopt}, nullptr);
        });
    };
}

std::optional<platform::UNNotification> Host::delivered(const std::string& identifier) const {
    for (auto& notification : headless_.userNotificationCenter->delivered())
        if (notification.request.identifier == identifier) return notification;
    return std::nullopt;
}

platform::UNNotification Host::deliveredOrBare(const std::string& identifier) const {
    if (auto notification = delivered(identifier)) return *notification;
    platform::UNNotification bare;
    bare.request.identifier = identifier;
    return bare;
}

bool Host::runLine(const std::string& line) {
    auto first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#') return running_;
    Json request;
    try {
        // Bounded first: everything after the parse (the conversion to property-list values,
        // the echo of the id, the output) recurses.
        request = nesting::parseJSON<Json>(line);
    } catch (const std::exception& e) {
        out_.write({{"error", std::string("not JSON: ") + e.what()}, {"op", nullptr}, {"id", nullptr}});
        return running_;
    }
    Json id = request.is_object() && request.contains("id") ? request["id"] : Json(nullptr);
    if (!request.is_object() || !request.contains("op") || !request["op"].is_string()) {
        out_.write({{"error", "each line is an object with a string \"op\""}, {"op", nullptr}, {"id", id}});
        return running_;
    }
    const auto op = request["op"].get<std::string>();
    auto handler = operations_.find(op);
    if (handler == operations_.end()) {
        out_.write({{"error", "unknown operation"}, {"op", op}, {"id", id}});
        return running_;
    }
    try {
        Json result = handler->second(request);
        out_.write({{"result", result}, {"op", op}, {"id", id}});
    } catch (const std::exception& e) {
        out_.write({{"error", e.what()}, {"op", op}, {"id", id}});
    }
    // "pump": false leaves what the operation started in flight, as an app that is quit
    // at once would.
    const auto pumpAfter = request.find("pump");
    const bool skipPump = pumpAfter != request.end() && pumpAfter->is_boolean() && !pumpAfter->get<bool>();
    if (op != "wait" && op != "exit" && !skipPump) pump();
    return running_;
}

void Host::registerOperations() {
    auto& ops = operations_;
    auto extraClsr = [this](const char* name) {
        return [this, name](std::optional<std::int64_t> status, std::optional<std::string> text,
                            std::optional<platform::UrlError> error) {
            out_.write({{"callback", name},
                        {"args",
                         {{"status", optionalJson(status)},
                          {"text", optionalJson(text)},
                          {"error", error ? Json(error->localizedDescription()) : Json(nullptr)}}}});
        };
    };

    // ---- Start-up ----
    ops["build"] = [this](const Json& a) {
        std::optional<std::string> key;
        if (auto it = a.find("apiKey"); it != a.end() && !it->is_null()) {
            if (!it->is_string()) throw BadArguments("\"apiKey\" must be a string or null");
            key = it->get<std::string>();
        }
        TessraBuilder builder(key);
        if (optionalBool(a, "crash").value_or(false)) builder.crash();
        if (optionalBool(a, "push").value_or(false)) builder.push();
        if (optionalBool(a, "mavo").value_or(false)) builder.mavo();
        if (optionalBool(a, "custom").value_or(false)) builder.custom();
        if (auto v = optionalBool(a, "analytics")) builder.analytics(*v);
        if (auto v = optionalBool(a, "geofence")) builder.geofence(*v);
        if (auto v = optionalBool(a, "beacon")) builder.beacon(*v);
        if (auto v = optionalBool(a, "locationTracking")) builder.locationTracking(*v);
        if (a.contains("scheduleNotifications")) builder.scheduleNotifications(numberArg(a, "scheduleNotifications"));
        config_ = builder.build();
        return configJson(*config_);
    };
    ops["initialize"] = [this](const Json&) {
        if (extension_) throw BadArguments("a service extension does not start the SDK; the app does");
        if (!config_) config_ = TessraBuilder(std::nullopt).build();
        TessraQuill::initialize(config_);
        return Json(nullptr);
    };
    ops["clearInstallationData"] = [](const Json&) {
        TessraQuill::clearInstallationData();
        return Json(nullptr);
    };
    ops["updateScheduler"] = [](const Json&) {
        TessraQuill::updateScheduler();
        return Json(nullptr);
    };
    ops["setDelegate"] = [this](const Json& a) {
        if (optionalBool(a, "present").value_or(true)) {
            delegate_ = std::make_shared<HostDelegate>(out_);
            TessraQuill::setTessraDelegate(delegate_);
        } else {
            delegate_.reset();  // the SDK holds it weakly: released means gone
        }
        return Json(nullptr);
    };

    // ---- Lifecycle and screens ----
    ops["app"] = [this](const Json& a) {
        namespace N = platform::AppNotification;
        static const std::map<std::string, std::pair<const char*, platform::ApplicationState>> events = {
            {"didBecomeActive", {N::didBecomeActive, platform::ApplicationState::active}},
            {"willResignActive", {N::willResignActive, platform::ApplicationState::inactive}},
            {"didEnterBackground", {N::didEnterBackground, platform::ApplicationState::background}},
            {"willTerminate", {N::willTerminate, platform::ApplicationState::background}},
        };
        auto it = events.find(stringArg(a, "event"));
        if (it == events.end()) throw BadArguments("unknown app event");
        headless_.application->setApplicationState(it->second.second);
        headless_.notificationCenter->post(it->second.first);
        return Json(nullptr);
    };
    ops["screen"] = [this](const Json& a) {
        auto name = stringArg(a, "class");
        auto event = stringArg(a, "event");
        if (event != "appear" && event != "disappear") throw BadArguments("\"event\" is \"appear\" or \"disappear\"");
        auto& screen = screens_[name];
        if (!screen) screen = std::make_shared<ScriptedScreen>(name);
        if (event == "appear")
            screen->viewDidAppear(true);
        else
            screen->viewDidDisappear(true);
        return Json(screen->description());
    };

    ops["root"] = [this](const Json& a) {
        auto name = stringArg(a, "class");
        auto& screen = screens_[name];
        if (!screen) screen = std::make_shared<ScriptedScreen>(name);
        headless_.window->setRootViewController(screen);
        return Json(screen->description());
    };

    // ---- The screen as drawn ----
    ops["snapshot"] = [this](const Json& a) {
        auto path = stringArg(a, "path");
        if (auto error = platform::renderPNG(*headless_.window, path)) throw BadArguments(*error);
        const auto frame = headless_.window->frame;
        return Json{{"path", path}, {"width", frame.width}, {"height", frame.height}};
    };
    ops["views"] = [this](const Json&) {
        headless_.window->layoutIfNeeded();
        return platform::toJSON(*headless_.window);
    };
    ops["tap"] = [this](const Json& a) {
        headless_.window->layoutIfNeeded();
        platform::View* view = nullptr;
        // Where a finger (or a click on the desktop) lands: the view there, then its parents.
        if (a.contains("x") || a.contains("y"))
            return Json(headless_.window->tapAt({numberArg(a, "x"), numberArg(a, "y")}));
        if (a.contains("identifier")) {
            view = headless_.window->viewWithAccessibilityIdentifier(stringArg(a, "identifier"));
            if (!view) throw BadArguments("no view has that identifier");
        } else {
            const auto& path = member(a, "path");
            if (!path.is_array()) throw BadArguments("\"path\" must be an array of child indices");
            view = headless_.window.get();
            for (const auto& index : path) {
                if (!index.is_number_unsigned() || index.get<std::size_t>() >= view->subviews().size())
                    throw BadArguments("\"path\" leads to no view");
                view = view->subviews()[index.get<std::size_t>()].get();
            }
        }
        return Json(view->tap());
    };

    // ---- Campaign parameters ----
    ops["setUtm"] = [](const Json& a) {
        TessraQuill::setUtm(stringArg(a, "key"), stringArg(a, "value"));
        return Json(nullptr);
    };
    ops["getUtm"] = [](const Json& a) { return Json(TessraQuill::getUtm(stringArg(a, "key"))); };
    ops["removeUtm"] = [](const Json& a) {
        TessraQuill::removeUtm(stringArg(a, "key"));
        return Json(nullptr);
    };

    // ---- Activities and tracking ----
    ops["track"] = [](const Json& a) {
        TessraQuill::track(dictionaryArg(a, "values"));
        return Json(nullptr);
    };
    ops["getTrack"] = [](const Json&) { return Json(TessraQuill::getTrack()); };
    ops["getTrackFor"] = [](const Json& a) { return Json(TessraQuill::getTrackFor(stringArg(a, "key"))); };
    ops["removeTrack"] = [](const Json&) {
        TessraQuill::removeTrack();
        return Json(nullptr);
    };
    ops["removeTrackFor"] = [](const Json& a) {
        TessraQuill::removeTrackFor(stringArg(a, "key"));
        return Json(nullptr);
    };
    ops["sendTrack"] = [extraClsr](const Json&) {
        TessraQuill::sendTrack(extraClsr("extraClsr"));
        return Json(nullptr);
    };
    ops["sendCustomTestTrack"] = [extraClsr](const Json& a) {
        TessraQuill::sendCustomTestTrack(dictionaryArg(a, "values"), extraClsr("sendCustomTestTrack"));
        return Json(nullptr);
    };
    ops["sendCustomEvent"] = [](const Json& a) {
        TessraQuill::sendCustomEvent(stringArg(a, "key"), PlistValue::fromJSON(member(a, "value")));
        return Json(nullptr);
    };
    ops["tessraSendGeneralActivity"] = [](const Json& a) {
        TessraQuill::tessraSendGeneralActivity(integerArg(a, "code"));
        return Json(nullptr);
    };

    // ---- Device token and push payloads ----
    ops["registerToken"] = [](const Json& a) {
        TessraQuill::registerToken(hexArg(a, "hex"));
        return Json(nullptr);
    };
    ops["serializeDeviceToken"] = [](const Json& a) {
        return Json(TessraQuill::serializeDeviceToken(hexArg(a, "hex")));
    };
    ops["parsePushObj"] = [](const Json& a) {
        auto parsed = TessraQuill::parsePushObj(dictionaryArg(a, "userInfo"));
        if (!parsed) return Json(nullptr);
        if (const auto* push = std::get_if<PushObj>(&*parsed)) return Json{{"PushObj", Json(*push)}};
        return Json{{"PCampaignObject", Json(std::get<PCampaignObject>(*parsed))}};
    };
    ops["getNotificationContent"] = [](const Json& a) {
        platform::UNNotificationRequest request;
        request.identifier = stringArg(a, "identifier");
        request.content.userInfo = dictionaryArg(a, "userInfo");
        auto object = TessraQuill::getNotificationContent(request.content.userInfo, request);
        if (!object) return Json(nullptr);
        Json messages = Json::array();
        for (const auto& m : object->notification) messages.push_back(messageJson(m));
        return messages;
    };

    // ---- The service extension ----
    ops["didReceiveNotification"] = [this](const Json& a) {
        platform::UNNotificationRequest request;
        request.identifier = stringArg(a, "identifier");
        request.content.userInfo = dictionaryArg(a, "userInfo");
        auto best = a.contains("best") && !a["best"].is_null() ? contentFromJson(a["best"], "best")
                                                               : alertContent(request.content.userInfo);
        return optionalJson(TessraQuill::didReceiveNotification(request, std::move(best), contentHandler(request.identifier)));
    };
    ops["notificationBuilderWillTerminate"] = [this](const Json& a) {
        auto userInfo = dictionaryArg(a, "userInfo");
        auto best = a.contains("best") && !a["best"].is_null() ? contentFromJson(a["best"], "best") : alertContent(userInfo);
        std::optional<std::string> identifier;
        if (a.contains("identifier")) identifier = stringArg(a, "identifier");
        TessraQuill::notificationBuilderWillTerminate(userInfo, std::move(best), contentHandler(identifier));
        return Json(nullptr);
    };
    const auto badgeCount = [](void (*count)(platform::UNMutableNotificationContent*)) {
        return [count](const Json& a) {
            if (!optionalBool(a, "content").value_or(false)) {
                count(nullptr);
                return Json(nullptr);
            }
            platform::UNMutableNotificationContent content;
            count(&content);
            return content.badge ? Json(*content.badge) : Json(nullptr);
        };
    };
    ops["addNotificationCount"] = badgeCount(&TessraQuill::addNotificationCount);
    ops["decreseNotificationCount"] = badgeCount(&TessraQuill::decreseNotificationCount);
    ops["setAppBadge"] = [](const Json& a) {
        TessraQuill::setAppBadge(integerArg(a, "value"));
        return Json(nullptr);
    };
    ops["getPreferedContentSize"] = [this](const Json& a) {
        const auto identifier = stringArg(a, "identifier");
        const auto notification = delivered(identifier);
        if (!notification) throw BadArguments("no notification \"" + identifier + "\" is delivered");
        const auto size = TessraQuill::getPreferedContentSize(*notification);
        return Json{{"width", size.width}, {"height", size.height}};
    };
    ops["cleanOldData"] = [this](const Json& a) {
        TessraQuill::cleanOldData(deliveredOrBare(stringArg(a, "identifier")).request);
        return Json(nullptr);
    };
    ops["checkTagAnddeletePreviousMessagesWith"] = [](const Json& a) {
        std::optional<std::string> tag;
        if (a.contains("tag") && !a["tag"].is_null()) tag = stringArg(a, "tag");
        TessraQuill::checkTagAnddeletePreviousMessagesWith(tag, stringArg(a, "norificationId"));
        return Json(nullptr);
    };

    // ---- Opening a notification ----
    ops["pushTrackOpen"] = [this](const Json& a) {
        platform::UNNotificationResponse response;
        response.notification = deliveredOrBare(stringArg(a, "identifier"));
        if (a.contains("action")) response.actionIdentifier = stringArg(a, "action");
        TessraQuill::pushTrackOpen(optionalBool(a, "open").value_or(true), response,
                                   [this](std::optional<std::string> url) {
                                       out_.write({{"callback", "pushTrackOpen"}, {"args", {{"url", optionalJson(url)}}}});
                                   });
        return Json(nullptr);
    };
    ops["renotify"] = [this](const Json& a) {
        TessraQuill::renotify(deliveredOrBare(stringArg(a, "identifier")).request);
        return Json(nullptr);
    };

    // ---- Reminders and the notification centre ----
    ops["createScheduledNotification"] = [](const Json& a) {
        TessraQuill::createScheduledNotification(numberArg(a, "delay"));
        return Json(nullptr);
    };
    ops["cancelScheduledNotifications"] = [](const Json&) {
        TessraQuill::cancelScheduledNotifications();
        return Json(nullptr);
    };
    ops["setNotification"] = [](const Json& a) {
        TessraQuill::setNotification(stringArg(a, "text"));
        return Json(nullptr);
    };
    using Centre = platform::headless::HeadlessUserNotificationCenter;
    ops["notifications.pending"] = [this](const Json&) {
        Json list = Json::array();
        for (const auto& request : headless_.userNotificationCenter->pending())
            list.push_back({{"identifier", request.identifier},
                            {"content", Centre::toJSON(request.content)},
                            {"trigger", Centre::toJSON(request.trigger)}});
        return list;
    };
    ops["notifications.delivered"] = [this](const Json&) {
        Json list = Json::array();
        for (const auto& notification : headless_.userNotificationCenter->delivered())
            list.push_back({{"identifier", notification.request.identifier},
                            {"date", notification.date},
                            {"content", Centre::toJSON(notification.request.content)}});
        return list;
    };
    ops["notifications.categories"] = [this](const Json&) {
        Json list = Json::array();
        for (const auto& category : headless_.userNotificationCenter->categories()) {
            Json actions = Json::array();
            for (const auto& action : category.actions)
                actions.push_back({{"identifier", action.identifier},
                                   {"title", action.title},
                                   {"options", actionOptionNames(action.options)}});
            list.push_back({{"identifier", category.identifier}, {"actions", actions}, {"options", category.options}});
        }
        return list;
    };
    ops["authorization"] = [this](const Json& a) {
        static const std::map<std::string, platform::UNAuthorizationStatus> statuses = {
            {"notDetermined", platform::UNAuthorizationStatus::notDetermined},
            {"denied", platform::UNAuthorizationStatus::denied},
            {"authorized", platform::UNAuthorizationStatus::authorized}};
        auto it = statuses.find(stringArg(a, "status"));
        if (it == statuses.end()) throw BadArguments("unknown status");
        auto granted = optionalBool(a, "granted");
        if (!granted) throw BadArguments("missing \"granted\"");
        headless_.userNotificationCenter->setAuthorizationAnswer(*granted, it->second);
        return Json(nullptr);
    };

    // ---- Crash capture ----
    ops["crash.registerLogger"] = [](const Json&) { return Json(JtCrashLogger::registerLogger()); };
    ops["crash.trigger"] = [](const Json& a) {
        crashAsAsked(stringArg(a, "kind"));
        return Json(nullptr);
    };
    ops["crash.logFile"] = [](const Json&) {
        std::ifstream in(JtCrashLogger::getLogFileName(), std::ios::binary);
        if (!in) return Json(nullptr);
        return Json(std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>()));
    };
    ops["crash.writeRecord"] = [](const Json& a) {
        JtCrashLogFile record;
        if (optionalBool(a, "fromReport").value_or(false)) {
            std::ifstream in(JtCrashLogger::getLogFileName(), std::ios::binary);
            if (!in) throw BadArguments("there is no crash report to keep");
            record = recordFromReport(std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>()));
        } else {
            record.type = static_cast<std::int32_t>(integerArg(a, "type"));
            record.address = static_cast<std::uint32_t>(integerArg(a, "address"));
            record.code = integerArg(a, "code");
        }
        if (auto it = a.find("callStack"); it != a.end() && it->is_array())
            record.callStack = it->get<std::vector<std::string>>();
        if (a.contains("appVersion")) record.appVersion = stringArg(a, "appVersion");
        if (a.contains("info")) record.info = stringArg(a, "info");
        if (a.contains("buildVersion")) record.buildVersion = stringArg(a, "buildVersion");
        const auto folder = std::filesystem::path(JtCrashLogger::getLogPath());
        platform::FileRoots::ensureDirectory(folder);
        const auto file = folder / ("record-" + std::to_string(record.address) + "-" + std::to_string(record.code));
        if (!record.writeToFile(file)) throw std::runtime_error("could not write " + file.string());
        return Json(file.string());
    };
    ops["crash.reportLogs"] = [](const Json&) {
        auto queue = JtCrashReporter::reportLogs();
        return Json(queue ? queue->waitUntilAllOperationsAreFinished(60.0) : true);
    };

    // ---- The shared store ----
    ops["store.dump"] = [](const Json&) {
        Json out = Json::object();
        for (const auto& [k, v] : StorageManager().defaultStorage->dictionaryRepresentation()) out[k] = typedValue(v);
        return out;
    };
    ops["store.get"] = [](const Json& a) {
        auto value = StorageManager().defaultStorage->object(stringArg(a, "key"));
        return value ? typedValue(*value) : Json(nullptr);
    };
    ops["store.set"] = [](const Json& a) {
        StorageManager().defaultStorage->set(stringArg(a, "key"), storeValue(stringArg(a, "type"), member(a, "value")));
        return Json(nullptr);
    };
    ops["store.remove"] = [](const Json& a) {
        StorageManager().defaultStorage->removeObject(stringArg(a, "key"));
        return Json(nullptr);
    };

    // ---- Ads ----
    ops["adLoader.loadAd"] = [this](const Json& a) {
        static const std::map<std::string, NativeAdSize> sizes = {
            {"fullScreen", NativeAdSize::fullScreen}, {"medium", NativeAdSize::medium}, {"small", NativeAdSize::small}};
        const auto name = a.contains("nativeSize") ? stringArg(a, "nativeSize") : std::string("fullScreen");
        const auto size = sizes.find(name);
        if (size == sizes.end()) throw BadArguments("\"nativeSize\" is \"fullScreen\", \"medium\" or \"small\"");
        if (!adDelegate_) adDelegate_ = std::make_shared<HostAdDelegate>(out_);
        auto loader = std::make_shared<TessraAdLoader>(nullptr, size->second);
        loader->setDelegate(adDelegate_);
        adLoaders_.push_back(loader);
        loader->loadAd([this](std::optional<MavoObject> ad, std::optional<TessraRequest::AdError>) {
            out_.write({{"callback", "loadAd"}, {"args", {{"viewId", ad ? Json(ad->viewId) : Json(nullptr)}}}});
        });
        return Json{{"adWidth", loader->adWidth}, {"adHeight", loader->adHeight}};
    };

    // ---- App-open ad ----
    {
        // Delegate calls become lines; the ad and its delegate live as long as the host.
        class AppOpenLines final : public AppOpenAdDelegate {
        public:
            explicit AppOpenLines(Output& out) : out_(out) {}
            void didFailToLoadAd() override { line("didFailToLoadAd"); }
            void addWillPresentFullScreenContent() override { line("addWillPresentFullScreenContent"); }
            void adDidDismissFullScreenContent() override { line("adDidDismissFullScreenContent"); }

        private:
            void line(const char* name) { out_.write({{"delegate", name}, {"args", Json::object()}}); }
            Output& out_;
        };
        struct AppOpenState {
            std::shared_ptr<AppOpenAd> ad;
            std::shared_ptr<AppOpenLines> lines;
        };
        auto state = std::make_shared<AppOpenState>();
        auto created = [state]() -> AppOpenAd& {
            if (!state->ad) throw BadArguments("no app-open ad: call appOpen.create first");
            return *state->ad;
        };
        auto shown = [created]() -> AppOpenAdController& {
            auto controller = created().appOpenController;
            if (!controller) throw BadArguments("no app-open ad is shown");
            return *controller;
        };
        auto flags = [](const AppOpenAd& ad) {
            return Json{{"isLoading", ad.isLoading}, {"isObjetReady", ad.isObjetReady}, {"isPresented", ad.isPresented}};
        };
        ops["appOpen.create"] = [this, state, flags](const Json&) {
            state->ad = std::make_shared<AppOpenAd>();
            if (!state->lines) state->lines = std::make_shared<AppOpenLines>(out_);
            state->ad->delegate = state->lines;
            return flags(*state->ad);
        };
        ops["appOpen.loadAppOpenAd"] = [created, flags](const Json& a) {
            auto& ad = created();
            ad.loadAppOpenAd(stringArg(a, "placementId"));
            return flags(ad);
        };
        ops["appOpen.tryDisplayAd"] = [this, created, flags](const Json&) {
            auto& ad = created();
            auto from = headless_.window->rootViewController();
            if (!from) throw BadArguments("no screen to present from: call screen first");
            // Present from the topmost screen, as an app does when it comes to the front.
            while (auto above = from->presentedViewController()) from = above;
            ad.tryDisplayAd(from);
            return flags(ad);
        };
        ops["appOpen.checkForAd"] = [created](const Json&) {
            auto ready = created().checkForAd();
            if (!ready) return Json(nullptr);
            std::optional<std::string> title;
            if (ready->mavoObject && ready->mavoObject->items && !ready->mavoObject->items->empty() &&
                ready->mavoObject->items->front().md)
                title = ready->mavoObject->items->front().md->title;
            Json image = ready->image ? Json{{"width", ready->image->width()}, {"height", ready->image->height()}}
                                      : Json(nullptr);
            return Json{{"title", optionalJson(title)}, {"image", image}};
        };
        ops["appOpen.tap"] = [shown](const Json&) {
            shown().didTapOpenAd();
            return Json(nullptr);
        };
        ops["appOpen.dismiss"] = [created, shown, flags](const Json&) {
            shown().didTapContinue();
            return flags(created());
        };
    }
    // ---- Banner ----
    auto bannerState = [this] {
        if (!banner_) return Json(nullptr);
        const auto f = banner_->frame;
        return Json{{"frame", {{"x", f.x}, {"y", f.y}, {"width", f.width}, {"height", f.height}}},
                    {"isHidden", banner_->isHidden},
                    {"hasImage", banner_->imageView->image != nullptr},
                    {"bannerID", banner_->bannerID}};
    };
    auto theBanner = [this]() -> BannerView& {
        if (!banner_) throw BadArguments("there is no banner: create one with banner.create");
        return *banner_;
    };
    ops["banner.create"] = [this, bannerState](const Json& a) {
        static const std::map<std::string, BannerSize> sizes = {{"small", BannerSize::small},
                                                                {"medium", BannerSize::medium},
                                                                {"large", BannerSize::large},
                                                                {"adaptive", BannerSize::adaptive}};
        const auto size = sizes.find(a.contains("size") ? stringArg(a, "size") : std::string("small"));
        if (size == sizes.end()) throw BadArguments("\"size\" is \"small\", \"medium\", \"large\" or \"adaptive\"");
        const auto adId = a.contains("adId") ? stringArg(a, "adId") : std::string("Mobile_Banner");
        const auto controllers = headless_.window->controllers();
        if (controllers.empty()) throw BadArguments("the window shows no screen: set one with \"root\" first");
        if (!bannerDelegate_) bannerDelegate_ = std::make_shared<HostBannerDelegate>(out_);
        if (banner_) banner_->removeFromSuperview();
        banner_ = std::make_shared<BannerView>(size->second, adId, optionalBool(a, "showCloseIcon").value_or(false),
                                               bannerDelegate_);
        // On the topmost screen, laid out at once so that its size is known before loadAd.
        controllers.back()->view()->addSubview(banner_);
        headless_.window->layoutIfNeeded();
        return bannerState();
    };
    ops["banner.loadAd"] = [theBanner](const Json&) {
        theBanner().loadAd();
        return Json(nullptr);
    };
    ops["banner.state"] = [bannerState](const Json&) { return bannerState(); };
    ops["banner.tap"] = [theBanner](const Json&) { return Json(theBanner().tap()); };
    ops["banner.closeAd"] = [theBanner](const Json&) {
        theBanner().closeAd();
        return Json(nullptr);
    };
    ops["banner.browserFinished"] = [theBanner](const Json&) {
        theBanner().safariViewControllerDidFinish();
        return Json(nullptr);
    };
    ops["banner.release"] = [this, theBanner](const Json&) {
        theBanner().removeFromSuperview();
        banner_.reset();
        return Json(nullptr);
    };
    // ---- Interstitial ads ----
    {
        // Every delegate call becomes a line naming the ad.
        class HostInterstitialDelegate final : public InterstitialDelegate {
        public:
            explicit HostInterstitialDelegate(Output& out) : out_(out) {}
            void interstitialDidReceiveAd(InterstitialAD& ad) override { emit("interstitialDidReceiveAd", ad); }
            void interstitialView(InterstitialAD& ad, const TessraRequest::AdError&) override {
                emit("interstitialDidFailToReceiveAd", ad);
            }
            void interstitialWillPresentScreen(InterstitialAD& ad) override {
                emit("interstitialWillPresentScreen", ad);
            }
            void interstitialWillDismissScreen(InterstitialAD& ad) override {
                emit("interstitialWillDismissScreen", ad);
            }
            void interstitialWillLeaveApplication(InterstitialAD& ad) override {
                emit("interstitialWillLeaveApplication", ad);
            }
            void interstitialClosed(InterstitialAD& ad) override { emit("interstitialClosed", ad); }

        private:
            void emit(const char* name, InterstitialAD& ad) {
                out_.write({{"delegate", name}, {"args", {{"ad", ad.description()}, {"adId", ad.adId}}}});
            }
            Output& out_;
        };
        // The one ad the script works with; "interstitial.create" replaces it.
        struct Interstitials {
            std::shared_ptr<HostInterstitialDelegate> delegate;
            std::shared_ptr<InterstitialAD> ad;
        };
        auto state = std::make_shared<Interstitials>();
        state->delegate = std::make_shared<HostInterstitialDelegate>(out_);
        auto screenOf = [state]() -> InterstitialController& {
            if (!state->ad) throw BadArguments("no interstitial: run interstitial.create first");
            if (!state->ad->interstitialController) throw BadArguments("the interstitial has dropped its screen");
            return *state->ad->interstitialController;
        };
        ops["interstitial.create"] = [state](const Json& a) {
            state->ad = InterstitialAD::create(stringArg(a, "adId"));
            state->ad->setInterstitialDelegate(state->delegate);
            return Json(state->ad->description());
        };
        ops["interstitial.setReady"] = [screenOf](const Json& a) {
            auto value = optionalBool(a, "value");
            if (!value) throw BadArguments("\"value\" must be a boolean");
            screenOf().isReady = *value;
            return Json(nullptr);
        };
        ops["interstitial.showAd"] = [this, state](const Json&) {
            if (!state->ad) throw BadArguments("no interstitial: run interstitial.create first");
            // The SDK stops the process without a root screen; a script gets an answer instead.
            if (!headless_.window->rootViewController()) throw BadArguments("no root screen: run root first");
            state->ad->showAd();
            return Json(nullptr);
        };
        ops["interstitial.tap"] = [screenOf](const Json&) { return Json(screenOf().iti->tap()); };
        ops["interstitial.closeAd"] = [screenOf](const Json&) {
            screenOf().closeAd();
            return Json(nullptr);
        };
        ops["interstitial.browserFinished"] = [screenOf](const Json&) {
            screenOf().safariViewControllerDidFinish();
            return Json(nullptr);
        };
        ops["interstitial.release"] = [state](const Json&) {
            state->ad.reset();
            return Json(nullptr);
        };
    }

    // ---- The device and time ----
    ops["clock"] = [this](const Json& a) {
        clock_->setManual(numberArg(a, "now"));
        return Json(clock_->now());
    };
    ops["screenSize"] = [this](const Json& a) {
        headless_.screen->setBounds({0, 0, numberArg(a, "width"), numberArg(a, "height")});
        return Json(nullptr);
    };
    ops["orientation"] = [this](const Json& a) {
        headless_.device->setOrientation(orientationNamed(stringArg(a, "value")));
        return Json(nullptr);
    };
    ops["wait"] = [this](const Json& a) {
        headless_.platform->runLoop->runFor(numberArg(a, "seconds"));
        return Json(nullptr);
    };
    ops["exit"] = [this](const Json&) {
        running_ = false;
        return Json(nullptr);
    };
}

// ---- The permission prompt ----
void Host::registerPromptOperations() {
    auto& ops = operations_;
    // The screen on top, as an app asks from whatever the user is looking at.
    auto topScreen = [this] {
        auto from = headless_.window->rootViewController();
        if (!from) throw BadArguments("no screen to present from: set one with \"root\" first");
        while (auto above = from->presentedViewController()) from = above;
        return from;
    };
    // The web view of the topmost screen that shows one.
    auto shownWebView = [this]() -> std::shared_ptr<platform::WebView> {
        const auto controllers = headless_.window->controllers();
        for (auto it = controllers.rbegin(); it != controllers.rend(); ++it)
            if ((*it)->isViewLoaded())
                if (auto web = std::dynamic_pointer_cast<platform::WebView>((*it)->view())) return web;
        return nullptr;
    };
    ops["askForNotificationPermissionWith"] = [topScreen](const Json&) {
        TessraQuill::askForNotificationPermissionWith(topScreen());
        return Json(nullptr);
    };
    ops["askForNotificationsPermission"] = [](const Json&) {
        TessraQuill::askForNotificationsPermission();
        return Json(nullptr);
    };
    ops["prompt.custom"] = [](const Json& a) {
        auto enabled = optionalBool(a, "enabled");
        if (!enabled) throw BadArguments("\"enabled\" must be a boolean");
        detail::setShouldPresentCustomPromt(*enabled);
        return Json(detail::shouldPresentCustomPromt());
    };
    ops["prompt.message"] = [shownWebView](const Json& a) {
        auto web = shownWebView();
        if (!web) throw BadArguments("no web view is shown");
        return Json(web->receiveScriptMessage(stringArg(a, "channel"), member(a, "body")));
    };
    ops["prompt.page"] = [shownWebView](const Json&) {
        auto web = shownWebView();
        return web && web->loadedHTML() ? Json(*web->loadedHTML()) : Json(nullptr);
    };
}

// ---- Location ----

void Host::registerLocationOperations() {
    auto& ops = operations_;
    ops["didReciveAdministrativeNotificationWith"] = [this](const Json& a) {
        TessraQuill::didReciveAdministrativeNotificationWith(
            dictionaryArg(a, "userInfo"), [this](std::optional<Geofences> geofences, std::optional<Beacons> beacons) {
                out_.write({{"callback", "administrativeCompletion"},
                            {"args",
                             {{"geofences", geofences ? Json(*geofences) : Json(nullptr)},
                              {"beacons", beacons ? Json(*beacons) : Json(nullptr)}}}});
            });
        return Json(nullptr);
    };
    // Each answers how many location managers the event was queued for; the pump after
    // the operation delivers it.
    auto& location = *headless_.location;
    ops["location.enter"] = [&location](const Json& a) { return Json(location.enterRegion(stringArg(a, "region"))); };
    ops["location.exit"] = [&location](const Json& a) { return Json(location.exitRegion(stringArg(a, "region"))); };
    ops["location.state"] = [&location](const Json& a) {
        using S = platform::CLRegionState;
        static const std::map<std::string, S> states = {
            {"inside", S::inside}, {"outside", S::outside}, {"unknown", S::unknown}};
        const auto name = stringArg(a, "state");
        auto state = states.find(name);
        if (state == states.end()) throw BadArguments("\"state\" must be \"inside\", \"outside\" or \"unknown\"");
        return Json(location.determineState(stringArg(a, "region"), state->second));
    };
    ops["location.range"] = [&location](const Json& a) {
        const auto& list = member(a, "beacons");
        if (!list.is_array()) throw BadArguments("\"beacons\" must be a list");
        std::vector<platform::CLBeacon> beacons;
        for (const auto& b : list) {
            if (!b.is_object()) throw BadArguments("\"beacons\" holds objects {uuid, major, minor}");
            auto uuid = platform::UUID::parse(stringArg(b, "uuid"));
            if (!uuid) throw BadArguments("\"uuid\" must be a UUID (8-4-4-4-12 hexadecimal digits)");
            beacons.push_back({*uuid, integerArg(b, "major"), integerArg(b, "minor")});
        }
        return Json(location.rangeBeacons(stringArg(a, "region"), beacons));
    };
}

}  // namespace tessra_host
