#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>
#include <tessrakite/core/CS.hpp>
#include <tessrakite/core/UserAgent.hpp>

namespace tessrakite {

/// Activity codes.
namespace ActivityCode {
inline constexpr std::int64_t install = 200;
inline constexpr std::int64_t open = 205;
inline constexpr std::int64_t notificationsRefused = 501;
}  // namespace ActivityCode

/// The values every report and the user record share: app, SDK, device and locale.
struct TESSRA_EXPORT AppContext {
    std::string bundleIdentifier;  // host bundle identifier
    std::string appVersion;        // "CFBundleShortVersionString"
    std::string sdkVersion;
    std::string model;             // device model name
    std::string osName;            // operating system name
    std::string osVersion;         // operating system version
    std::string vendor;            // the machine's vendor, or "unknown"
    std::string lang;              // language part of the locale, e.g. "en"
    std::int64_t tmz = 0;          // local offset from UTC in minutes
    UserAgent ua;

    static AppContext current();
};

/// A posted activity report. `rid` and `dr` are kept but never encoded.
struct TESSRA_EXPORT ActivityBody {
    std::string u;
    std::string sdkVersion;
    std::string version;
    std::string model;
    std::string lang;
    std::string rid;
    std::int64_t code = 0;
    std::int64_t timestamp = 0;
    std::string app;
    std::string dr;
    std::string dl;
    std::string vt = "mobile";
    std::int64_t tmz = 0;
    std::string msg;
    CS cs;
    nlohmann::ordered_json e = nlohmann::ordered_json::object();
    UserAgent ua;

    /// A report with the code, the subject `u` and the session record; every other field
    /// from the current app, device and clock.
    ActivityBody(std::int64_t code, std::string u, CS sessionInfo);
    ActivityBody() = default;
};

TESSRA_EXPORT void to_json(nlohmann::ordered_json& j, const ActivityBody& body);
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& j, ActivityBody& body);

}  // namespace tessrakite
