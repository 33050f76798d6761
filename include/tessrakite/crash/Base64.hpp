#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/PlistValue.hpp>

namespace tessrakite {

/// Text encodings the base64 helpers convert through. Strings are UTF-8 in memory.
enum class StringEncoding { utf8, ascii, isoLatin1 };

// The string helpers. Each gives nothing when the text cannot be represented in the
// encoding, when the input is empty (encoders) or when the base64 text is malformed.

/// The UTF-8 bytes of `string`, base64-encoded.
TESSRA_EXPORT std::optional<std::string> encodeBase64(std::string_view string);
/// The bytes of `string` in `encoding`, base64-encoded.
TESSRA_EXPORT std::optional<std::string> encodeBase64UsingEncoding(std::string_view string, StringEncoding encoding);
/// Decodes base64 text and reads the bytes as UTF-8.
TESSRA_EXPORT std::optional<std::string> decodeBase64(std::string_view string);
/// Decodes base64 text and reads the bytes in `encoding`.
TESSRA_EXPORT std::optional<std::string> decodeBase64UsingEncoding(std::string_view string, StringEncoding encoding);
TESSRA_EXPORT std::optional<std::string> base64StringWithString(std::string_view string);
TESSRA_EXPORT std::optional<std::string> base64StringWithString(std::string_view string, StringEncoding usingEncoding);
/// The encoder: standard alphabet, "=" padding, no line breaks; nothing for empty data.
TESSRA_EXPORT std::optional<std::string> base64StringWithData(const Data& data);

// The data helper.

/// The decoder: skips tab, line feed, form feed, carriage return and space; "=" ends the
/// input; any other character outside the alphabet, a non-ASCII character or a lone
/// leftover character gives nothing.
TESSRA_EXPORT std::optional<Data> dataWithBase64String(std::string_view string);

}  // namespace tessrakite
