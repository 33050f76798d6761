#pragma once

#include <string>

namespace tessrakite::crash {

/// "http://" + the crash host: host and port of the stored "tx_crash_url" when it holds
/// a URL (its scheme and path are not used), else the built-in crash host.
std::string crashHostBase();

}  // namespace tessrakite::crash
