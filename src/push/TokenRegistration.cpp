// Device token registration: authorization, the delegate, and the user record.
#include <cstdio>

#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/core/TessraRequest.hpp>
#include <tessrakite/platform/Platform.hpp>

#include "core/FacadeState.hpp"

namespace tessrakite {

namespace {

/// Called on the thread of the completion that decides the call (the authorization's or
/// the request's), not on the main queue: the host hears of the result before anything
/// else happens to it.
void onDelegate(const std::function<void(TessraQuillDelegate&)>& call) {
    auto delegate = TessraQuill::tessraDelegate();
    if (!delegate) return;
    try {
        call(*delegate);
    } catch (const std::exception& e) {
        Console::print(std::string("TessraQuillDelegate threw: ") + e.what());
    } catch (...) {
        Console::print("TessraQuillDelegate threw");
    }
}

}  // namespace

std::string TessraQuill::serializeDeviceToken(const Data& deviceToken) {
    std::string text;
    text.reserve(deviceToken.size() * 2);
    char pair[3];
    for (auto byte : deviceToken) {
        // The token's wire format, kept as written; the '0' flag is redundant with the precision.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
        std::snprintf(pair, sizeof pair, "%02.2hhx", byte);
#pragma GCC diagnostic pop
        text += pair;
    }
    return text;
}

void TessraQuill::registerToken(const Data& deviceToken) {
    try {
        const auto token = serializeDeviceToken(deviceToken);
        Console::print(token);
        auto& storage = storageManager();
        if (!detail::storedSwitch(storage, StorageKey::push)) {
            if (storage.wasDisabled() == false) storage.set(StorageKey::wd, true);
            return;
        }
        using namespace platform::UNAuthorizationOptions;
        platform::currentPlatform()->userNotificationCenter->requestAuthorization(
            alert | badge | sound, [token](bool granted, std::optional<std::string>) {
                if (!granted) {
                    tessraSendGeneralActivity(ActivityCode::notificationsRefused);
                    return;
                }
                if (storageManager().getToken() == token) {
                    onDelegate([](TessraQuillDelegate& d) { d.tessraInited(true); });
                    return;
                }
                onDelegate([token](TessraQuillDelegate& d) { d.notificationTokenChanged(token); });
                tessraSendUser(token);
            });
    } catch (const std::exception& e) {
        Console::print(std::string("registerToken failed: ") + e.what());
    }
}

void TessraQuill::tessraSendUser(const std::string& token) {
    detail::onUtilityQueue([token] {
        auto& storage = storageManager();
        auto sessionNumber = storage.getIntFromStorage(StorageKey::sessionNum);
        auto installation = storage.getStringFromStorage(StorageKey::uniqSessionId);
        if (!sessionNumber || !installation) return;
        const auto previous = storage.getToken();
        auto body = PushBody::forToken(token, CS::fromStorage(storage), *installation);
        tessraRequest().sendTessraPushData(body, [token, previous](bool success, const auto&, const auto&) {
            if (!success) {
                onDelegate([](TessraQuillDelegate& d) { d.tessraInited(false); });
                return;
            }
            onDelegate([](TessraQuillDelegate& d) { d.tessraInited(true); });
            auto& store = storageManager();
            // A device that unsubscribed with this token is registered again now.
            if (previous != token && store.getUnsToken() == token) store.remove(StorageKey::unscToken);
            store.set(StorageKey::tok, token);
        });
    });
}

}  // namespace tessrakite
