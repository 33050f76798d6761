#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "SdkFixture.hpp"

namespace tessrakite::test {

/// Delegate calls as lines, each tagged with the thread it came on ("@main" or "@session").
struct CallLog {
    void note(const std::string& what);
    /// The calls heard since the last look.
    std::vector<std::string> taken();

    std::mutex mutex;
    std::vector<std::string> calls;
};

/// An app whose bundle has a track ID, with the ad host and the trackers on the fake backend.
class AdFixture : public SdkFixture {
protected:
    using Json = nlohmann::ordered_json;
    static constexpr const char* kFeedPath = "/v1/display/track-1";

    void SetUp() override;
    void TearDown() override;

    /// Starts the SDK with ads (unless `mavo` is false) and forgets the start-up requests.
    void startWithAds(bool mavo = true);
    /// A feed answer whose one item has `md`, and serving it.
    static Json feed(const Json& md);
    void serveFeed(const Json& md);
    /// Requests to the trackers ("/t/..."), path and query.
    std::vector<std::string> trackerHits() const;
    /// A 3 x 2 PNG as the platform writes it.
    std::string pngBytes() const;
};

}  // namespace tessrakite::test
