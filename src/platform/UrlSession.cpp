#include <tessrakite/platform/UrlSession.hpp>

#include <algorithm>
#include <cstdlib>

#include <tessrakite/BuildConfig.hpp>

#include "platform/CurlUrlSession.hpp"

namespace tessrakite::platform {
namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; };
               return lower(x) == lower(y);
           });
}

std::optional<std::string> environment(const char* name) {
    const char* value = std::getenv(name);
    if (!value || !*value) return std::nullopt;
    return std::string(value);
}

}  // namespace

void UrlRequest::setValue(std::string value, std::string forHTTPHeaderField) {
    auto same = [&](const auto& header) { return equalsIgnoringCase(header.first, forHTTPHeaderField); };
    auto first = std::find_if(headers.begin(), headers.end(), same);
    if (first == headers.end()) {
        headers.emplace_back(std::move(forHTTPHeaderField), std::move(value));
        return;
    }
    first->second = std::move(value);
    headers.erase(std::remove_if(std::next(first), headers.end(), same), headers.end());
}

std::optional<std::string> HttpResponse::value(std::string_view forHTTPHeaderField) const {
    std::optional<std::string> joined;
    for (const auto& [name, value] : headers) {
        if (!equalsIgnoringCase(name, forHTTPHeaderField)) continue;
        if (joined)
            *joined += ", " + value;
        else
            joined = value;
    }
    return joined;
}

UrlSessionOptions UrlSessionOptions::fromEnvironment() {
    UrlSessionOptions options;
    if (auto ca = environment("TESSRA_CA_BUNDLE")) options.extraCaFile = *ca;
    return options;
}

std::shared_ptr<UrlSession> makeCurlUrlSession(UrlSessionOptions options) {
    if (options.maxResponseBytes == 0) options.maxResponseBytes = TESSRA_DEFAULT_MAX_RESPONSE_BYTES;
    try {
        return std::make_shared<CurlUrlSession>(std::move(options));
    } catch (...) {
        // Only resource exhaustion gets here (no thread, no memory); callers see no session.
        return nullptr;
    }
}

std::string deploymentHost(DeploymentHost which) {
    switch (which) {
        case DeploymentHost::tracking:
            return environment("TESSRA_TRACKING_HOST").value_or(TESSRA_DEFAULT_TRACKING_HOST);
        case DeploymentHost::cdn:
            return environment("TESSRA_CDN_HOST").value_or(TESSRA_DEFAULT_CDN_HOST);
        case DeploymentHost::ad:
            return environment("TESSRA_AD_HOST").value_or(TESSRA_DEFAULT_AD_HOST);
        case DeploymentHost::crash:
            return environment("TESSRA_CRASH_HOST").value_or(TESSRA_DEFAULT_CRASH_HOST);
        case DeploymentHost::web:
            return environment("TESSRA_WEB_HOST").value_or(TESSRA_DEFAULT_WEB_HOST);
    }
    return {};
}

}  // namespace tessrakite::platform
