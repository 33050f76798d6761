#pragma once

#include <string>

namespace tessrakite {

/// Fuzz builds only (TESSRA_FATAL_UNWINDS): fatalError throws this instead of aborting,
/// so a fuzz target can count a deliberate stop as an expected outcome and only real
/// crashes as findings. Every other build aborts.
struct FatalStop {
    std::string message;
};

}  // namespace tessrakite
