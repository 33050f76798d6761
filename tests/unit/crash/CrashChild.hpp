#pragma once
// Runs a piece of code in a forked child that is expected to die, bounded in time.

#include <chrono>
#include <functional>
#include <thread>

#include <csignal>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tessrakite::test {

constexpr int kTimedOut = -1;
constexpr int kExited = 1000;  // plus the exit code

/// Forks; the child arms alarm(seconds), turns core dumps off, runs `body` and exits 0 if it
/// returns. The parent waits at most seconds + 5, then kills the child (a handler may block
/// SIGALRM). Returns the signal that ended the child, kExited + its exit code, or kTimedOut.
inline int runInChild(const std::function<void()>& body, unsigned seconds = 10) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(seconds);
        ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
        body();
        ::_exit(0);
    }
    if (pid < 0) return kExited - 1;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds + 5);
    int status = 0;
    while (::waitpid(pid, &status, WNOHANG) != pid) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            return kTimedOut;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    return WIFSIGNALED(status) ? WTERMSIG(status) : kExited + WEXITSTATUS(status);
}

}  // namespace tessrakite::test
