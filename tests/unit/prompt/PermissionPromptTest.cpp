#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/notification_ui/TessraQuillCustomNotificationView.hpp>
#include <tessrakite/platform/UrlSession.hpp>
#include <tessrakite/platform/ViewController.hpp>
#include <tessrakite/platform/WebView.hpp>
#include <tessrakite/platform/Window.hpp>

#include "SdkFixture.hpp"
#include "notification_ui/CustomPromt.hpp"

namespace tessrakite {
namespace {

using platform::UNAuthorizationStatus;
using Json = nlohmann::ordered_json;

class PermissionPrompt : public test::SdkFixture {
protected:
    void SetUp() override {
        SdkFixture::SetUp();
        headless.effects->setSink([this](const std::string& name, const Json& args) {
            std::lock_guard lock(mutex);
            effects.push_back({{"name", name}, {"args", args}});
        });
        headless.window->setRootViewController(screen);
    }
    void TearDown() override {
        detail::setShouldPresentCustomPromt(false);
        SdkFixture::TearDown();
    }

    /// The user's answer so far, the path switch, then the request as an app makes it.
    void ask(UNAuthorizationStatus status, bool custom) {
        headless.userNotificationCenter->setAuthorizationStatus(status);
        detail::setShouldPresentCustomPromt(custom);
        TessraQuill::askForNotificationPermissionWith(screen);
        pump();
    }
    std::shared_ptr<TessraQuillCustomNotificationView> prompt() const {
        return std::dynamic_pointer_cast<TessraQuillCustomNotificationView>(screen->presentedViewController());
    }
    std::vector<Json> effectsNamed(const std::string& name) {
        std::lock_guard lock(mutex);
        std::vector<Json> out;
        for (const auto& e : effects)
            if (e["name"] == name) out.push_back(e["args"]);
        return out;
    }
    bool registered() const { return headless.application->isRegisteredForRemoteNotifications(); }

    std::shared_ptr<platform::ViewController> screen = std::make_shared<platform::ViewController>();
    std::mutex mutex;
    std::vector<Json> effects;
};

TEST_F(PermissionPrompt, AsksOnlyWhileUndecidedAndBySwitchedPath) {
    struct Case {
        UNAuthorizationStatus status;
        bool custom;
        bool registers;
        bool presents;
    };
    const Case cases[] = {
        {UNAuthorizationStatus::authorized, false, false, false},
        {UNAuthorizationStatus::denied, true, false, false},
        {UNAuthorizationStatus::notDetermined, false, true, false},
        {UNAuthorizationStatus::notDetermined, true, false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.status) * 2 + c.custom);
        headless.application->unregisterForRemoteNotifications();
        if (screen->presentedViewController()) screen->dismiss(false);
        {
            std::lock_guard lock(mutex);
            effects.clear();
        }
        ask(c.status, c.custom);
        EXPECT_EQ(registered(), c.registers);
        ASSERT_EQ(prompt() != nullptr, c.presents);
        if (!c.presents) continue;
        EXPECT_EQ(effectsNamed("present").size(), 1u);
        // The page is the whole screen, see-through.
        EXPECT_EQ(prompt()->view()->frame, headless.window->bounds());
        EXPECT_FALSE(prompt()->webView->isOpaque);
        EXPECT_EQ(effectsNamed("webViewLoad").size(), 1u);
    }
}

TEST_F(PermissionPrompt, EveryAnswerDismissesAndOnlyOkRegisters) {
    struct Case {
        Json body;
        bool registers;
        std::optional<std::string> line;
    };
    const Case cases[] = {
        // What the page's "pns.htmlOK" and "pns.show" listeners post.
        {R"({"event":"pns.ok","data":{"source":"sandbox","n":[1]}})", true, std::nullopt},
        {R"({"event":"pns.ok"})", true, std::nullopt},
        {R"({"event":"pns.dismissed","data":{}})", false,
         R"(CustomPromtEvent(event: Optional("pns.dismissed"), data: Optional(DataClass())))"},
        {R"({})", false, "CustomPromtEvent(event: nil, data: nil)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body.dump());
        headless.application->unregisterForRemoteNotifications();
        console->clear();
        ask(UNAuthorizationStatus::notDetermined, true);
        std::string description;
        {
            auto shown = prompt();
            ASSERT_TRUE(shown);
            description = shown->description();
            EXPECT_TRUE(shown->webView->receiveScriptMessage("JSBridge", c.body));
        }
        pump();
        EXPECT_EQ(screen->presentedViewController(), nullptr);
        EXPECT_EQ(registered(), c.registers);
        if (c.line) {
            EXPECT_TRUE(console->contains(*c.line)) << testing::PrintToString(console->lines());
        }
        // Nothing keeps a dismissed prompt alive, its own page included.
        EXPECT_TRUE(console->contains("❌ Deinited " + description));
    }
}

TEST_F(PermissionPrompt, PageCarriesTheStoredDocumentAsItIsAtEachAppearance) {
    ask(UNAuthorizationStatus::notDetermined, true);
    auto shown = prompt();
    ASSERT_TRUE(shown);
    const auto& scripts = shown->webView->configuration().userContentController->userScripts();
    ASSERT_EQ(scripts.size(), 1u);
    EXPECT_EQ(scripts[0].source.rfind("function log(emoji, type, args)", 0), 0u);
    EXPECT_NE(shown->webView->loadedHTML()->find("<script async src=\"https://" +
                                                 platform::deploymentHost(platform::DeploymentHost::web) +
                                                 "/v2/mobile.js\"></script>"),
              std::string::npos);

    struct Case {
        std::optional<std::string> stored;
        std::string assignment;
    };
    const Case cases[] = {
        {std::nullopt, "var _TXPC = ;"},
        {R"({"url":{"activity":"https:\/\/t.example\/a"},"push_config":{"prompts":[]}})",
         R"(var _TXPC = {"url":{"activity":"https://t.example/a"},"push_config":{"prompts":[]}};)"},
        {R"({"push_config":{"enabled":false}})", R"(var _TXPC = {"push_config":{"enabled":false}};)"},
    };
    std::size_t loads = shown->webView->loadCount();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.assignment);
        if (c.stored)
            storage().set(StorageKey::autoconf, *c.stored);
        else
            storage().defaultStorage->removeObject("tx_autoconf");
        shown->viewDidAppear(false);  // appearing again
        EXPECT_EQ(shown->webView->loadCount(), ++loads);
        EXPECT_NE(shown->webView->loadedHTML()->find(c.assignment), std::string::npos) << *shown->webView->loadedHTML();
        EXPECT_EQ(shown->webView->loadedHTML()->find("AUTOCONF"), std::string::npos);
    }
}

TEST_F(PermissionPrompt, AnUndecodableAnswerIsAFatalStop) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ask(UNAuthorizationStatus::notDetermined, true);
    auto shown = prompt();
    ASSERT_TRUE(shown);
    for (const Json& body : {Json("pns.ok"), Json(R"({"event": 5})"), Json(R"({"data": []})"), Json(7)}) {
        SCOPED_TRACE(body.dump());
        EXPECT_DEATH(shown->userContentController(*shown->webView->configuration().userContentController,
                                                  {"JSBridge", body}),
                     "Fatal error: ");
    }
}

}  // namespace
}  // namespace tessrakite
