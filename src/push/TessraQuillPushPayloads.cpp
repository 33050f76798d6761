// The push-payload entry points of the facade.

#include <tessrakite/core/TessraQuill.hpp>

#include <string>
#include <string_view>

#include <tessrakite/platform/Console.hpp>

#include "core/JSONCoding.hpp"

namespace tessrakite {

std::optional<std::variant<PushObj, PCampaignObject>> TessraQuill::parsePushObj(const PlistDictionary& userInfo) {
    try {
        if (!coding::isValidJSONObject(userInfo)) return std::nullopt;
        coding::Json data;
        try {
            data = coding::serialize(userInfo);
        } catch (const std::exception& error) {
            Console::print("JSON serialization failed", error.what());
            return std::nullopt;
        }
        try {
            PushObj push;
            from_json(data, push);
            return push;
        } catch (const DecodingError&) {
            Console::print("PUSH OBJECT FAILED");
        }
        try {
            PCampaignObject campaign;
            from_json(data, campaign);
            return campaign;
        } catch (const DecodingError&) {
            Console::print("PUSH PCampaignObj OBJECT FAILED");
        }
    } catch (...) {
        // Nothing may reach the host; out of memory is the only way here.
    }
    return std::nullopt;
}

std::shared_ptr<NotificationObject> TessraQuill::getNotificationContent(const PlistDictionary& /*userInfo*/,
                                                                        const platform::UNNotificationRequest& request) {
    try {
        const auto& userInfo = request.content.userInfo;
        if (!coding::isValidJSONObject(userInfo)) return nullptr;
        coding::Json data;
        try {
            data = coding::serialize(userInfo);
        } catch (const std::exception& error) {
            Console::print("JSON serialization failed ", error.what());
            return nullptr;
        }
        std::optional<PushObj> push;
        try {
            from_json(data, push.emplace());
        } catch (const DecodingError& error) {
            push.reset();
            Console::print("Push Object failed ", error.description());
        }
        std::optional<PCampaignObject> campaign;
        try {
            from_json(data, campaign.emplace());
        } catch (const DecodingError& error) {
            campaign.reset();
            Console::print("Push Campaign object failed ", error.description());
        }
        // The campaign shape wins here: the content extension shows all its entries.
        auto content = std::make_shared<NotificationObject>();
        if (campaign) {
            content->notification.reserve(campaign->p.size());
            for (const auto& entry : campaign->p) content->notification.emplace_back(entry, request.identifier);
        } else if (push) {
            content->notification.emplace_back(push->aps, request.identifier);
        }
        return content;
    } catch (...) {
        // Nothing may reach the host; out of memory is the only way here.
    }
    return nullptr;
}

}  // namespace tessrakite
