// The repeating reminder that invites the user back.
#include <cmath>

#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/platform/Platform.hpp>

#include "core/FacadeState.hpp"
#include "push/PushInternal.hpp"

namespace tessrakite {

namespace {
// One fixed identifier, so that there is only ever one reminder and a new one replaces it.
constexpr const char* kReminderIdentifier = "UUID().uuidString";
constexpr double kMinimumInterval = 60;
// Fixed, so a newer re-notification replaces a pending older one.
constexpr const char* kRenotifyIdentifier = "uniq";
constexpr double kRenotifyDelay = 1.0;
}  // namespace

void TessraQuill::createScheduledNotification(double delay) {
    try {
        auto& storage = storageManager();
        if (!detail::storedSwitch(storage, StorageKey::push)) {
            Console::print("Cannot schedule notifications, please enable push");
            return;
        }
        storage.set(StorageKey::schId, std::string(kReminderIdentifier));
        platform::UNNotificationRequest request;
        request.identifier = kReminderIdentifier;
        request.content.title =
            storage.getStringFromStorage(StorageKey::notificationText).value_or("Hey, we are missing you!");
        request.content.subtitle = "Check our app again.";
        request.content.sound = "default";
        // Below a minute (or not a number of seconds at all) the reminder repeats every minute.
        const double interval = std::isfinite(delay) && delay >= kMinimumInterval ? delay : kMinimumInterval;
        request.trigger = platform::UNTimeIntervalNotificationTrigger{interval, true};
        platform::currentPlatform()->userNotificationCenter->add(std::move(request), nullptr);
    } catch (const std::exception& e) {
        Console::print(std::string("createScheduledNotification failed: ") + e.what());
    }
}

void TessraQuill::cancelScheduledNotifications() {
    try {
        auto& storage = storageManager();
        auto id = storage.getScheduledId();
        if (!id) return;
        storage.remove(StorageKey::schId);
        storage.defaultStorage->synchronize();
        auto center = platform::currentPlatform()->userNotificationCenter;
        center->removeDeliveredNotifications({*id});
        center->removePendingNotificationRequests({*id});
    } catch (const std::exception& e) {
        Console::print(std::string("cancelScheduledNotifications failed: ") + e.what());
    }
}

void TessraQuill::setNotification(const std::string& text) {
    try {
        auto& storage = storageManager();
        storage.set(StorageKey::notificationText, text);
        storage.defaultStorage->synchronize();
    } catch (const std::exception& e) {
        Console::print(std::string("setNotification failed: ") + e.what());
    }
}

void TessraQuill::renotify(const platform::UNNotificationRequest&) {
    try {
        auto& storage = storageManager();
        if (!detail::storedSwitch(storage, StorageKey::mavo)) return;
        auto endpoint = storage.getE();
        if (!endpoint) return;
        tessraRequest().campaignGet(*endpoint, [](std::optional<PCampaignObject> campaign) {
            if (!campaign || campaign->p.empty()) return;
            try {
                const P& entry = campaign->p.front();
                platform::UNMutableNotificationContent content;
                detail::fillFromEntry(content, entry, campaign->dictionary(), kRenotifyIdentifier,
                                      detail::newCategoryIdentifier());
                detail::attachImageThen(entry.o.image, std::move(content),
                                        [](platform::UNMutableNotificationContent filled) {
                                            platform::UNNotificationRequest again;
                                            again.identifier = kRenotifyIdentifier;
                                            again.content = std::move(filled);
                                            again.trigger = platform::UNTimeIntervalNotificationTrigger{kRenotifyDelay, false};
                                            platform::currentPlatform()->userNotificationCenter->add(std::move(again),
                                                                                                    nullptr);
                                        });
            } catch (const std::exception& e) {
                Console::print(std::string("renotify failed: ") + e.what());
            }
        });
    } catch (const std::exception& e) {
        Console::print(std::string("renotify failed: ") + e.what());
    }
}

}  // namespace tessrakite
