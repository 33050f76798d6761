#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <tessrakite/Export.hpp>

namespace tessrakite {

/// A dictionary key made from any string, for records whose keys are not known in advance.
/// It has no integer form.
struct TESSRA_EXPORT JSONCodingKey {
    std::string key;

    explicit JSONCodingKey(std::string stringValue) : key(std::move(stringValue)) {}

    /// Every string makes a key.
    static std::optional<JSONCodingKey> withStringValue(std::string stringValue) {
        return JSONCodingKey(std::move(stringValue));
    }
    /// No integer makes a key.
    static std::optional<JSONCodingKey> withIntValue(std::int64_t /*intValue*/) { return std::nullopt; }

    const std::string& stringValue() const noexcept { return key; }
    std::optional<std::int64_t> intValue() const noexcept { return std::nullopt; }

    friend bool operator==(const JSONCodingKey&, const JSONCodingKey&) = default;
};

}  // namespace tessrakite
