#include <tessrakite/platform/Clock.hpp>

#include <chrono>

namespace tessrakite::platform {

double SystemClock::now() const {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

void ManualClock::advance(double seconds) {
    double current = now_.load();
    while (!now_.compare_exchange_weak(current, current + seconds)) {
    }
}

}  // namespace tessrakite::platform
