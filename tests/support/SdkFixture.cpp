#include "SdkFixture.hpp"

#include <cstdlib>
#include <mutex>
#include <optional>

#include <tessrakite/core/TessraBuilder.hpp>
#include <tessrakite/core/TessraQuill.hpp>

#include "core/FacadeState.hpp"

namespace tessrakite::test {

void SdkFixture::SetUp() {
    home = std::make_unique<ScopedHome>();
    installMainBundle(home->path());
    backend = std::make_unique<FakeBackend>();
    ::setenv("TESSRA_TRACKING_HOST", backend->httpsHost().c_str(), 1);
    ::setenv("TESSRA_CDN_HOST", backend->httpsHost().c_str(), 1);
    clock = std::make_shared<platform::ManualClock>(kStartTime);
    headless = platform::headless::makeHeadlessPlatform(
        {clock, platform::makeCurlUrlSession(trustingTestCa())});
    platform::setCurrentPlatform(headless.platform);
    detail::resetFacadeForTesting();
    console = std::make_unique<ConsoleCapture>();
    serveConfig(Answer::json(R"({"analytics": true, "push_config": {"enabled": true}})"));
    serveActivity(Answer::json(R"({"ok": true})", 201));
}

void SdkFixture::TearDown() {
    pump(2.0);
    detail::resetFacadeForTesting();
    console.reset();
    platform::setCurrentPlatform(nullptr);
    headless = {};
    backend.reset();
    ::unsetenv("TESSRA_TRACKING_HOST");
    ::unsetenv("TESSRA_CDN_HOST");
    home.reset();
}

void SdkFixture::pump(double maxSeconds) {
    if (headless.platform) headless.platform->runLoop->runUntilIdle(maxSeconds);
}

void SdkFixture::serveConfig(Answer answer) {
    backend->on("GET", std::string("/tag/") + kApiKey + ".json", std::move(answer));
}

void SdkFixture::serveActivity(Answer answer) { backend->on("POST", "/v2/activity", std::move(answer)); }

void SdkFixture::start(bool analytics, bool push, std::string apiKey) {
    TessraBuilder builder(std::move(apiKey));
    builder.analytics(analytics);
    if (push) builder.push();
    TessraQuill::initialize(builder.build());
    pump();
}

std::vector<nlohmann::ordered_json> SdkFixture::activityPosts() const {
    std::vector<nlohmann::ordered_json> out;
    for (const auto& r : backend->requestsTo("/v2/activity")) out.push_back(nlohmann::ordered_json::parse(r.body));
    return out;
}

std::vector<std::int64_t> SdkFixture::activityCodes() const {
    std::vector<std::int64_t> codes;
    for (const auto& body : activityPosts()) codes.push_back(body["code"].get<std::int64_t>());
    return codes;
}

platform::UNMutableNotificationContent SdkFixture::receive(const nlohmann::ordered_json& userInfo,
                                                          const std::string& id,
                                                          std::shared_ptr<platform::UserNotificationCenter> centre) {
    platform::UNNotificationRequest request;
    request.identifier = id;
    request.content.userInfo = *PlistValue::fromJSON(userInfo).asDictionary();
    std::mutex mutex;
    std::optional<platform::UNMutableNotificationContent> handled;
    TessraQuill::didReceiveNotification(request, request.content, [&](platform::UNMutableNotificationContent content) {
        std::lock_guard lock(mutex);
        handled = std::move(content);
    });
    pump();
    std::lock_guard lock(mutex);
    EXPECT_TRUE(handled) << "the content handler is always called";
    if (!handled) return {};
    request.content = *handled;
    if (!centre) centre = platform::currentPlatform()->userNotificationCenter;
    centre->add(request, nullptr);
    pump();
    return *handled;
}

nlohmann::ordered_json SdkFixture::campaign(const nlohmann::ordered_json& message, const std::string& title) {
    return {{"p", nlohmann::ordered_json::array({{{"o", message}, {"t", title}}})}};
}

}  // namespace tessrakite::test
