#include "crash/CrashHost.hpp"

#include <optional>

#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/Url.hpp>
#include <tessrakite/platform/UrlSession.hpp>
#include <tessrakite/platform/UserDefaults.hpp>

namespace tessrakite::crash {

namespace {
std::optional<std::string> storedCrashUrl() {
    auto bundle = platform::Bundle::main();
    if (!bundle) return std::nullopt;
    auto id = bundle->bundleIdentifier();
    if (!id) return std::nullopt;
    auto store = platform::userDefaults("group." + *id + ".tessraQuill");
    if (!store) return std::nullopt;
    auto value = store->object("tx_crash_url");
    if (!value || !value->asString()) return std::nullopt;
    return *value->asString();
}
}  // namespace

std::string crashHostBase() {
    if (auto stored = storedCrashUrl()) {
        if (auto url = Url::parse(*stored); url && !url->host().empty()) {
            std::string base = url->scheme() + "://" + url->host();
            if (url->port()) base += ":" + std::to_string(*url->port());
            return base;
        }
    }
    return "http://" + platform::deploymentHost(platform::DeploymentHost::crash);
}

}  // namespace tessrakite::crash
