#pragma once

#include <string>

namespace tessrakite::crash {

/// Scheme, host and port of the crash upload: those of the stored "tx_crash_url" when
/// it holds a URL, else "http://" + the built-in crash host.
std::string crashHostBase();

}  // namespace tessrakite::crash
