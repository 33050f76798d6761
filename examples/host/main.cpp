// The smallest host: links the installed SDK and uses its platform layer.
#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/MainQueue.hpp>
#include <tessrakite/platform/Platform.hpp>

#include <cstdio>

int main() {
    bool ran = false;
    tessrakite::platform::RunLoop::main().async([&ran] { ran = true; });
    tessrakite::platform::RunLoop::main().runUntilIdle(5.0);
    tessrakite::Console::print(ran ? "example host: main queue ran" : "example host: main queue did not run");
    return ran ? 0 : 1;
}
