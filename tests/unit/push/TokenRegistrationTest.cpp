#include <gtest/gtest.h>

#include <mutex>
#include <thread>

#include <tessrakite/core/TessraQuill.hpp>

#include "SdkFixture.hpp"

namespace tessrakite {
namespace {

using test::Answer;
using nlohmann::ordered_json;

struct RecordingDelegate : TessraQuillDelegate {
    void notificationTokenChanged(const std::string& token) override { record("tokenChanged:" + token); }
    void tessraInited(bool inited) override { record(inited ? "inited:true" : "inited:false"); }

    void record(std::string call) {
        std::lock_guard lock(mutex);
        calls.push_back(std::move(call));
        onMainThread.push_back(std::this_thread::get_id() == mainThread);
        storedToken.push_back(StorageManager().getToken().value_or(""));
    }
    std::mutex mutex;
    const std::thread::id mainThread = std::this_thread::get_id();
    std::vector<std::string> calls;
    std::vector<bool> onMainThread;
    std::vector<std::string> storedToken;  // "tx_tok" as the call found it
};

class TokenRegistration : public test::SdkFixture {
protected:
    void SetUp() override {
        SdkFixture::SetUp();
        backend->on("POST", "/v2/users", Answer::json("{}", 201));
        TessraQuill::setTessraDelegate(delegate);
    }
    std::vector<ordered_json> userPosts() const {
        std::vector<ordered_json> out;
        for (const auto& r : backend->requestsTo("/v2/users")) out.push_back(ordered_json::parse(r.body));
        return out;
    }
    void registerToken(const Data& token) {
        TessraQuill::registerToken(token);
        pump();
    }
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    const Data token{0x00, 0xAB, 0x10};
};

TEST(TokenText, IsTwoLowerCaseHexDigitsPerByte) {
    EXPECT_EQ(TessraQuill::serializeDeviceToken({0x00, 0xAB, 0x10}), "00ab10");
    EXPECT_EQ(TessraQuill::serializeDeviceToken({}), "");
}

TEST_F(TokenRegistration, PushDisabledAsksNothingAndSendsNothing) {
    serveConfig(Answer::json(R"({"analytics": true})"));
    start(true, false);
    backend->clearRequests();
    // The "was disabled" mark is set only where one was stored.
    registerToken(token);
    EXPECT_EQ(storage().wasDisabled(), std::nullopt);
    storage().set(StorageKey::wd, false);
    registerToken(token);
    EXPECT_EQ(storage().wasDisabled(), true);
    EXPECT_TRUE(console->contains("00ab10"));
    EXPECT_FALSE(headless.userNotificationCenter->lastAuthorizationOptions().has_value());
    EXPECT_TRUE(backend->requests().empty());
}

TEST_F(TokenRegistration, RefusalIsReportedAsActivity501) {
    start();
    headless.userNotificationCenter->setAuthorizationAnswer(false, platform::UNAuthorizationStatus::denied);
    registerToken(token);
    EXPECT_EQ(activityCodes().back(), 501);
    EXPECT_TRUE(userPosts().empty());
    using namespace platform::UNAuthorizationOptions;
    EXPECT_EQ(headless.userNotificationCenter->lastAuthorizationOptions(), alert | badge | sound);
}

TEST_F(TokenRegistration, AcceptedTokenIsSentOnceAndEndsAnUnsubscription) {
    start();
    storage().set(StorageKey::userId, "u-1");
    storage().set(StorageKey::unscToken, "00ab10");
    registerToken(token);
    registerToken(token);
    auto posts = userPosts();
    ASSERT_EQ(posts.size(), 1u);
    EXPECT_EQ(posts[0]["token"], "00ab10");
    EXPECT_EQ(posts[0]["u"], (ordered_json{{"user_id", "u-1"}}));
    EXPECT_EQ(posts[0]["rid"], storage().getStringFromStorage(StorageKey::uniqSessionId).value());
    EXPECT_FALSE(storage().getUnsToken().has_value());
    std::lock_guard lock(delegate->mutex);
    EXPECT_EQ(delegate->calls, (std::vector<std::string>{"tokenChanged:00ab10", "inited:true", "inited:true"}));
    // Each call comes from the completion that decided it, not from the main queue, and
    // the host hears of the registration before the token is stored.
    EXPECT_EQ(delegate->onMainThread, (std::vector<bool>{false, false, false}));
    EXPECT_EQ(delegate->storedToken, (std::vector<std::string>{"", "", "00ab10"}));
}

TEST_F(TokenRegistration, OnlyA201CountsAsRegistered) {
    start();
    storage().set(StorageKey::tok, "old");
    backend->on("POST", "/v2/users", Answer::json("{}", 200));
    registerToken(token);
    EXPECT_EQ(storage().getToken(), "old");
    {
        std::lock_guard lock(delegate->mutex);
        EXPECT_EQ(delegate->calls.back(), "inited:false");
    }
    registerToken(token);
    EXPECT_EQ(userPosts().size(), 2u);  // sent again at the next registration
}

TEST_F(TokenRegistration, NothingIsSentWithoutASession) {
    start();
    storage().remove(StorageKey::uniqSessionId);
    registerToken(token);
    EXPECT_TRUE(userPosts().empty());
}

}  // namespace
}  // namespace tessrakite
