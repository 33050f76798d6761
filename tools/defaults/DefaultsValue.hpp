#pragma once
// Values as tessra-defaults reads them from its command line and prints them.

#include <stdexcept>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include <tessrakite/platform/PlistValue.hpp>

#include "platform/Nesting.hpp"

namespace tessra_defaults {

/// A value on the command line that does not fit its type; the text says why.
struct BadValue : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The deepest nesting of arrays and dictionaries that `write` accepts; the store refuses deeper values.
inline constexpr int kMaxNesting = tessrakite::nesting::kMaxDepth;

/// The value that TYPE and TEXT name on a `write` line. TYPE is bool (true/false, yes/no, 1/0),
/// int, double, string, array or dict (both as JSON). Throws BadValue.
tessrakite::PlistValue parseValue(std::string_view type, std::string_view text);

/// The value for people: strings quoted, data as <hex>, dates in UTC, containers inline.
std::string describe(const tessrakite::PlistValue& value);

/// The value for scripts: {"type": NAME, "value": JSON}; data as a hex string, dates as seconds since 1970.
nlohmann::ordered_json typedJson(const tessrakite::PlistValue& value);

}  // namespace tessra_defaults
