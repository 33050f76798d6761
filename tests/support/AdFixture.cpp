#include "AdFixture.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <utility>

#include <tessrakite/core/TessraBuilder.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/platform/Image.hpp>

namespace tessrakite::test {

void CallLog::note(const std::string& what) {
    const bool main = platform::currentPlatform()->mainQueue().isMainThread();
    std::lock_guard lock(mutex);
    calls.push_back(what + (main ? "@main" : "@session"));
}

std::vector<std::string> CallLog::taken() {
    std::lock_guard lock(mutex);
    return std::exchange(calls, {});
}

void AdFixture::SetUp() {
    SdkFixture::SetUp();
    installMainBundle(home->path(), "com.example.sample", {{"TessraQuillTrackID", PlistValue("track-1")}});
    ::setenv("TESSRA_AD_HOST", backend->httpHost().c_str(), 1);
    backend->on("GET", "/t/*", Answer::withStatus(204));
}

void AdFixture::TearDown() {
    headless.effects->setSink(nullptr);
    SdkFixture::TearDown();
    ::unsetenv("TESSRA_AD_HOST");
}

void AdFixture::startWithAds(bool mavo) {
    TessraBuilder builder{std::string(kApiKey)};
    if (mavo) builder.mavo();
    TessraQuill::initialize(builder.analytics(false).build());
    pump();
    backend->clearRequests();
}

AdFixture::Json AdFixture::feed(const Json& md) {
    return {{"items", Json::array({{{"md", md}}})}, {"session_id", "s-1"}};
}

void AdFixture::serveFeed(const Json& md) { backend->on("GET", kFeedPath, Answer::json(feed(md).dump())); }

std::vector<std::string> AdFixture::trackerHits() const {
    std::vector<std::string> hits;
    for (const auto& r : backend->requests())
        if (r.path.rfind("/t/", 0) == 0) hits.push_back(r.target());
    return hits;
}

std::string AdFixture::pngBytes() const {
    std::shared_ptr<std::uint8_t> pixels(new std::uint8_t[3 * 2 * 4], std::default_delete<std::uint8_t[]>());
    std::fill_n(pixels.get(), 3 * 2 * 4, std::uint8_t{200});
    const auto file = home->path() / "ad.png";
    EXPECT_FALSE(platform::Image(3, 2, pixels).writePNG(file));
    return readFile(file);
}

}  // namespace tessrakite::test
