#pragma once

#include <cstddef>

namespace tessrakite::crash {

/// The size of every alternate signal stack the SDK installs.
inline constexpr std::size_t kAlternateStackSize = 0x10000;

/// Allocates an alternate signal stack for the calling thread and registers it; the
/// memory is never freed (the logger's own stack). False when sigaltstack fails.
bool installPermanentAlternateStack();

/// Gives an SDK-owned thread its own alternate stack for its lifetime, so that a stack
/// overflow there still reaches the crash handler. Does nothing when the thread already
/// has one. Create it first thing in the thread's function.
class ThreadAlternateStack {
public:
    ThreadAlternateStack();
    ~ThreadAlternateStack();
    ThreadAlternateStack(const ThreadAlternateStack&) = delete;
    ThreadAlternateStack& operator=(const ThreadAlternateStack&) = delete;

private:
    void* memory_ = nullptr;
};

}  // namespace tessrakite::crash
