#pragma once
// Runs a piece of code in a forked child that is expected to die, bounded in time.

#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <csignal>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tessrakite::test {

struct ChildOutcome {
    bool timedOut = false;
    bool signaled = false;
    int signal = 0;
    bool exited = false;
    int exitCode = 0;
};

inline std::string describe(const ChildOutcome& o) {
    if (o.timedOut) return "timed out";
    if (o.signaled) return std::string("killed by signal ") + std::to_string(o.signal);
    if (o.exited) return "exited with " + std::to_string(o.exitCode);
    return "unknown";
}

/// Forks; the child arms alarm(seconds), turns core dumps off, runs `body` and exits 0
/// if it returns. The parent waits at most seconds + 5 and then kills the child.
inline ChildOutcome runInChild(const std::function<void()>& body, unsigned seconds = 10) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(seconds);
        ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
        body();
        ::_exit(0);
    }
    ChildOutcome outcome;
    if (pid < 0) {
        outcome.exited = true;
        outcome.exitCode = -1;
        return outcome;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds + 5);
    int status = 0;
    for (;;) {
        const pid_t r = ::waitpid(pid, &status, WNOHANG);
        if (r == pid) break;
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            outcome.timedOut = true;
            return outcome;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    if (WIFSIGNALED(status)) {
        outcome.signaled = true;
        outcome.signal = WTERMSIG(status);
    } else if (WIFEXITED(status)) {
        outcome.exited = true;
        outcome.exitCode = WEXITSTATUS(status);
    }
    return outcome;
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

inline std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::string::size_type start = 0;
    for (;;) {
        auto nl = text.find('\n', start);
        if (nl == std::string::npos) {
            lines.push_back(text.substr(start));
            return lines;
        }
        lines.push_back(text.substr(start, nl - start));
        start = nl + 1;
    }
}

}  // namespace tessrakite::test
