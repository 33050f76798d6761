#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>

namespace tessrakite {

/// What the reports say about the device and the app.
struct TESSRA_EXPORT UserAgent {
    std::string z;   // operating system name
    std::string t;   // device kind
    std::string de;  // machine identifier
    std::string dt;  // model name
    std::string sr;  // screen size "WxH"
    std::string vp;  // viewport size "WxH"
    std::string n;   // app display name
    std::string v;   // app version

    /// The values of this device and app, read from the platform and the main bundle.
    static UserAgent current();
};

TESSRA_EXPORT void to_json(nlohmann::ordered_json& j, const UserAgent& ua);
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& j, UserAgent& ua);

}  // namespace tessrakite
