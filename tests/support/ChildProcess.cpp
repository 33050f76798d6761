#include "ChildProcess.hpp"

#include <csignal>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "TestEnv.hpp"

extern char** environ;

namespace tessrakite::test {

using namespace std::chrono_literals;

ChildProcess::ChildProcess(const std::filesystem::path& binary, const std::vector<std::string>& arguments,
                           const std::map<std::string, std::string>& environment) {
    // The child's environment: ours, with the given entries replaced or added.
    std::map<std::string, std::string> merged;
    for (char** entry = environ; *entry; ++entry) {
        const std::string text = *entry;
        const auto equals = text.find('=');
        if (equals != std::string::npos) merged[text.substr(0, equals)] = text.substr(equals + 1);
    }
    for (const auto& [name, value] : environment) merged[name] = value;
    std::vector<std::string> envText;
    for (const auto& [name, value] : merged) envText.push_back(name + "=" + value);
    std::vector<char*> envp;
    for (auto& text : envText) envp.push_back(text.data());
    envp.push_back(nullptr);

    std::vector<std::string> words{binary.string()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);

    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0) return;
    if (::pipe2(out, O_CLOEXEC) != 0) {
        ::close(in[0]);
        ::close(in[1]);
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    input_ = in[1];
    output_ = out[0];
    reader_ = std::thread([this] { readOutput(); });
}

ChildProcess::~ChildProcess() {
    closeInput();
    if (pid_ > 0 && !exitCode_) stop(SIGKILL, 10s);
    if (reader_.joinable()) reader_.join();
    if (output_ >= 0) ::close(output_);
}

bool ChildProcess::write(const std::string& text) {
    if (input_ < 0) return false;
    // A child that has ended must fail the write, not end the test runner.
    struct sigaction ignore {}, previous {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &ignore, &previous);
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(input_, text.data() + done, text.size() - done);
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    ::sigaction(SIGPIPE, &previous, nullptr);
    return done == text.size();
}

void ChildProcess::closeInput() {
    if (input_ >= 0) ::close(input_);
    input_ = -1;
}

void ChildProcess::readOutput() {
    std::string pending;
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(output_, buffer, sizeof buffer);
        if (n <= 0) break;
        pending.append(buffer, static_cast<std::size_t>(n));
        std::lock_guard lock(mutex_);
        for (auto end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
            lines_.push_back(pending.substr(0, end));
            pending.erase(0, end + 1);
        }
        changed_.notify_all();
    }
    std::lock_guard lock(mutex_);
    if (!pending.empty()) lines_.push_back(pending);
    outputClosed_ = true;
    changed_.notify_all();
}

bool ChildProcess::waitForLine(const std::function<bool(const std::string&)>& match,
                               std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    std::size_t checked = 0;
    bool hit = false;
    changed_.wait_for(lock, timeout, [&] {
        for (; !hit && checked < lines_.size(); ++checked) hit = match(lines_[checked]);
        return hit || outputClosed_;
    });
    return hit;
}

std::vector<std::string> ChildProcess::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
    if (pid_ <= 0) return std::nullopt;
    if (exitCode_) return exitCode_;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    for (;;) {
        const pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done == pid_) break;
        if (done < 0) return std::nullopt;
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, &status, 0);
            exitCode_ = 128 + SIGKILL;
            return std::nullopt;
        }
        std::this_thread::sleep_for(10ms);
    }
    exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    // The child has gone, but its last lines may still be in the pipe: let the reader
    // drain it, so lines() is complete once wait() returns.
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, 5s, [&] { return outputClosed_; });
    return exitCode_;
}

std::optional<int> ChildProcess::stop(int signal, std::chrono::milliseconds timeout) {
    if (pid_ > 0 && !exitCode_) ::kill(pid_, signal);
    return wait(timeout);
}

Sandbox::Sandbox(const std::vector<std::string>& arguments)
    : process_(binary("tessra-sandbox"), [&] {
          auto words = arguments;
          words.insert(words.end(), {"--state", state_.path().string()});
          return words;
      }()) {
    ready_ = process_.waitForLine([](const std::string& line) { return line == "# ready"; }, 60s);
    for (const auto& line : process_.lines()) {
        if (line.rfind("export ", 0) != 0) continue;
        const auto equals = line.find('=');
        std::string value = line.substr(equals + 1);
        if (value.size() >= 2 && value.front() == '\'') value = value.substr(1, value.size() - 2);
        environment_[line.substr(7, equals - 7)] = value;
    }
}

std::string Sandbox::exported(const std::string& name) const {
    const auto found = environment_.find(name);
    return found == environment_.end() ? std::string() : found->second;
}

int Sandbox::port(const std::string& variable) const {
    const std::string host = exported(variable);
    return std::stoi(host.substr(host.rfind(':') + 1));
}

}  // namespace tessrakite::test
