#pragma once
// Internal pieces shared by notification service processing, opens and re-notification.
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <tessrakite/core/StorageManager.hpp>
#include <tessrakite/platform/UserNotificationCenter.hpp>
#include <tessrakite/push/Action.hpp>
#include <tessrakite/push/P.hpp>

namespace tessrakite::detail {

bool pushEnabled();
/// One fire-and-forget GET per URL.
void fireTrackers(const std::optional<std::vector<std::string>>& urls);

/// "Tessra_categ_" and a decimal number of its own: unique per message, across processes.
std::string newCategoryIdentifier();

/// Builds the category `categoryIdentifier` from the buttons of message `id` (saving
/// their URLs under it), registers it and names it on the content.
void addCategory(platform::UNMutableNotificationContent& bestAttemptContent,
                 const std::optional<std::vector<Action>>& actionArray, const std::string& id,
                 const std::string& categoryIdentifier);

/// Fills `content` from a campaign entry as service processing does: sound, title (or
/// "No title"), body, user info = the campaign, conversion and buttons saved under
/// `notificationId`, the category `categoryId`.
void fillFromEntry(platform::UNMutableNotificationContent& content, const P& entry, const PlistDictionary& campaign,
                   const std::string& notificationId, const std::string& categoryId);

/// Attaches the image of `imageUrl` when it passes the URL filter and downloads, then
/// hands the content on (always exactly once, with or without the image).
void attachImageThen(const std::optional<std::string>& imageUrl, platform::UNMutableNotificationContent content,
                     std::function<void(platform::UNMutableNotificationContent)> done);

/// Read-modify-write of one dictionary in the shared suite, in one store transaction;
/// `fn` gets the dictionary (empty when none is stored) and whether one was, and returns
/// whether to store the result. Synchronised afterwards.
void updateDictionary(StorageKey key, const std::function<bool(PlistDictionary&, bool existed)>& fn);

}  // namespace tessrakite::detail
