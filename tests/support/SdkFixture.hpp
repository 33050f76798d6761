#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <tessrakite/core/StorageManager.hpp>
#include <tessrakite/platform/headless/HeadlessPlatform.hpp>

#include "FakeBackend.hpp"
#include "TestEnv.hpp"

namespace tessrakite::test {

/// A fresh app for each test: its own TESSRA_HOME and bundle, a headless platform with a
/// manual clock, the deployment hosts pointed at a fake backend, and the console captured.
class SdkFixture : public ::testing::Test {
protected:
    static constexpr double kStartTime = 1'700'000'000.0;  // 2023-11-14 22:13:20 UTC
    static constexpr const char* kApiKey = "demo-key";

    void SetUp() override;
    void TearDown() override;

    /// Pumps the main queue until idle (nothing due, no request in flight).
    void pump(double maxSeconds = 10.0);
    /// Answers for the configuration document and the activity endpoint.
    void serveConfig(Answer answer);
    void serveActivity(Answer answer);
    /// Builds a config (key, analytics, push), initialises and pumps.
    void start(bool analytics = true, bool push = true, std::string apiKey = kApiKey);

    /// Bodies posted to the activity endpoint, parsed.
    std::vector<nlohmann::ordered_json> activityPosts() const;
    std::vector<std::int64_t> activityCodes() const;

    /// Runs the service extension's entry point on a push and, as the system does, delivers
    /// the request with the content its handler got through `centre` (the current
    /// platform's), then pumps. The content the handler got.
    platform::UNMutableNotificationContent receive(const nlohmann::ordered_json& userInfo, const std::string& id,
                                                   std::shared_ptr<platform::UserNotificationCenter> centre = nullptr);
    /// A campaign push's user info: one message `message` titled `title`.
    static nlohmann::ordered_json campaign(const nlohmann::ordered_json& message, const std::string& title = "Sale");
    StorageManager storage() const { return StorageManager(); }

    std::unique_ptr<ScopedHome> home;
    std::unique_ptr<FakeBackend> backend;
    std::unique_ptr<ConsoleCapture> console;
    std::shared_ptr<platform::ManualClock> clock;
    platform::headless::Headless headless;
};

}  // namespace tessrakite::test
