#include <tessrakite/core/DecodingError.hpp>

#include "core/JSONCoding.hpp"

namespace tessrakite {

DecodingError::DecodingError(Kind kind, std::string debugDescription, std::vector<std::string> codingPath)
    : kind_(kind), debugDescription_(std::move(debugDescription)), codingPath_(std::move(codingPath)) {
    describe();
}

void DecodingError::prependKey(std::string key) {
    codingPath_.insert(codingPath_.begin(), std::move(key));
    describe();
}

void DecodingError::prependIndex(std::size_t index) { prependKey("[" + std::to_string(index) + "]"); }

const char* DecodingError::kindName(Kind kind) noexcept {
    switch (kind) {
        case Kind::typeMismatch: return "typeMismatch";
        case Kind::valueNotFound: return "valueNotFound";
        case Kind::keyNotFound: return "keyNotFound";
        case Kind::dataCorrupted: return "dataCorrupted";
    }
    return "dataCorrupted";
}

void DecodingError::describe() { description_ = coding::describeError(kindName(kind_), codingPath_, debugDescription_); }

}  // namespace tessrakite
