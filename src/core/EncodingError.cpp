#include <tessrakite/core/EncodingError.hpp>

#include "core/JSONCoding.hpp"

namespace tessrakite {

EncodingError::EncodingError(Kind kind, std::string debugDescription, std::vector<std::string> codingPath)
    : kind_(kind), debugDescription_(std::move(debugDescription)), codingPath_(std::move(codingPath)) {
    describe();
}

void EncodingError::prependKey(std::string key) {
    codingPath_.insert(codingPath_.begin(), std::move(key));
    describe();
}

void EncodingError::prependIndex(std::size_t index) { prependKey("[" + std::to_string(index) + "]"); }

void EncodingError::describe() { description_ = coding::describeError("invalidValue", codingPath_, debugDescription_); }

}  // namespace tessrakite
