#pragma once

#include <cstdio>
#include <cstdlib>

namespace fuzz {

/// A broken invariant is a finding: say which and abort, so libFuzzer keeps the input.
inline void check(bool ok, const char* what) {
    if (ok) return;
    std::fprintf(stderr, "broken: %s\n", what);
    std::abort();
}

}  // namespace fuzz
