// Activity reports: installation, opens, screen views, numbered activities, custom events.
#include <tessrakite/core/TessraQuill.hpp>

#include "core/FacadeState.hpp"

namespace tessrakite {

using detail::facade;
using nlohmann::ordered_json;

namespace {

bool analyticsOn() { return detail::storedSwitch(TessraQuill::storageManager(), StorageKey::analytics); }

CS currentSession() { return CS::fromStorage(TessraQuill::storageManager()); }

/// The stored campaign parameters with the given ones merged over them.
ordered_json campaignParameters(const std::map<std::string, std::string>& utm) {
    auto merged = TessraQuill::storageManager().getArayOfStringDictsFromStorage(StorageKey::utm).value_or(
        std::map<std::string, std::string>{});
    for (const auto& [k, v] : utm) merged[k] = v;
    ordered_json e = ordered_json::object();
    for (const auto& [k, v] : merged) e[k] = v;
    return e;
}

bool isCreated(const std::optional<platform::HttpResponse>& response) {
    return response && response->statusCode == 201;
}

}  // namespace

void TessraQuill::installOpenActivity(const std::map<std::string, std::string>& utm) {
    if (!detail::storedSwitch(storageManager(), StorageKey::reg)) {
        Console::print("ENTER INSTALL ACTIVITY");
        tessraSendActivity(ActivityCode::install, utm);
    } else {
        tessraSendActivity(ActivityCode::open, utm);
        Console::print("ENTER OPEN ACTIVITY");
    }
}

void TessraQuill::tessraSendActivity(std::int64_t code, const std::map<std::string, std::string>& utm) {
    if (!analyticsOn()) return;
    ActivityBody body(code, code == ActivityCode::install ? "install" : "open", currentSession());
    body.e = campaignParameters(utm);
    if (code == ActivityCode::install) {
        tessraRequest().sendTessraActivityInstall(body, [utm](const auto& response, const auto& error) {
            if (!isCreated(response)) {
                Console::print(error ? error->localizedDescription() : std::string("error Install code"));
                return;
            }
            auto& defaults = *storageManager().defaultStorage;
            defaults.set(rawValue(StorageKey::reg), PlistValue(true));
            defaults.synchronize();
            Console::print("INSTALL SENT ", std::to_string(response->statusCode));
            tessraSendActivity(ActivityCode::open, utm);
        });
        return;
    }
    tessraRequest().sendTessraActivityOpen(body, [](const auto& response, const auto&) {
        if (!isCreated(response)) Console::print("error from activity open");
    });
}

void TessraQuill::tessraSendGeneralActivity(std::int64_t code) {
    if (!analyticsOn()) return;
    detail::onUtilityQueue([code] {
        ActivityBody body(code, "activity", currentSession());
        tessraRequest().sendTessraActivity(body, nullptr);
    });
}

void TessraQuill::tessraSendActivitySwizzle(std::int64_t code, const std::string& page) {
    if (!detail::checkInitialized()) return;
    if (!analyticsOn()) return;  // no report of any kind while analytics is off
    {
        std::lock_guard lock(facade().mutex);
        facade().referrerPage = std::exchange(facade().currentPage, page);
    }
    // Screens appear on the main thread: the count, the body and the post happen off it.
    detail::onUtilityQueue([code, page] {
        storageManager().increment(StorageKey::visitedPCount);
        ActivityBody body(code, page, currentSession());
        tessraRequest().sendTessraActivityOpen(body, nullptr);
    });
}

void TessraQuill::sendCustomEvent(const std::string& key, const PlistValue& value) {
    try {
        if (!analyticsOn()) return;
        // A dictionary goes as it is; any other value is wrapped so the event still has one.
        // Converted straight from `value`: a copy of a deep tree would recurse before toJSON
        // could refuse it.
        auto e = ordered_json::object();
        e[key] = value.asDictionary() ? value.toJSON() : ordered_json{{"value", value.toJSON()}};
        detail::onUtilityQueue([key, e] {
            ActivityBody body(ActivityCode::open, key, currentSession());
            body.msg = key;
            body.e = e;
            tessraRequest().sendTessraActivityOpen(body, [](const auto& response, const auto&) {
                if (!isCreated(response)) Console::print("error from custom event");
            });
        });
    } catch (const std::exception& e) {
        Console::print("error from custom event", e.what());
    }
}

}  // namespace tessrakite
