#pragma once

#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

#include <tessrakite/core/TessraConfig.hpp>
#include <tessrakite/platform/headless/HeadlessPlatform.hpp>
#include <tessrakite/platform/ViewController.hpp>

#include "HostOutput.hpp"

namespace tessra_host {

using Json = nlohmann::ordered_json;

/// A bad argument of an operation; answered with an error line.
struct BadArguments : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The sample host app: a headless platform, a delegate, and one handler per operation.
class Host {
public:
    Host(Output& output, std::string bundleFolder);
    ~Host();

    /// Runs one line; false after "exit".
    bool runLine(const std::string& line);

private:
    using Handler = std::function<Json(const Json& args)>;
    void registerOperations();
    void pump(double maxSeconds = 10.0);

    Output& out_;
    tessrakite::platform::headless::Headless headless_;
    std::shared_ptr<class SwitchableClock> clock_;
    std::shared_ptr<class HostDelegate> delegate_;
    std::map<std::string, Handler> operations_;
    std::shared_ptr<tessrakite::TessraConfig> config_;
    std::map<std::string, std::unique_ptr<tessrakite::platform::ViewController>> screens_;
    bool running_ = true;
};

}  // namespace tessra_host
