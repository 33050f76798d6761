#pragma once

#include <cstddef>
#include <exception>
#include <string>
#include <vector>

#include <tessrakite/Export.hpp>

namespace tessrakite {

/// Why a JSON value could not be decoded into a record, and where. The records' JSON
/// coding raises it; the SDK's entry points catch it and print it, so a host only sees it
/// when it calls the coding functions itself.
class TESSRA_EXPORT DecodingError : public std::exception {
public:
    enum class Kind { typeMismatch, valueNotFound, keyNotFound, dataCorrupted };

    DecodingError(Kind kind, std::string debugDescription, std::vector<std::string> codingPath = {});

    Kind kind() const noexcept { return kind_; }
    /// From the decoded root down to the failing container: keys, and "[N]" for an array
    /// position.
    const std::vector<std::string>& codingPath() const noexcept { return codingPath_; }
    const std::string& debugDescription() const noexcept { return debugDescription_; }
    /// One line for the console: the kind, the coding path and the description.
    const std::string& description() const noexcept { return description_; }
    const char* what() const noexcept override { return description_.c_str(); }

    // Called while the error leaves a container, so that the path reads from the root.
    void prependKey(std::string key);
    void prependIndex(std::size_t index);

    static const char* kindName(Kind kind) noexcept;

private:
    void describe();

    Kind kind_;
    std::string debugDescription_;
    std::vector<std::string> codingPath_;
    std::string description_;
};

}  // namespace tessrakite
