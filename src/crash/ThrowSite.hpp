#pragma once
// Where C++ exceptions were thrown. The library exports its own __cxa_throw, which every
// throw in the process reaches when the library comes before the C++ runtime in the
// symbol search order (the usual case for a host linked against it). While capture is
// on, it keeps the stack of the latest throw of each thread, then calls the runtime's.

#include <exception>

namespace tessrakite::crash {

/// Turns capture on or off for all threads. Off, a throw costs one atomic load more.
void captureThrowSites(bool on);

/// Copies the stack captured at the throw of `exception` on this thread into `frames`
/// and returns the number of frames; 0 when that throw was not captured here. Entry 0 is
/// the capturing frame, entry 1 the function that threw.
int throwSiteFrames(const std::exception_ptr& exception, void** frames, int capacity);

}  // namespace tessrakite::crash
