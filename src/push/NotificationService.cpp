// What the app's service extension asks of the SDK: filling an incoming push before it is
// shown, the badge counter, the content size, images and tag replacement.
#include <algorithm>
#include <limits>
#include <random>

#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/core/TessraRequest.hpp>
#include <tessrakite/platform/Application.hpp>
#include <tessrakite/platform/Image.hpp>
#include <tessrakite/platform/Platform.hpp>

#include "core/FacadeState.hpp"
#include "push/PushInternal.hpp"

namespace tessrakite {

using platform::UNMutableNotificationContent;
using platform::UNNotificationRequest;

namespace detail {

namespace {

bool startsWith(const std::string& s, std::string_view prefix) { return s.compare(0, prefix.size(), prefix) == 0; }
bool endsWith(const std::string& s, std::string_view suffix) {
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Case-sensitive on purpose: "HTTP://" or ".JPG" are not taken.
bool usableImageUrl(const std::string& text) {
    return startsWith(text, "http") && (endsWith(text, ".jpeg") || endsWith(text, ".jpg") || endsWith(text, ".png"));
}

}  // namespace

bool pushEnabled() { return storedSwitch(TessraQuill::storageManager(), StorageKey::push); }

void fireTrackers(const std::optional<std::vector<std::string>>& urls) {
    if (!urls) return;
    for (const auto& url : *urls) TessraQuill::tessraRequest().viewTrack(url);
}

std::string newCategoryIdentifier() {
    // Extension processes each start from scratch, so a per-process counter would repeat
    // across them; a random 62-bit number does not in any realistic lifetime.
    static std::mutex mutex;
    static std::mt19937_64 generator{std::random_device{}()};
    std::lock_guard lock(mutex);
    return "Tessra_categ_" + std::to_string(generator() >> 2);
}

void updateDictionary(StorageKey key, const std::function<bool(PlistDictionary&, bool existed)>& fn) {
    auto& storage = TessraQuill::storageManager();
    storage.update(key, [&](std::optional<PlistValue> current) -> std::optional<PlistValue> {
        const PlistDictionary* stored = current ? current->asDictionary() : nullptr;
        PlistDictionary dictionary = stored ? *stored : PlistDictionary{};
        if (!fn(dictionary, stored != nullptr)) return current;
        return PlistValue(std::move(dictionary));
    });
    storage.defaultStorage->synchronize();
}

void fillFromEntry(UNMutableNotificationContent& content, const P& entry, const PlistDictionary& campaign,
                   const std::string& notificationId, const std::string& categoryId) {
    content.categoryIdentifier = categoryId;
    TessraQuill::setSoundFor(content, entry.o);
    content.title = entry.t.value_or("No title");
    if (entry.o.body) content.body = *entry.o.body;
    content.userInfo = campaign;
    TessraQuill::saveConversions(entry.o.data, notificationId);
    addCategory(content, entry.o.actions, notificationId, categoryId);
}

void attachImageThen(const std::optional<std::string>& imageUrl, UNMutableNotificationContent content,
                     std::function<void(UNMutableNotificationContent)> done) {
    if (!imageUrl || !usableImageUrl(*imageUrl)) return done(std::move(content));
    auto url = Url::parse(*imageUrl);
    if (!url) {
        Console::print("URL is not valid");
        return done(std::move(content));
    }
    // Exactly one of the two callbacks runs, so `done` runs once.
    auto shared = std::make_shared<UNMutableNotificationContent>(std::move(content));
    TessraQuill::downloadImage(
        url,
        [shared, done](std::shared_ptr<platform::Image> image) {
            if (!image) return done(std::move(*shared));
            // Encoding a photo-sized PNG takes a while: keep it off the main queue.
            onUtilityQueue([shared, done, image] {
                if (auto attachment = platform::UNNotificationAttachment::create("id", *image, {}))
                    shared->attachments = {std::move(*attachment)};
                done(std::move(*shared));
            });
        },
        [shared, done](const std::string& message) {
            Console::print(message);
            done(std::move(*shared));
        });
}

}  // namespace detail

namespace {

// Calls the content handler without letting a host exception into the SDK's threads.
void handOver(const TessraQuill::ContentHandler& completion, UNMutableNotificationContent content) {
    if (!completion) return;
    try {
        completion(std::move(content));
    } catch (const std::exception& e) {
        Console::print(std::string("TessraQuill: the content handler threw: ") + e.what());
    } catch (...) {
        Console::print("TessraQuill: the content handler threw");
    }
}

void fillFromCampaign(const PCampaignObject& campaign, const UNNotificationRequest& request,
                      UNMutableNotificationContent best, const std::string& categoryId,
                      const TessraQuill::ContentHandler& completion) {
    if (campaign.p.empty()) return handOver(completion, std::move(best));
    // One notification shows one message: the first entry fills it.
    const P& entry = campaign.p.front();
    detail::fillFromEntry(best, entry, campaign.dictionary(), request.identifier, categoryId);
    detail::fireTrackers(entry.i);
    TessraQuill::checkTagAnddeletePreviousMessagesWith(entry.o.tag, request.identifier);
    detail::attachImageThen(entry.o.image, std::move(best),
                            [completion](UNMutableNotificationContent content) { handOver(completion, std::move(content)); });
}

}  // namespace

std::optional<std::string> TessraQuill::didReceiveNotification(const UNNotificationRequest& request,
                                                               UNMutableNotificationContent best,
                                                               ContentHandler completion) {
    try {
        if (!detail::pushEnabled()) {
            handOver(completion, std::move(best));
            return std::nullopt;
        }
        cleanOldData(request);
        auto parsed = parsePushObj(request.content.userInfo);
        if (!parsed) {
            handOver(completion, std::move(best));
            return std::nullopt;
        }
        const std::string categoryId = detail::newCategoryIdentifier();
        if (auto* campaign = std::get_if<PCampaignObject>(&*parsed)) {
            fillFromCampaign(*campaign, request, std::move(best), categoryId, completion);
            return categoryId;
        }
        const NotificationBody& alert = std::get<PushObj>(*parsed).aps.notificationBody;
        if (alert.e) {
            storageManager().defaultStorage->update(
                {detail::storageKey(StorageKey::mavo), detail::storageKey(StorageKey::eEndpoint)},
                [&](platform::UserDefaults::Values& values) {
                    values[detail::storageKey(StorageKey::mavo)] = PlistValue(alert.mavo.value_or(false));
                    values[detail::storageKey(StorageKey::eEndpoint)] = PlistValue(*alert.e);
                });
            storageManager().defaultStorage->synchronize();
            auto shared = std::make_shared<UNMutableNotificationContent>(std::move(best));
            tessraRequest().campaignGet(*alert.e, [request, shared, categoryId,
                                                   completion](std::optional<PCampaignObject> campaign) {
                // A fetch that failed still shows the push as it came.
                if (!campaign) return handOver(completion, std::move(*shared));
                fillFromCampaign(*campaign, request, std::move(*shared), categoryId, completion);
            });
            return categoryId;
        }
        const N message = alert.n.value_or(N{});
        setSoundFor(best, message);
        best.title = alert.title;
        if (message.body) best.body = *message.body;
        detail::fireTrackers(alert.t);
        saveConversions(message.data, request.identifier);
        detail::addCategory(best, message.actions, request.identifier, categoryId);
        detail::attachImageThen(message.image, std::move(best), [completion](UNMutableNotificationContent content) {
            handOver(completion, std::move(content));
        });
        return categoryId;
    } catch (const std::exception& e) {
        Console::print(std::string("didReceiveNotification failed: ") + e.what());
        handOver(completion, std::move(best));
        return std::nullopt;
    }
}

void TessraQuill::notificationBuilderWillTerminate(const PlistDictionary&, UNMutableNotificationContent best,
                                                   ContentHandler completion) {
    try {
        if (detail::pushEnabled()) handOver(completion, std::move(best));
    } catch (const std::exception& e) {
        Console::print(std::string("notificationBuilderWillTerminate failed: ") + e.what());
    }
}

namespace {

void showBadge(UNMutableNotificationContent* content, std::int64_t value) {
    if (content)
        content->badge = value;
    else
        platform::currentPlatform()->application->setApplicationIconBadgeNumber(value);
}

// Adds `delta` to "tx_badge" in one transaction; nothing when `onlyIfStored` and none is
// stored. The counter saturates instead of wrapping.
std::optional<std::int64_t> moveBadge(std::int64_t delta, bool onlyIfStored) {
    std::optional<std::int64_t> result;
    auto& storage = TessraQuill::storageManager();
    storage.update(StorageKey::badge, [&](std::optional<PlistValue> current) -> std::optional<PlistValue> {
        const std::int64_t* stored = current ? current->asInteger() : nullptr;
        if (!stored) {
            if (onlyIfStored) return current;
            result = 1;
        } else {
            std::int64_t sum;
            if (__builtin_add_overflow(*stored, delta, &sum))
                sum = delta > 0 ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min();
            result = sum;
        }
        return PlistValue(*result);
    });
    storage.defaultStorage->synchronize();
    return result;
}

}  // namespace

void TessraQuill::addNotificationCount(UNMutableNotificationContent* forNotif) {
    try {
        if (!detail::pushEnabled()) return;
        if (auto value = moveBadge(+1, false)) showBadge(forNotif, *value);
    } catch (const std::exception& e) {
        Console::print(std::string("addNotificationCount failed: ") + e.what());
    }
}

void TessraQuill::decreseNotificationCount(UNMutableNotificationContent* forNotif) {
    try {
        if (!detail::pushEnabled()) return;
        if (auto value = moveBadge(-1, true)) showBadge(forNotif, *value);
    } catch (const std::exception& e) {
        Console::print(std::string("decreseNotificationCount failed: ") + e.what());
    }
}

void TessraQuill::setAppBadge(std::int64_t value) {
    try {
        if (!detail::pushEnabled()) return;
        platform::currentPlatform()->application->setApplicationIconBadgeNumber(value);
        storageManager().set(StorageKey::badge, value);
        storageManager().defaultStorage->synchronize();
    } catch (const std::exception& e) {
        Console::print(std::string("setAppBadge failed: ") + e.what());
    }
}

platform::Size TessraQuill::getPreferedContentSize(const platform::UNNotification& with) {
    const double width = platform::currentPlatform()->screen->bounds().width;
    auto messages = getNotificationContent(with.request.content.userInfo, with.request);
    // A notification without any message gets the default size rather than a crash.
    if (messages && !messages->notification.empty() && messages->notification.front().el == 3) return {width, 120};
    return {width, width * 0.8};
}

void TessraQuill::downloadImage(const std::optional<Url>& from,
                                std::function<void(std::shared_ptr<platform::Image>)> success,
                                std::function<void(std::string)> failure) {
    auto fail = [failure] {
        if (failure) failure("Image can't be downloaded");
    };
    if (!from) return fail();
    Console::print("Download Started");
    platform::UrlRequest request(*from);
    auto platform = platform::currentPlatform();
    platform->urlSession->dataTask(std::move(request), [success, fail](const platform::UrlResult& result) {
        if (!result.data || result.data->empty()) return fail();
        // Decoding a photo takes tens of milliseconds: not on the session's one thread,
        // where it would hold up every other exchange.
        detail::onUtilityQueue([data = *result.data, success, fail] {
            auto image = platform::Image::decode(data);
            if (!image) return fail();
            Console::print("Download Finished");
            platform::currentPlatform()->runLoop->async([success, image] {
                if (success) success(image);
            });
        });
    });
}

void TessraQuill::setSoundFor(UNMutableNotificationContent& notification, const N& with) {
    if (with.silent.value_or(false))
        notification.sound.reset();
    else if (!with.sound)
        notification.sound = "default";
    else
        notification.sound = *with.sound + ".wav";  // always appended, even to "x.wav"
}

void TessraQuill::checkTagAnddeletePreviousMessagesWith(const std::optional<std::string>& tag,
                                                        const std::string& norificationId) {
    if (!tag) return;
    try {
        std::vector<std::string> previous;
        detail::updateDictionary(StorageKey::tags, [&](PlistDictionary& tags, bool) {
            if (auto it = tags.find(*tag); it != tags.end()) {
                if (const auto* list = it->second.asArray())
                    for (const auto& id : *list)
                        if (const auto* text = id.asString()) previous.push_back(*text);
            }
            tags[*tag] = PlistValue(PlistArray{PlistValue(norificationId)});
            return true;
        });
        if (!previous.empty())
            platform::currentPlatform()->userNotificationCenter->removeDeliveredNotifications(previous);
    } catch (const std::exception& e) {
        Console::print(std::string("checkTagAnddeletePreviousMessagesWith failed: ") + e.what());
    }
}

void TessraQuill::cleanOldData(const UNNotificationRequest& withNew) {
    try {
        auto center = platform::currentPlatform()->userNotificationCenter;
        center->getDeliveredNotifications([keepAlso = withNew.identifier](std::vector<platform::UNNotification> list) {
            try {
                std::vector<std::string> keep{keepAlso};
                for (const auto& n : list) keep.push_back(n.request.identifier);
                detail::updateDictionary(StorageKey::url, [&](PlistDictionary& urls, bool existed) {
                    if (!existed) return false;
                    std::erase_if(urls, [&](const auto& entry) {
                        return std::find(keep.begin(), keep.end(), entry.first) == keep.end();
                    });
                    return true;
                });
            } catch (const std::exception& e) {
                Console::print(std::string("cleanOldData failed: ") + e.what());
            }
        });
    } catch (const std::exception& e) {
        Console::print(std::string("cleanOldData failed: ") + e.what());
    }
}

}  // namespace tessrakite
