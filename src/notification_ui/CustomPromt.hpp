#pragma once
// The prompt's internals: the switch between the system and the custom path, and the
// page's parts. Not part of the public API; the sample host and the tests reach them here.

#include <string>

#include <tessrakite/Export.hpp>

namespace tessrakite::detail {

/// Whether askForNotificationPermissionWith shows the custom page first. Off by default:
/// nothing in the SDK turns it on.
TESSRA_EXPORT bool shouldPresentCustomPromt();
TESSRA_EXPORT void setShouldPresentCustomPromt(bool value);

/// The page with "AUTOCONF" still in it; the remote script comes from the web host in
/// effect now.
TESSRA_EXPORT std::string promptPageTemplate();
/// The console bridge injected at document start: console.log, warn, error, debug and
/// uncaught errors go to the "logging" channel.
TESSRA_EXPORT const std::string& consoleBridgeScript();

}  // namespace tessrakite::detail
