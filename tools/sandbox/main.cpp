// tessra-sandbox: a local backend for developing against TessraKite.
// Prints the environment that points the SDK at it, then "# ready", then one JSON line per request.

#include <charconv>
#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include <pthread.h>

#include "Sandbox.hpp"

namespace {

constexpr const char* kUsage =
    "usage: tessra-sandbox [--https-port N] [--http-port N] [--state DIR]\n"
    "  --https-port N  port of the HTTPS side (tracking, configuration, campaigns); default: any free port\n"
    "  --http-port N   port of the HTTP side (ads, images, trackers, crash uploads); default: any free port\n"
    "  --state DIR     folder for the certificate authority, documents and requests.jsonl;\n"
    "                  default: a fresh temporary folder\n";

std::optional<int> parsePort(std::string_view text) {
    int port = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc() || end != text.data() + text.size() || port < 0 || port > 65535) return std::nullopt;
    return port;
}

int usageError(const std::string& message) {
    std::fprintf(stderr, "tessra-sandbox: %s\n%s", message.c_str(), kUsage);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    using tessrakite::sandbox::Options;
    using tessrakite::sandbox::Sandbox;

    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string_view argument = argv[i];
        if (argument == "-h" || argument == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        std::string_view name = argument, value;
        bool hasValue = false;
        if (const auto equals = argument.find('='); argument.starts_with("--") && equals != std::string_view::npos) {
            name = argument.substr(0, equals);
            value = argument.substr(equals + 1);
            hasValue = true;
        }
        if (name != "--https-port" && name != "--http-port" && name != "--state")
            return usageError("unknown option " + std::string(argument));
        if (!hasValue) {
            if (i + 1 >= argc) return usageError(std::string(name) + " needs a value");
            value = argv[++i];
        }
        if (name == "--state") {
            if (value.empty()) return usageError("--state needs a folder");
            options.state = std::string(value);
            continue;
        }
        const std::optional<int> port = parsePort(value);
        if (!port) return usageError(std::string(name) + " needs a port number from 0 to 65535");
        (name == "--https-port" ? options.httpsPort : options.httpPort) = *port;
    }

    // A client hanging up mid-answer must not end the process.
    std::signal(SIGPIPE, SIG_IGN);
    // Shells start background jobs with SIGINT ignored, and an ignored signal never reaches
    // sigwait; restore the defaults, then block them before any thread starts, so that only the
    // sigwait below receives them.
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    try {
        Sandbox sandbox(options);
        sandbox.start();
        for (const std::string& line : sandbox.exportLines()) std::printf("%s\n", line.c_str());
        std::printf("# state %s\n# ready\n", sandbox.state().c_str());
        std::fflush(stdout);

        int received = 0;
        sigwait(&stopSignals, &received);
        sandbox.stop();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tessra-sandbox: %s\n", error.what());
        return 1;
    }
    return 0;
}
