#include "Sandbox.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Certificates.hpp"

namespace tessrakite::sandbox {
namespace {

namespace fs = std::filesystem;
using httplib::Request;
using httplib::Response;

constexpr std::size_t kMaxRequestBytes = 16 * 1024 * 1024;
constexpr std::size_t kMaxRecordedBody = 1024 * 1024;
constexpr std::size_t kMaxKeptEntries = 10000;
constexpr double kMaxDelaySeconds = 600;
constexpr std::int64_t kMaxFaultCount = 1000000;
// Short, so that stopping does not wait long for idle keep-alive connections.
constexpr time_t kKeepAliveSeconds = 2;

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

bool endsWith(std::string_view text, std::string_view suffix) {
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

/// A name that is safe as a file name under the state folder.
bool isSafeName(std::string_view name) {
    if (name.empty() || name.size() > 200 || name.front() == '.') return false;
    return std::all_of(name.begin(), name.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '_' || c == '-';
    });
}

std::string dumpJson(const Json& value) {
    // Request texts are not trusted to be UTF-8; never let one abort the dump.
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void sendJson(Response& res, int status, const Json& body) {
    res.status = status;
    res.set_content(dumpJson(body), "application/json");
}

bool isUtf8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        const auto c = static_cast<unsigned char>(text[i]);
        std::size_t length = 0;
        std::uint32_t point = 0;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            length = 2;
            point = c & 0x1Fu;
        } else if ((c & 0xF0) == 0xE0) {
            length = 3;
            point = c & 0x0Fu;
        } else if ((c & 0xF8) == 0xF0) {
            length = 4;
            point = c & 0x07u;
        } else {
            return false;
        }
        if (i + length > text.size()) return false;
        for (std::size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) return false;
            point = (point << 6) | (next & 0x3Fu);
        }
        const bool overlong = (length == 2 && point < 0x80) || (length == 3 && point < 0x800) ||
                              (length == 4 && point < 0x10000);
        if (overlong || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return false;
        i += length;
    }
    return true;
}

std::string base64(std::string_view data) {
    static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((data.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < data.size(); i += 3) {
        const std::size_t n = std::min<std::size_t>(3, data.size() - i);
        std::uint32_t group = 0;
        for (std::size_t k = 0; k < 3; ++k)
            group = (group << 8) | (k < n ? static_cast<unsigned char>(data[i + k]) : 0u);
        for (std::size_t k = 0; k < 4; ++k)
            out += k <= n ? kAlphabet[(group >> (18 - 6 * k)) & 0x3Fu] : '=';
    }
    return out;
}

std::string httpDate(std::time_t time) {
    std::tm parts{};
    gmtime_r(&time, &parts);
    std::array<char, 64> text{};
    std::strftime(text.data(), text.size(), "%a, %d %b %Y %H:%M:%S GMT", &parts);
    return text.data();
}

std::optional<std::time_t> parseHttpDate(const std::string& text) {
    std::tm parts{};
    const char* end = strptime(text.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &parts);
    if (end == nullptr || *end != '\0') return std::nullopt;
    return timegm(&parts);
}

std::string rawQuery(const Request& req) {
    const auto mark = req.target.find('?');
    return mark == std::string::npos ? std::string() : req.target.substr(mark + 1);
}

std::string shellQuote(const std::string& text) {
    const bool plain = !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || std::string_view("/._-+:,=@%").find(c) != std::string_view::npos;
    });
    if (plain) return text;
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path.string());
    std::string content{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (in.bad()) throw std::runtime_error("cannot read " + path.string());
    return content;
}

int portOf(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
    if (address.ss_family == AF_INET6) return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
    return -1;
}

/// The socket a request arrived on. cpp-httplib does not hand it to handlers: TLS requests carry
/// it in their SSL object; plain ones are found by their two port numbers.
int connectionSocket(const Request& req) {
    if (req.ssl != nullptr) return SSL_get_fd(req.ssl);
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd", ec)) {
        const std::string name = entry.path().filename().string();
        char* end = nullptr;
        const long fd = std::strtol(name.c_str(), &end, 10);
        if (end == name.c_str() || *end != '\0') continue;
        sockaddr_storage local{}, peer{};
        socklen_t localLength = sizeof local, peerLength = sizeof peer;
        const int candidate = static_cast<int>(fd);
        if (::getsockname(candidate, reinterpret_cast<sockaddr*>(&local), &localLength) != 0 ||
            ::getpeername(candidate, reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0)
            continue;
        if (portOf(local) == req.local_port && portOf(peer) == req.remote_port) return candidate;
    }
    return -1;
}

/// Hangs up without answering: cpp-httplib's later write of the response then fails.
void dropConnection(const Request& req) {
    const int fd = connectionSocket(req);
    if (fd >= 0) ::shutdown(fd, SHUT_RDWR);
}

/// Announces a longer body than it sends, then closes the connection.
void truncateResponse(Response& res) {
    std::string body = std::move(res.body);
    res.body.clear();
    std::string type = res.get_header_value("Content-Type");
    if (type.empty()) type = "application/octet-stream";
    res.headers.erase("Content-Type");
    // These statuses carry no body, so a client would never notice the cut.
    if (res.status == 204 || res.status == 304) res.status = 200;
    const std::size_t sent = body.size() / 2;
    const std::size_t announced = body.size() + 64;
    res.set_content_provider(announced, type,
                             [body = std::move(body), sent](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                                 if (offset < sent) sink.write(body.data() + offset, sent - offset);
                                 return false;  // cpp-httplib closes the connection here
                             });
}

// ---- Built-in documents. ----

/// A prompt record as the prompt script reads it: options (PromtOptions) and a filter.
Json samplePrompt() {
    return {{"id", "sandbox-welcome"},
            {"options",
             {{"title", "Never miss a beat"},
              {"text", "Turn on notifications for news, offers and reminders from the sandbox."},
              {"allowText", "Allow"},
              {"denyText", "Not now"},
              {"titleColor", "#1d1d1f"},
              {"textColor", "#3a3a3c"},
              {"background", "#ffffff"},
              {"allowColor", "#0a84ff"},
              {"allowTextColor", "#ffffff"},
              {"denyColor", "#e5e5ea"},
              {"denyTextColor", "#1d1d1f"},
              {"delay", 1},
              {"onclick", false},
              {"onscroll", false}}},
            {"filter", {{"languages", Json::array()}}}};
}

Json defaultConfigDocument() {
    return {{"consent", true},
            {"analytics", true},
            {"push_config", {{"enabled", true}, {"override", false}, {"prompts", Json::array({samplePrompt()})}}},
            {"url", Json::object()}};
}

/// The campaign GET /v2/campaign/<id> answers when the state folder has none. A few ids each
/// show one case an app meets in the field (see docs/sandbox.md); every other id gets the
/// general sample. "broken" is not JSON at all and is answered elsewhere.
Json builtInCampaign(const std::string& id, const std::string& http) {
    const std::string trackers = http + "/t/campaign/" + id;
    const std::string images = http + "/img/";
    const Json deepLink = {{"action", "open"}, {"title", "Open"}, {"url", "tessra://sandbox/open"}};
    const Json webLink = {{"action", "later"}, {"title", "Later"}, {"url", http + "/landing"}};
    std::string title = "Hello from the sandbox";
    Json message = {{"tag", "sandbox-" + id},
                    {"image", images + "campaign.png"},
                    {"body", "A rich push served by tessra-sandbox, with an image and two buttons."},
                    {"actions", Json::array({deepLink, webLink})}};
    Json conversions = Json::array({trackers + "/conversion"});
    std::string tapLink = "tessra://sandbox/campaign/" + id;

    if (id == "photo") {
        tapLink = http + "/landing?campaign=photo&from=tap";  // a tap opens the web page
        title = "Spring in the hills";
        message["image"] = images + "photo.jpg";
        message["body"] = "A photo-sized picture (about 1 MB), a web page and a deep link.";
        message["sound"] = "chime";  // played as chime.wav
        message["silent"] = false;
        message["actions"] = Json::array(
            {{{"action", "read"}, {"title", "Read more"}, {"url", http + "/landing?campaign=photo"}},
             {{"action", "book"}, {"title", "Book a trip"}, {"url", "tessra://sandbox/offers/photo?from=push"}}});
        // A second conversion tracker, the way a partner network adds its own.
        conversions.push_back(http + "/t/partner/conversion?campaign=photo");
    } else if (id == "banner") {
        title = "Wide banner, compact layout";
        message["image"] = images + "banner.jpeg";
        message["body"] = "A 1024x512 JPEG of about 130 KB in the compact layout.";
        message["el"] = 3;
    } else if (id == "card") {
        title = "Did you like it?";
        message["image"] = images + "card.png";
        message["body"] = "A 600x400 PNG and a Yes/No choice; no sound.";
        message["silent"] = true;
        message["actions"] = Json::array(
            {{{"action", "yes"}, {"title", "Yes"}, {"url", http + "/landing?campaign=card&answer=yes"}},
             {{"action", "no"}, {"title", "No"}, {"url", "tessra://sandbox/feedback?answer=no"}}});
    } else if (id == "notag") {
        title = "No tag";
        message.erase("tag");
        message["image"] = images + "banner.jpeg";
        message["body"] = "Without a tag, so every such push is a notification of its own.";
    } else if (id == "noimage") {
        title = "Text only";
        message.erase("image");
        message["body"] = "No image: the notification shows text and buttons only.";
    } else if (id == "missing-image") {
        title = "Image not found";
        message["image"] = images + "missing.jpg";
        message["body"] = "The image URL answers 404.";
    } else if (id == "html-image") {
        title = "Image that is a web page";
        message["image"] = images + "html.jpg";
        message["body"] = "The image URL answers an HTML page, as a captive portal does.";
    } else if (id == "truncated-image") {
        title = "Image cut short";
        message["image"] = images + "truncated.jpg";
        message["body"] = "The image is a JPEG cut off after half its bytes.";
    } else if (id == "huge-image") {
        title = "Image of 50 MB";
        message["image"] = images + "huge.jpg";
        message["body"] = "The image URL answers 50 MB.";
    }
    message["data"] = {{"url", tapLink}, {"t", conversions}};
    message["tid"] = id;
    return {{"p", Json::array({{{"i", Json::array({trackers + "/impression"})}, {"o", message}, {"t", title}}})},
            {"t", Json::array({trackers + "/delivered"})}};
}

// The built-in feed's variants, named by a word in the track id or the "as" ad id.
struct AdVariant {
    std::string image = "/img/ad.png";
    bool emptyItems = false;
    bool withoutMd = false;
    bool withoutImpression = false;
};

AdVariant adVariant(const std::string& trackId, const std::string& adId) {
    std::string words = trackId + " " + adId;
    std::transform(words.begin(), words.end(), words.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const auto has = [&](std::string_view word) { return words.find(word) != std::string::npos; };
    AdVariant variant;
    if (has("gif"))
        variant.image = "/img/ad.gif";
    else if (has("jpeg") || has("jpg"))
        variant.image = "/img/photo.jpg";
    variant.emptyItems = has("empty");
    variant.withoutMd = has("nomd");
    variant.withoutImpression = has("nocpm");
    return variant;
}

Json sampleAdFeed(const std::string& trackId, const std::string& adId, const std::string& http,
                  std::uint64_t serial) {
    const AdVariant variant = adVariant(trackId, adId);
    const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    // Key order follows the feed's own coding order.
    Json md = {{"l2", "sandbox-" + std::to_string(serial)},
               {"img", http + variant.image},
               {"cmpid", 1001},
               {"url", http + "/landing?ad=" + std::to_string(serial) + "&l2=${l2}"},
               {"title", "TessraKite sandbox ad"},
               {"phone", "+10000000000"},
               {"downl", "Install"},
               {"sprice", "Free"},
               {"displayurl", "127.0.0.1"},
               {"cpm_t", Json::array({http + "/t/impression?l2=${l2}"})},
               {"cpv_t", Json::array({http + "/t/view?l2=${l2}"})},
               {"cpc_t", Json::array({http + "/t/click?l2=${l2}"})},
               {"creid", 2002}};
    if (variant.withoutImpression) md.erase("cpm_t");
    Json item = {{"md", md}, {"s", true}, {"w", 320}, {"r", "sandbox"}, {"h", 480}, {"l", "en"}, {"e", trackId}};
    if (variant.withoutMd) item.erase("md");
    return {{"items", variant.emptyItems ? Json::array() : Json::array({item})},
            {"session_id", "sandbox-session-" + std::to_string(serial)},
            {"callback", ""},
            {"elapsed", 1},
            {"ts", std::to_string(now)}};
}

constexpr std::string_view kPromptScript = R"js(// tessra-sandbox prompt script: the soft permission prompt, drawn from the prompt records of
// the configuration document that the page holds as _TXPC.
//   push_config.enabled false: nothing is shown.
//   no prompt record: straight on to the system dialog ("pns.show").
//   else the first record whose filter matches is shown once its delay, onclick and onscroll
//   conditions are met. Allow fires "pns.htmlOK" with txData; deny tells the app directly.
(function () {
  "use strict";
  function conf() { return typeof _TXPC === "object" && _TXPC ? _TXPC : {}; }
  function fire(name, txData) {
    var event = new Event(name);
    if (txData !== undefined) event.txData = txData;
    window.dispatchEvent(event);
  }
  // Filter: every rule given must hold; a record without one always matches.
  function matches(filter) {
    if (!filter) return true;
    var language = (navigator.language || "").toLowerCase();
    if (Array.isArray(filter.languages) && filter.languages.length &&
        !filter.languages.some(function (l) { return language.indexOf(String(l).toLowerCase()) === 0; })) return false;
    if (typeof filter.userAgent === "string" && !new RegExp(filter.userAgent).test(navigator.userAgent)) return false;
    return true;
  }
  function element(tag, id, css, text) {
    var e = document.createElement(tag);
    if (id) e.id = id;
    e.style.cssText = css;
    if (text !== undefined) e.textContent = text;
    return e;
  }
  function show(prompt) {
    var o = prompt.options || {};
    var overlay = element("div", "tx-prompt",
      "position:fixed;inset:0;display:flex;align-items:flex-end;justify-content:center;z-index:2147483647;" +
      "font-family:-apple-system,'DejaVu Sans',sans-serif;background:" + (o.overlayColor || "rgba(0,0,0,0.35)"));
    var card = element("div", "tx-prompt-card",
      "margin:16px;padding:20px;border-radius:16px;max-width:420px;box-shadow:0 8px 24px rgba(0,0,0,0.25);background:" +
      (o.background || "#ffffff"));
    card.appendChild(element("div", "tx-prompt-title",
      "font-size:20px;font-weight:bold;margin-bottom:8px;color:" + (o.titleColor || "#1d1d1f"), o.title || "Stay in the loop"));
    card.appendChild(element("div", "tx-prompt-text",
      "font-size:15px;line-height:1.4;margin-bottom:16px;color:" + (o.textColor || "#3a3a3c"),
      o.text || "Allow notifications to hear about news and offers first."));
    var buttons = element("div", "", "display:flex;gap:12px;justify-content:flex-end");
    var button = "border:0;border-radius:10px;padding:10px 18px;font-size:15px;font-weight:bold;";
    var deny = element("button", "tx-prompt-deny", button + "background:" + (o.denyColor || "#e5e5ea") +
      ";color:" + (o.denyTextColor || "#1d1d1f"), o.denyText || "Not now");
    var allow = element("button", "tx-prompt-allow", button + "background:" + (o.allowColor || "#0a84ff") +
      ";color:" + (o.allowTextColor || "#ffffff"), o.allowText || "Allow");
    buttons.appendChild(deny);
    buttons.appendChild(allow);
    card.appendChild(buttons);
    overlay.appendChild(card);
    document.body.appendChild(overlay);
    allow.addEventListener("click", function () {
      overlay.remove();
      fire("pns.htmlOK", { prompt: prompt.id || null, source: "tessra-sandbox" });
    });
    deny.addEventListener("click", function () {
      overlay.remove();
      var bridge = window.webkit && window.webkit.messageHandlers && window.webkit.messageHandlers.JSBridge;
      if (bridge) bridge.postMessage(JSON.stringify({ event: "pns.denied", data: { prompt: prompt.id || null } }));
    });
    console.log("tessra prompt shown: " + (prompt.id || "(no id)"));
  }
  // Shown "delay" seconds after the trigger: the first tap when onclick is set, a scroll past
  // onscroll pixels (true: any scroll) when that is set, whichever comes first; else at once.
  function schedule(prompt) {
    var o = prompt.options || {};
    var triggered = false;
    function ready() {
      if (triggered) return;
      triggered = true;
      setTimeout(function () { show(prompt); }, Math.max(0, Number(o.delay) || 0) * 1000);
    }
    if (!o.onclick && !o.onscroll) return ready();
    if (o.onclick) document.addEventListener("click", ready, { capture: true, once: true });
    if (o.onscroll) {
      var distance = typeof o.onscroll === "number" ? o.onscroll : 1;
      window.addEventListener("scroll", function check() {
        if (window.scrollY >= distance) { window.removeEventListener("scroll", check); ready(); }
      });
    }
  }
  function start() {
    var push = conf().push_config || {};
    if (!push.enabled) { console.log("tessra prompt: push_config.enabled is off"); return; }
    var prompts = Array.isArray(push.prompts) ? push.prompts : [];
    if (!prompts.length) { fire("pns.show"); return; }
    var chosen = prompts.filter(function (p) { return p && matches(p.filter); })[0];
    if (!chosen) { console.log("tessra prompt: no prompt record matches"); return; }
    schedule(chosen);
  }
  if (document.readyState === "loading") document.addEventListener("DOMContentLoaded", start); else start();
})();
)js";

// What the "broken" campaign answers: an error page from a proxy, with status 200.
constexpr std::string_view kBrokenCampaign =
    "<!DOCTYPE html><html><head><title>502 Bad Gateway</title></head>"
    "<body><h1>Bad Gateway</h1><p>The upstream server did not answer.</p></body></html>\n";

constexpr std::string_view kLandingPage =
    "<!DOCTYPE html><html><head><meta charset=\"utf-8\"><title>Sandbox landing page</title></head>"
    "<body><h1>TessraKite sandbox</h1><p>An ad or a push led here.</p></body></html>\n";

}  // namespace

// ---- RequestLog ----

RequestLog::RequestLog(const fs::path& file) : file_(file, std::ios::app | std::ios::binary) {
    if (!file_) throw std::runtime_error("cannot open " + file.string());
}

void RequestLog::record(Json entry) {
    const std::string line = dumpJson(entry) + "\n";
    std::lock_guard lock(mutex_);
    entries_.push_back(std::move(entry));
    if (entries_.size() > kMaxKeptEntries) entries_.pop_front();
    file_ << line;
    file_.flush();
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

Json RequestLog::list(const std::string& pathPrefix) const {
    std::lock_guard lock(mutex_);
    Json result = Json::array();
    for (const auto& entry : entries_)
        if (startsWith(entry["path"].get_ref<const std::string&>(), pathPrefix)) result.push_back(entry);
    return result;
}

std::size_t RequestLog::clear() {
    std::lock_guard lock(mutex_);
    const std::size_t count = entries_.size();
    entries_.clear();
    return count;
}

void RequestLog::flush() {
    std::lock_guard lock(mutex_);
    file_.flush();
    std::fflush(stdout);
}

// ---- Fault ----

std::optional<Fault> Fault::parse(const std::string& body, std::string& error) {
    const Json json = Json::parse(body, nullptr, false);
    if (json.is_discarded() || !json.is_object()) {
        error = "the body must be a JSON object";
        return std::nullopt;
    }
    Fault fault;
    for (const auto& [key, value] : json.items()) {
        if (key == "route" && value.is_string()) {
            fault.route = value.get<std::string>();
        } else if (key == "count" && value.is_number_integer()) {
            fault.remaining = value.is_number_unsigned() && value.get<std::uint64_t>() > std::uint64_t(kMaxFaultCount)
                                  ? kMaxFaultCount + 1
                                  : value.get<std::int64_t>();
        } else if (key == "status" && value.is_number_integer()) {
            const auto status = value.get<std::int64_t>();
            if (status < 200 || status > 599) {
                error = "\"status\" must lie between 200 and 599";
                return std::nullopt;
            }
            fault.status = static_cast<int>(status);
        } else if (key == "delay" && value.is_number()) {
            fault.delay = value.get<double>();
        } else if (key == "drop" && value.is_boolean()) {
            fault.drop = value.get<bool>();
        } else if (key == "truncate" && value.is_boolean()) {
            fault.truncate = value.get<bool>();
        } else {
            error = "unexpected key or type: \"" + key + "\"";
            return std::nullopt;
        }
    }
    if (fault.route.empty() || fault.route.front() != '/' || fault.route.size() > 1024) {
        error = "\"route\" must be a path starting with \"/\"";
        return std::nullopt;
    }
    if (fault.remaining < 1 || fault.remaining > kMaxFaultCount) {
        error = "\"count\" must lie between 1 and " + std::to_string(kMaxFaultCount);
        return std::nullopt;
    }
    if (!std::isfinite(fault.delay) || fault.delay < 0 || fault.delay > kMaxDelaySeconds) {
        error = "\"delay\" must lie between 0 and " + std::to_string(static_cast<int>(kMaxDelaySeconds)) + " seconds";
        return std::nullopt;
    }
    const int outcomes = int(fault.status.has_value()) + int(fault.drop) + int(fault.truncate);
    if (outcomes > 1) {
        error = "use only one of \"status\", \"drop\" and \"truncate\"";
        return std::nullopt;
    }
    if (outcomes == 0 && fault.delay <= 0) {
        error = "give \"status\", \"delay\", \"drop\" or \"truncate\"";
        return std::nullopt;
    }
    return fault;
}

Json Fault::effects() const {
    Json json = Json::object();
    if (delay > 0) json["delay"] = delay;
    if (status) json["status"] = *status;
    if (drop) json["drop"] = true;
    if (truncate) json["truncate"] = true;
    return json;
}

Json Fault::describe() const {
    Json json = {{"route", route}, {"count", remaining}};
    json.update(effects());
    return json;
}

// ---- FaultBook ----

void FaultBook::add(Fault fault) {
    std::lock_guard lock(mutex_);
    faults_.push_back(std::move(fault));
}

std::optional<Fault> FaultBook::take(const std::string& path) {
    std::lock_guard lock(mutex_);
    const auto match =
        std::find_if(faults_.begin(), faults_.end(), [&](const Fault& f) { return startsWith(path, f.route); });
    if (match == faults_.end()) return std::nullopt;
    Fault taken = *match;
    if (--match->remaining <= 0) faults_.erase(match);
    return taken;
}

Json FaultBook::list() const {
    std::lock_guard lock(mutex_);
    Json result = Json::array();
    for (const auto& fault : faults_) result.push_back(fault.describe());
    return result;
}

std::size_t FaultBook::clear() {
    std::lock_guard lock(mutex_);
    const std::size_t count = faults_.size();
    faults_.clear();
    return count;
}

// ---- Sandbox ----

const std::vector<Sandbox::Route>& Sandbox::routes() {
    static const std::vector<Route> table = {
        // What the SDK talks to over HTTPS (tracking, CDN and web hosts).
        {Side::Https, "GET", "/tag/", &Sandbox::configDocument},
        {Side::Https, "POST", "/v2/activity", &Sandbox::created},
        {Side::Https, "POST", "/v2/users", &Sandbox::created},
        {Side::Https, "GET", "/v2/campaign/", &Sandbox::campaign},
        {Side::Https, "GET", "/v2/mobile.js", &Sandbox::promptScript},
        // What it talks to over plain HTTP (ad and crash hosts).
        {Side::Http, "GET", "/v1/display/", &Sandbox::adFeed},
        {Side::Http, "GET", "/t/", &Sandbox::tracker},
        {Side::Http, "GET", "/img/", &Sandbox::image},
        {Side::Http, "POST", "/post.php", &Sandbox::crashUpload},
        {Side::Http, "GET", "/landing", &Sandbox::landing},
        // Control, on both sides; neither recorded nor subject to faults.
        {Side::Both, "GET", "/_sandbox/requests", &Sandbox::listRequests},
        {Side::Both, "DELETE", "/_sandbox/requests", &Sandbox::clearRequests},
        {Side::Both, "GET", "/_sandbox/fault", &Sandbox::listFaults},
        {Side::Both, "POST", "/_sandbox/fault", &Sandbox::addFault},
        {Side::Both, "DELETE", "/_sandbox/fault", &Sandbox::clearFaults},
    };
    return table;
}

namespace {

void configureServer(httplib::Server& server, const httplib::Server::Handler& handler) {
    // Only SO_REUSEADDR (cpp-httplib sets SO_REUSEPORT): a port already taken must fail to bind.
    server.set_socket_options([](socket_t sock) {
        int yes = 1;
        ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    server.set_keep_alive_timeout(kKeepAliveSeconds);
    server.set_payload_max_length(kMaxRequestBytes);
    const std::string any = "[\\s\\S]*";
    server.Get(any, handler);
    server.Post(any, handler);
    server.Put(any, handler);
    server.Patch(any, handler);
    server.Delete(any, handler);
    server.Options(any, handler);
}

int bindServer(httplib::Server& server, int port, const char* what) {
    const int bound = port == 0 ? server.bind_to_any_port("127.0.0.1")
                                : (server.bind_to_port("127.0.0.1", port) ? port : -1);
    if (bound <= 0)
        throw std::runtime_error(std::string("cannot listen for ") + what + " on 127.0.0.1" +
                                 (port == 0 ? std::string() : ":" + std::to_string(port)));
    return bound;
}

fs::path freshStateFolder() {
    std::string pattern = (fs::temp_directory_path() / "tessra-sandbox-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr)
        throw std::system_error(errno, std::generic_category(), "cannot create a temporary state folder");
    return pattern;
}

void stopServer(httplib::Server& server, std::thread& thread, const std::atomic<bool>& finished) {
    if (!thread.joinable()) return;
    // stop() acts only once the accept loop runs, and a signal can come before it does.
    while (!server.is_running() && !finished) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    server.stop();
    thread.join();
}

}  // namespace

Sandbox::Sandbox(Options options) : startedAt_(std::time(nullptr)) {
    fs::path state = options.state.empty() ? freshStateFolder() : options.state;
    fs::create_directories(state);
    state_ = fs::absolute(state).lexically_normal();
    for (const char* folder : {"config", "campaigns", "ads"}) fs::create_directories(state_ / folder);

    const CertificateFiles certificates = prepareCertificates(state_ / "ca");
    authority_ = certificates.authority;
    log_ = std::make_unique<RequestLog>(state_ / "requests.jsonl");

    https_ = std::make_unique<httplib::SSLServer>(certificates.certificate.c_str(), certificates.key.c_str());
    if (!https_->is_valid()) throw std::runtime_error("cannot load " + certificates.certificate.string());
    http_ = std::make_unique<httplib::Server>();
    configureServer(*https_, [this](const Request& req, Response& res) { serve(Side::Https, req, res); });
    configureServer(*http_, [this](const Request& req, Response& res) { serve(Side::Http, req, res); });
    httpsPort_ = bindServer(*https_, options.httpsPort, "HTTPS");
    httpPort_ = bindServer(*http_, options.httpPort, "HTTP");
}

Sandbox::~Sandbox() { stop(); }

void Sandbox::start() {
    imagesThread_ = std::thread([this] {
        std::shared_ptr<const ImageLibrary> drawn;
        try {
            drawn = std::make_shared<const ImageLibrary>();
        } catch (const std::exception& error) {
            std::fprintf(stderr, "tessra-sandbox: cannot draw the images: %s\n", error.what());
        }
        {
            std::lock_guard lock(imagesMutex_);
            images_ = std::move(drawn);
            imagesDone_ = true;
        }
        imagesDrawn_.notify_all();
    });
    httpsThread_ = std::thread([this] {
        https_->listen_after_bind();
        httpsFinished_ = true;
    });
    httpThread_ = std::thread([this] {
        http_->listen_after_bind();
        httpFinished_ = true;
    });
}

void Sandbox::stop() {
    {
        std::lock_guard lock(stopMutex_);
        if (stopped_) return;
        stopped_ = stopping_ = true;
    }
    stopSignal_.notify_all();  // cut scripted delays short
    stopServer(*https_, httpsThread_, httpsFinished_);
    stopServer(*http_, httpThread_, httpFinished_);
    if (imagesThread_.joinable()) imagesThread_.join();
    log_->flush();
}

std::shared_ptr<const ImageLibrary> Sandbox::images() {
    std::unique_lock lock(imagesMutex_);
    imagesDrawn_.wait(lock, [this] { return imagesDone_; });
    if (!images_) throw std::runtime_error("the images could not be drawn");
    return images_;
}

std::vector<std::string> Sandbox::exportLines() const {
    const std::string https = "127.0.0.1:" + std::to_string(httpsPort_);
    const std::string http = "127.0.0.1:" + std::to_string(httpPort_);
    return {"export TESSRA_TRACKING_HOST=" + https, "export TESSRA_CDN_HOST=" + https,
            "export TESSRA_WEB_HOST=" + https,      "export TESSRA_AD_HOST=" + http,
            "export TESSRA_CRASH_HOST=" + http,     "export TESSRA_CA_BUNDLE=" + shellQuote(authority_.string())};
}

void Sandbox::serve(Side side, const Request& req, Response& res) {
    std::optional<Fault> fault;
    try {
        if (startsWith(req.path, "/_sandbox/")) {
            route(side, req, res);
            return;
        }
        fault = faults_.take(req.path);
        if (fault && fault->delay > 0 && !waitUnlessStopping(fault->delay)) {
            sendJson(res, 503, {{"error", "stopping"}});
        } else if (fault && fault->drop) {
            record(side, req, 0, fault);  // before the hang-up, so a client that sees it finds the record
            dropConnection(req);
            res.status = 500;  // never reaches the client
            return;
        } else if (fault && fault->status) {
            sendJson(res, *fault->status, {{"error", "scripted fault"}});
        } else {
            route(side, req, res);
            if (fault && fault->truncate) truncateResponse(res);
        }
        record(side, req, res.status, fault);
    } catch (const std::exception& error) {
        res = Response();
        sendJson(res, 500, {{"error", error.what()}});
        try {
            record(side, req, 500, fault);
        } catch (const std::exception&) {
            // Nothing left to report it with; the 500 still goes out.
        }
    }
}

void Sandbox::route(Side side, const Request& req, Response& res) {
    const std::string method = req.method == "HEAD" ? "GET" : req.method;
    bool knownPath = false;
    for (const Route& entry : routes()) {
        if (entry.side != Side::Both && entry.side != side) continue;
        const std::string_view path = entry.path;
        const bool matches = path.back() == '/' ? startsWith(req.path, path) && req.path.size() > path.size()
                                                : req.path == path;
        if (!matches) continue;
        knownPath = true;
        if (method == entry.method) {
            (this->*entry.handler)(req, res);
            return;
        }
    }
    if (knownPath)
        sendJson(res, 405, {{"error", "method not allowed"}});
    else
        sendJson(res, 404, {{"error", "not found"}});
}

void Sandbox::record(Side side, const Request& req, int status, const std::optional<Fault>& fault) {
    Json headers = Json::object();
    for (const auto& [name, value] : req.headers) {
        // cpp-httplib adds the connection's addresses as pseudo headers; they were not sent.
        if (name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT") continue;
        if (headers.contains(name))
            headers[name] = headers[name].get<std::string>() + ", " + value;
        else
            headers[name] = value;
    }
    const double now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    Json entry = {{"ts", std::round(now * 1000) / 1000},
                  {"scheme", side == Side::Https ? "https" : "http"},
                  {"method", req.method},
                  {"path", req.path},
                  {"query", rawQuery(req)},
                  {"headers", std::move(headers)}};
    const std::string_view body = std::string_view(req.body).substr(0, kMaxRecordedBody);
    if (isUtf8(body)) {
        entry["body"] = std::string(body);
    } else {
        entry["body"] = base64(body);
        entry["body_base64"] = true;
    }
    if (body.size() < req.body.size()) entry["body_truncated"] = true;
    entry["status"] = status;
    if (fault) entry["fault"] = fault->effects();
    log_->record(std::move(entry));
}

bool Sandbox::waitUnlessStopping(double seconds) {
    std::unique_lock lock(stopMutex_);
    return !stopSignal_.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return stopping_; });
}

std::string Sandbox::substitute(std::string text) const {
    const std::pair<std::string, std::string> bases[] = {
        {"{{https}}", "https://127.0.0.1:" + std::to_string(httpsPort_)},
        {"{{http}}", "http://127.0.0.1:" + std::to_string(httpPort_)}};
    for (const auto& [token, value] : bases)
        for (auto at = text.find(token); at != std::string::npos; at = text.find(token, at + value.size()))
            text.replace(at, token.size(), value);
    return text;
}

std::optional<std::string> Sandbox::stateDocument(const std::string& folder, const std::string& name,
                                                  std::time_t* modified) const {
    if (!isSafeName(name)) return std::nullopt;
    const fs::path path = state_ / folder / (name + ".json");
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
    if (modified != nullptr) *modified = info.st_mtime;
    return substitute(readFile(path));
}

// GET "/tag/" + key + ".json": the configuration document, with an If-Modified-Since exchange.
void Sandbox::configDocument(const Request& req, Response& res) {
    const std::string name = req.path.substr(std::string_view("/tag/").size());
    const std::string key = name.substr(0, name.size() - std::min(name.size(), std::size_t{5}));
    if (!endsWith(name, ".json") || !isSafeName(key)) return sendJson(res, 404, {{"error", "not found"}});

    std::time_t modified = startedAt_;
    std::optional<std::string> document = stateDocument("config", key, &modified);
    res.set_header("Last-Modified", httpDate(modified));
    if (const auto since = parseHttpDate(req.get_header_value("If-Modified-Since")); since && *since >= modified) {
        res.status = 304;
        return;
    }
    res.status = 200;
    res.set_content(document ? *document : dumpJson(defaultConfigDocument()), "application/json");
}

// POST activity and user records.
void Sandbox::created(const Request&, Response& res) { sendJson(res, 201, {{"status", "created"}}); }

// GET "/v2/campaign/<id>": the campaign a push's "e" names (the SDK appends "&ver=2.0").
void Sandbox::campaign(const Request& req, Response& res) {
    std::string id = req.path.substr(std::string_view("/v2/campaign/").size());
    // An endpoint without a query makes the SDK's "&ver=2.0" land in the path.
    id = id.substr(0, id.find('&'));
    if (!isSafeName(id)) return sendJson(res, 404, {{"error", "not found"}});
    const std::optional<std::string> document = stateDocument("campaigns", id);
    res.status = 200;
    if (!document && id == "broken") return res.set_content(std::string(kBrokenCampaign), "text/html; charset=utf-8");
    res.set_content(document ? *document : dumpJson(builtInCampaign(id, substitute("{{http}}"))), "application/json");
}

void Sandbox::promptScript(const Request&, Response& res) {
    res.status = 200;
    res.set_content(std::string(kPromptScript), "application/javascript");
}

// GET "/v1/display/" + track id: the ad feed.
void Sandbox::adFeed(const Request& req, Response& res) {
    const std::string trackId = req.path.substr(std::string_view("/v1/display/").size());
    const std::optional<std::string> document = stateDocument("ads", trackId);
    res.status = 200;
    res.set_content(document ? *document
                             : dumpJson(sampleAdFeed(trackId, req.get_param_value("as"), substitute("{{http}}"),
                                                     ++adCounter_)),
                    "application/json");
}

// Trackers succeed with 204 only.
void Sandbox::tracker(const Request&, Response& res) { res.status = 204; }

// GET "/img/<name>": the generated images, shared by every request; "huge.jpg" is streamed.
void Sandbox::image(const Request& req, Response& res) {
    const std::string name = req.path.substr(std::string_view("/img/").size());
    const std::shared_ptr<const ImageLibrary> images = this->images();
    if (name == "huge.jpg") {
        // The photo's bytes over and over: a JPEG at the start, and never all in memory.
        res.status = 200;
        res.set_content_provider(ImageLibrary::kHugeBytes, "image/jpeg",
                                 [images](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
                                     const std::string& photo = images->find("photo.jpg")->bytes;
                                     const std::size_t from = offset % photo.size();
                                     const std::size_t n = std::min({length, photo.size() - from, std::size_t{65536}});
                                     return sink.write(photo.data() + from, n);
                                 });
        return;
    }
    const Image* image = images->find(name);
    if (image == nullptr) return sendJson(res, 404, {{"error", "not found"}});
    res.status = 200;
    res.set_content(image->bytes, image->type);
}

// POST "/post.php?ver=..&addr=..&code=.." with body "stack=<base64>": crash uploads want a 200.
void Sandbox::crashUpload(const Request&, Response& res) {
    res.status = 200;
    res.set_content("ok\n", "text/plain");
}

void Sandbox::landing(const Request&, Response& res) {
    res.status = 200;
    res.set_content(std::string(kLandingPage), "text/html; charset=utf-8");
}

void Sandbox::listRequests(const Request& req, Response& res) {
    sendJson(res, 200, log_->list(req.get_param_value("path")));
}

void Sandbox::clearRequests(const Request&, Response& res) { sendJson(res, 200, {{"cleared", log_->clear()}}); }

void Sandbox::listFaults(const Request&, Response& res) { sendJson(res, 200, faults_.list()); }

void Sandbox::addFault(const Request& req, Response& res) {
    std::string error;
    std::optional<Fault> fault = Fault::parse(req.body, error);
    if (!fault) return sendJson(res, 400, {{"error", error}});
    const Json described = fault->describe();
    faults_.add(std::move(*fault));
    sendJson(res, 201, described);
}

void Sandbox::clearFaults(const Request&, Response& res) { sendJson(res, 200, {{"cleared", faults_.clear()}}); }

}  // namespace tessrakite::sandbox
