#pragma once
// Everything the sample host writes goes out as JSON lines, in the order it happens.

#include <cstdio>
#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

namespace tessra_host {

class Output {
public:
    void write(const nlohmann::ordered_json& line) {
        std::string text = line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
        text.push_back('\n');
        std::lock_guard lock(mutex_);
        std::fwrite(text.data(), 1, text.size(), stdout);
        std::fflush(stdout);
    }

private:
    std::mutex mutex_;
};

}  // namespace tessra_host
