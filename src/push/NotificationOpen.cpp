// What happens when the user opens a notification or taps one of its buttons: the
// conversion trackers are reported and the chosen action's link is opened or handed back.
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/core/TessraRequest.hpp>
#include <tessrakite/platform/Application.hpp>
#include <tessrakite/platform/Platform.hpp>

#include "core/FacadeState.hpp"
#include "push/PushInternal.hpp"

namespace tessrakite {

namespace {

// Removes the notification's entry from a stored dictionary and returns it, in one
// transaction, so two opens at once cannot both find it.
std::optional<PlistValue> takeEntry(StorageKey key, const std::string& notificationId) {
    std::optional<PlistValue> taken;
    detail::updateDictionary(key, [&](PlistDictionary& dictionary, bool existed) {
        if (!existed) return false;
        auto it = dictionary.find(notificationId);
        if (it == dictionary.end()) return false;
        taken = std::move(it->second);
        dictionary.erase(it);
        return true;
    });
    return taken;
}

void callCompletion(const std::function<void(std::optional<std::string>)>& completion,
                    std::optional<std::string> url) {
    if (!completion) return;
    try {
        completion(std::move(url));
    } catch (...) {
        Console::print("pushTrackOpen: the completion threw");
    }
}

}  // namespace

void TessraQuill::saveUrl(const std::optional<Action>& with, const std::string& notificationId) {
    if (!with) return;
    try {
        detail::updateDictionary(StorageKey::url, [&](PlistDictionary& urls, bool) {
            auto& inner = urls[notificationId];
            if (!inner.asDictionary()) inner = PlistValue(PlistDictionary{});
            PlistDictionary actions = *inner.asDictionary();
            actions[with->title] = PlistValue(with->url.value_or(""));
            inner = PlistValue(std::move(actions));
            return true;
        });
    } catch (const std::exception& e) {
        Console::print(std::string("saveUrl failed: ") + e.what());
    }
}

void TessraQuill::saveConversions(const std::optional<Conversion>& with, const std::string& notificationId) {
    if (!with) return;
    try {
        detail::updateDictionary(StorageKey::t, [&](PlistDictionary& trackers, bool) {
            PlistArray list;
            for (const auto& url : with->t.value_or(std::vector<std::string>{})) list.emplace_back(url);
            trackers[notificationId] = PlistValue(std::move(list));
            return true;
        });
        saveUrl(Action{"", platform::UNNotificationDefaultActionIdentifier, with->url}, notificationId);
    } catch (const std::exception& e) {
        Console::print(std::string("saveConversions failed: ") + e.what());
    }
}

void TessraQuill::deletePreviousConversionsWith(const std::string& notificationId) {
    try {
        takeEntry(StorageKey::t, notificationId);
    } catch (const std::exception& e) {
        Console::print(std::string("deletePreviousConversionsWith failed: ") + e.what());
    }
}

void TessraQuill::deletePreviousUrlsWith(const std::string& notificationId) {
    try {
        takeEntry(StorageKey::url, notificationId);
    } catch (const std::exception& e) {
        Console::print(std::string("deletePreviousUrlsWith failed: ") + e.what());
    }
}

void TessraQuill::openDeepOrUrl(const Url& url, const std::optional<std::string>& conversion) {
    const std::string scheme = url.scheme();
    if (scheme == "https" || scheme == "http") {
        platform::currentPlatform()->application->open(url, nullptr);
        if (conversion && Url::parse(*conversion)) tessraRequest().viewTrack(*conversion);
        return;
    }
    // Deep links belong to the app; no conversion hit on this path.
    if (auto delegate = tessraDelegate()) delegate->handleURL(url);
}

void TessraQuill::pushTrackOpen(bool open, const platform::UNNotificationResponse& response,
                                std::function<void(std::optional<std::string>)> completion) {
    std::optional<std::string> handedBack;
    try {
        if (!detail::storedSwitch(storageManager(), StorageKey::push)) {
            // The platform waits for its completion handler; the host's is still called.
            callCompletion(completion, std::nullopt);
            return;
        }
        const auto& request = response.notification.request;
        const std::string& id = request.identifier;
        if (auto trackers = takeEntry(StorageKey::t, id); trackers && trackers->asArray())
            for (const auto& tracker : *trackers->asArray())
                if (const auto* text = tracker.asString()) tessraRequest().viewTrack(*text);

        std::optional<std::string> found;
        if (auto urls = takeEntry(StorageKey::url, id); urls && urls->asDictionary()) {
            const auto& actions = *urls->asDictionary();
            if (auto it = actions.find(response.actionIdentifier); it != actions.end() && it->second.asString())
                found = *it->second.asString();
        }
        if (found) {
            if (!open)
                handedBack = found;
            else if (auto url = Url::parse(*found))
                openDeepOrUrl(*url, std::nullopt);
        }
        if (response.actionIdentifier == platform::UNNotificationDefaultActionIdentifier) renotify(request);
    } catch (const std::exception& e) {
        Console::print(std::string("pushTrackOpen failed: ") + e.what());
    }
    callCompletion(completion, std::move(handedBack));
}

}  // namespace tessrakite
