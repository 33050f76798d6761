#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <tessrakite/platform/PlistValue.hpp>

#include "platform/Nesting.hpp"

namespace tessrakite::platform::stored {

/// What the `type` column of the defaults table holds. The numbers are on disk: never
/// renumber them.
enum class StoredType : std::int64_t {
    boolean = 1,     // INTEGER 0 or 1
    integer = 2,     // INTEGER
    real = 3,        // REAL (NULL stands for NaN, which SQLite cannot hold)
    string = 4,      // TEXT
    data = 5,        // BLOB
    date = 6,        // REAL, seconds since 1970
    array = 7,       // BLOB, encodeBlob
    dictionary = 8,  // BLOB, encodeBlob
};

/// Containers nested deeper than this are neither written nor read back.
inline constexpr int kMaxBlobDepth = nesting::kMaxDepth;

/// The self-describing binary form of a value, used for containers (which may hold data
/// and dates, so JSON would not do). Layout in docs/storage.md. Nothing when the value is
/// nested deeper than kMaxBlobDepth.
std::optional<std::string> encodeBlob(const PlistValue& value);
/// Nothing when the bytes are not a well-formed blob (truncated, trailing bytes, unknown
/// tag, nesting deeper than kMaxBlobDepth).
std::optional<PlistValue> decodeBlob(const void* bytes, std::size_t size);

}  // namespace tessrakite::platform::stored
