#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <tessrakite/ads/BannerView.hpp>
#include <tessrakite/ads/TessraAdLoader.hpp>
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
    /// `extension`: the host runs as the app's service extension and never starts the SDK.
    /// `desktop`: the desktop platform (a build with it only) instead of the headless one.
    Host(Output& output, std::string bundleFolder, bool extension = false, bool desktop = false);
    ~Host();

    /// Runs one line; false after "exit".
    bool runLine(const std::string& line);

private:
    using Handler = std::function<Json(const Json& args)>;
    void registerOperations();
    /// The permission prompt's operations: the requests, the path switch, the page.
    void registerPromptOperations();
    /// Administrative pushes and the injected region and beacon events.
    void registerLocationOperations();
    void pump(double maxSeconds = 10.0);
    using ContentHandler = std::function<void(tessrakite::platform::UNNotificationContent)>;
    /// The content handler the platform passes an extension: the content is shown, and
    /// delivered under `identifier` when there is one.
    ContentHandler contentHandler(std::optional<std::string> identifier);
    std::optional<tessrakite::platform::UNNotification> delivered(const std::string& identifier) const;
    /// The delivered notification with `identifier`, or a bare one (that identifier, empty
    /// content) when none is.
    tessrakite::platform::UNNotification deliveredOrBare(const std::string& identifier) const;

    Output& out_;
    // The headless services; with the desktop platform, the ones it keeps.
    tessrakite::platform::headless::Headless headless_;
    std::shared_ptr<tessrakite::platform::Platform> platform_;  // the one the SDK runs on
    std::shared_ptr<class SwitchableClock> clock_;
    std::shared_ptr<class HostDelegate> delegate_;
    std::map<std::string, Handler> operations_;
    std::shared_ptr<tessrakite::TessraConfig> config_;
    std::map<std::string, std::shared_ptr<tessrakite::platform::ViewController>> screens_;
    std::shared_ptr<class HostAdDelegate> adDelegate_;
    // Kept for the process's life, as an app keeps its loaders while their ads show.
    std::vector<std::shared_ptr<tessrakite::TessraAdLoader>> adLoaders_;
    std::shared_ptr<class HostBannerDelegate> bannerDelegate_;
    std::shared_ptr<tessrakite::BannerView> banner_;  // the one banner a script works with
    bool extension_ = false;
    bool running_ = true;
};

}  // namespace tessra_host
