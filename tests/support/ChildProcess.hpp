#pragma once

#include <chrono>
#include <csignal>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

#include "TestEnv.hpp"

namespace tessrakite::test {

/// A built tool run as a child process: its stdin is a pipe the test writes to, its stdout
/// lines are collected as they come, its stderr is the test's. Every wait is bounded; a
/// child still running when this object goes away is killed.
class ChildProcess {
public:
    /// `environment` entries are added to (or replace) this process's environment.
    ChildProcess(const std::filesystem::path& binary, const std::vector<std::string>& arguments,
                 const std::map<std::string, std::string>& environment = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Writes to the child's stdin; false once the child stopped reading.
    bool write(const std::string& text);
    /// Closes the child's stdin (end of input).
    void closeInput();

    /// Waits until some stdout line, earlier ones included, matches; false after `timeout`.
    bool waitForLine(const std::function<bool(const std::string&)>& match, std::chrono::milliseconds timeout);
    /// The stdout lines so far, without their line breaks.
    std::vector<std::string> lines() const;

    /// Waits for the end: the exit code, or 128 + signal; nothing when it did not end within
    /// `timeout` (it is then killed).
    std::optional<int> wait(std::chrono::milliseconds timeout);
    /// Sends `signal`, then waits as `wait` does.
    std::optional<int> stop(int signal, std::chrono::milliseconds timeout);

private:
    void readOutput();

    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    std::optional<int> exitCode_;
    std::thread reader_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
    bool outputClosed_ = false;
};

/// tessra-sandbox on free ports with a state folder of its own, stopped with SIGTERM at the end.
/// `environment()` holds the variables it announced before "# ready".
class Sandbox {
public:
    explicit Sandbox(const std::vector<std::string>& arguments = {});
    ~Sandbox() { process_.stop(SIGTERM, std::chrono::seconds(30)); }

    bool ready() const { return ready_; }
    const std::map<std::string, std::string>& environment() const { return environment_; }
    std::string exported(const std::string& name) const;
    /// The port of an announced "127.0.0.1:<port>" host.
    int port(const std::string& variable) const;
    const std::filesystem::path& state() const { return state_.path(); }
    ChildProcess& process() { return process_; }

private:
    TempFolder state_;
    ChildProcess process_;
    bool ready_ = false;
    std::map<std::string, std::string> environment_;
};

}  // namespace tessrakite::test
