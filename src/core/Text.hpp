#pragma once
// Small text helpers shared by the core.

#include <string>
#include <string_view>

#include <tessrakite/platform/PlistValue.hpp>

namespace tessrakite::detail {

bool isValidUtf8(std::string_view text);
/// How the platform renders a value as text: 1 → "1", 1.5 → "1.5", true → "true".
std::string textualRendering(const PlistValue& value);
/// How the platform renders a date as text: "2024-01-12 09:42:01 +0000".
std::string dateDescription(double secondsSince1970);
/// A random (version 4) UUID in the phone's spelling: upper-case hex with dashes, 36 characters.
std::string uuidString();

}  // namespace tessrakite::detail
