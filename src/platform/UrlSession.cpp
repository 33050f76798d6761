// Placeholder until the libcurl session lands.
#include <tessrakite/platform/UrlSession.hpp>

namespace tessrakite::platform {
UrlSessionOptions UrlSessionOptions::fromEnvironment() { return {}; }
std::shared_ptr<UrlSession> makeCurlUrlSession(UrlSessionOptions) { return nullptr; }
std::string deploymentHost(DeploymentHost) { return {}; }
}  // namespace tessrakite::platform
