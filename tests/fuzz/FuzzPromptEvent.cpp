// Arbitrary bytes as what the prompt page posts on "JSBridge": through the prompt event's
// decoding and the prompt view's message handler. A finding is a crash, a sanitizer
// report, an exception other than the deliberate fatal stop, a fatal stop for a body that
// decodes (or none for one that does not), an event that does not survive its own JSON
// form, or a registration that does not follow the event's "ok".

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include <tessrakite/core/DecodingError.hpp>
#include <tessrakite/notification_ui/CustomPromtEvent.hpp>
#include <tessrakite/notification_ui/TessraQuillCustomNotificationView.hpp>
#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/headless/HeadlessPlatform.hpp>

#include "platform/FatalStop.hpp"
#include "FuzzCheck.hpp"

namespace {

using namespace tessrakite;
using Json = nlohmann::ordered_json;

using fuzz::check;

// One app for the whole run: a scratch home with a bundle, the headless platform.
platform::headless::Headless& app() {
    static platform::headless::Headless* headless = [] {
        Console::setSink([](std::string_view) {});
        char folder[] = "/tmp/tessra-fuzz-prompt-XXXXXX";
        check(::mkdtemp(folder) != nullptr, "a scratch home");
        ::setenv("TESSRA_HOME", folder, 1);
        const auto bundle = std::filesystem::path(folder) / "Fuzz.app";
        std::filesystem::create_directories(bundle);
        platform::writePropertyList(bundle / "Info.plist",
                                    PlistValue(PlistDictionary{{"CFBundleIdentifier", "com.example.fuzz"}}));
        platform::Bundle::setMain(platform::Bundle::open(bundle));
        auto* h = new platform::headless::Headless(platform::headless::makeHeadlessPlatform());
        platform::setCurrentPlatform(h->platform);
        h->platform->runLoop->adoptCurrentThread();
        return h;
    }();
    return *headless;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto& headless = app();
    const std::string text(reinterpret_cast<const char*>(data), size);

    std::optional<CustomPromtEvent> event;
    try {
        event = CustomPromtEvent::decode(text);
    } catch (const DecodingError&) {
    }
    if (event) {
        const Json encoded = *event;
        check(encoded.get<CustomPromtEvent>() == *event, "an event survives its own JSON form");
        check(!event->description().empty(), "an event describes itself");
    }
#ifndef TESSRA_FATAL_UNWINDS
    // Without unwinding fatal stops, a body that does not decode would end the run by design.
    if (!event) return 0;
#endif

    headless.application->unregisterForRemoteNotifications();
    auto view = std::make_shared<TessraQuillCustomNotificationView>();
    (void)view->view();  // the web view and its channels, as presented
    bool stopped = false;
    try {
        view->userContentController(*view->webView->configuration().userContentController,
                                    {"JSBridge", Json(text)});
    } catch (const FatalStop&) {
        stopped = true;
    }
    check(stopped == !event, "a fatal stop exactly for a body that does not decode");
    headless.platform->runLoop->runOnce();
    const bool ok = event && event->event && event->event->find("ok") != std::string::npos;
    check(headless.application->isRegisteredForRemoteNotifications() == ok, "registration follows \"ok\"");
    return 0;
}
