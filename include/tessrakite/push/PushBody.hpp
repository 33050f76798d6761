#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>
#include <tessrakite/core/CS.hpp>

namespace tessrakite {

/// The user record sent when a device token is registered. `bundle` only helps fill the
/// other fields and is never sent.
struct TESSRA_EXPORT PushBody {
    std::optional<std::map<std::string, std::string>> u;
    std::optional<std::string> appVersion;
    std::optional<std::string> sdkVersion;
    std::optional<std::string> os;
    std::optional<std::string> version;
    std::optional<std::string> mfg;
    std::optional<std::string> model;
    std::optional<std::string> sdk;
    std::optional<std::string> lang;
    std::optional<std::string> rid;
    std::optional<std::string> token;
    std::int64_t timestamp = 0;
    std::int64_t code = 0;
    std::string app;
    std::optional<bool> status;
    std::optional<std::string> bundle;
    CS cs;

    /// A record for `token`: app, SDK, device and locale values as the activity reports
    /// have them, the stored user and partner ids, and the session record.
    static PushBody forToken(const std::string& token, CS sessionInfo, std::string installationId);
};

TESSRA_EXPORT void to_json(nlohmann::ordered_json& j, const PushBody& body);
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& j, PushBody& body);

}  // namespace tessrakite
