#pragma once

#include <cstddef>
#include <exception>
#include <string>
#include <vector>

#include <tessrakite/Export.hpp>

namespace tessrakite {

/// A value that has no JSON form (a `JSONAny` holding a date, a non-finite number), and
/// where it was met.
class TESSRA_EXPORT EncodingError : public std::exception {
public:
    enum class Kind { invalidValue };

    EncodingError(Kind kind, std::string debugDescription, std::vector<std::string> codingPath = {});

    Kind kind() const noexcept { return kind_; }
    /// From the encoded root down to the failing value: keys, and "[N]" for an array position.
    const std::vector<std::string>& codingPath() const noexcept { return codingPath_; }
    const std::string& debugDescription() const noexcept { return debugDescription_; }
    /// One line for the console: the kind, the coding path and the description.
    const std::string& description() const noexcept { return description_; }
    const char* what() const noexcept override { return description_.c_str(); }

    // Called while the error leaves a container, so that the path reads from the root.
    void prependKey(std::string key);
    void prependIndex(std::size_t index);

private:
    void describe();

    Kind kind_;
    std::string debugDescription_;
    std::vector<std::string> codingPath_;
    std::string description_;
};

}  // namespace tessrakite
