#include "crash/CrashHost.hpp"

#include <optional>

#include <tessrakite/core/StorageManager.hpp>
#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/Url.hpp>
#include <tessrakite/platform/UrlSession.hpp>

namespace tessrakite::crash {

namespace {
std::optional<std::string> storedCrashUrl() {
    // Without a host bundle identifier there is no shared store to read (and opening
    // it would be a fatal stop), so the built-in host serves.
    auto bundle = platform::Bundle::main();
    if (!bundle || !StorageManager::hostBundleIdentifier(*bundle)) return std::nullopt;
    return StorageManager().getStringFromStorage(StorageKey::crashUrl);
}
}  // namespace

std::string crashHostBase() {
    if (auto stored = storedCrashUrl()) {
        if (auto url = Url::parse(*stored); url && !url->host().empty()) {
            // Uploads are plain HTTP whatever the stored scheme: only where to send is taken.
            const std::string& host = url->host();
            std::string base = "http://";
            base += host.find(':') != std::string::npos && host.front() != '[' ? "[" + host + "]" : host;
            if (url->port()) base += ":" + std::to_string(*url->port());
            return base;
        }
    }
    return "http://" + platform::deploymentHost(platform::DeploymentHost::crash);
}

}  // namespace tessrakite::crash
