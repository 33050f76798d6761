#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>

namespace tessrakite {

/// "url" of the configuration document: endpoints that replace the stored ones.
struct TESSRA_EXPORT ConfigUrls {
    std::optional<std::string> activity;  // "activity"
    std::optional<std::string> crash;     // "crash"
    std::optional<std::string> user;      // "user"
};

/// "push_config" of the configuration document. "prompts" is carried as received for the
/// permission prompt page.
struct TESSRA_EXPORT PushConfig {
    std::optional<bool> enabled;               // "enabled"
    std::optional<bool> override;              // "override"
    std::optional<nlohmann::ordered_json> prompts;  // "prompts"
};

/// The remote configuration document.
struct TESSRA_EXPORT Config {
    std::optional<bool> consent;           // "consent"
    std::optional<bool> analytics;         // "analytics"
    std::optional<PushConfig> pushConfig;  // "push_config"
    std::optional<ConfigUrls> url;         // "url"
};

TESSRA_EXPORT void to_json(nlohmann::ordered_json& j, const ConfigUrls& v);
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& j, ConfigUrls& v);
TESSRA_EXPORT void to_json(nlohmann::ordered_json& j, const PushConfig& v);
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& j, PushConfig& v);
TESSRA_EXPORT void to_json(nlohmann::ordered_json& j, const Config& v);
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& j, Config& v);

}  // namespace tessrakite
