// Placeholder until the SQLite store lands.
#include <tessrakite/platform/UserDefaults.hpp>

namespace tessrakite::platform {
std::shared_ptr<UserDefaults> userDefaults(const std::string&) { return nullptr; }
std::shared_ptr<UserDefaults> standardUserDefaults() { return nullptr; }
}  // namespace tessrakite::platform
