#include <tessrakite/core/TessraRequest.hpp>

#include <cstdio>
#include <ctime>

#include <tessrakite/BuildConfig.hpp>
#include <tessrakite/core/Config.hpp>
#include <tessrakite/core/TessraBuilder.hpp>
#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/Platform.hpp>

#include "core/Text.hpp"
#include "platform/Nesting.hpp"

namespace tessrakite {

using nlohmann::ordered_json;
using platform::UrlRequest;
using platform::UrlResult;

namespace {

std::optional<UrlRequest> requestFor(const std::string& text) {
    auto url = Url::parse(text);
    if (!url) return std::nullopt;
    UrlRequest request(*url);
    request.timeoutInterval = 60;
    return request;
}

void send(UrlRequest request, platform::UrlSession::Completion completion) {
    auto session = platform::currentPlatform()->urlSession;
    if (!session) {
        completion(UrlResult{std::nullopt, std::nullopt, platform::UrlError{-2, "No URL session"}});
        return;
    }
    session->dataTask(std::move(request), std::move(completion));
}

std::string errorText(const platform::UrlError& error) { return error.localizedDescription(); }

void printBody(const UrlResult& result) {
    if (!result.data) return;
    std::string text(result.data->begin(), result.data->end());
    if (detail::isValidUtf8(text))
        Console::print(text);
    else
        Console::print("Data could not be printed");
}

}  // namespace

std::string TessraRequest::httpDate(double secondsSince1970) {
    static const char* const days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    auto t = static_cast<std::time_t>(secondsSince1970);
    std::tm gmt{};
    ::gmtime_r(&t, &gmt);
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%s, %02d %s %04d %02d:%02d:%02d GMT", days[gmt.tm_wday], gmt.tm_mday,
                  months[gmt.tm_mon], gmt.tm_year + 1900, gmt.tm_hour, gmt.tm_min, gmt.tm_sec);
    return buffer;
}

void TessraRequest::getConfig(const std::string& apiKey, ConfigCompletion completion) {
    StorageManager storage;
    auto base = storage.getStringFromStorage(StorageKey::configUrl).value_or("");
    if (!Url::parse(base)) fatalError("The configuration base URL \"" + base + "\" (\"tx_config_url\") is not a valid URL");
    // A key is one path segment whatever it holds (a blank, "#", a newline left by an
    // Info.plist editor): it is sent percent-encoded.
    auto request = requestFor(base + "/" + Url::percentEncoded(apiKey) + ".json");
    if (!request) {
        Console::print("Error took place ", "the configuration URL cannot be formed from \"" + base + "\"");
        completion(nullptr);
        return;
    }
    request->setValue(storage.getStringFromStorage(StorageKey::lastModified).value_or(firstModifiedSince),
                      "If-Modified-Since");

    send(std::move(*request), [apiKey, completion](const UrlResult& result) {
        if (result.response && result.response->statusCode >= 300) {
            completion(nullptr);
            return;
        }
        if (result.error || !result.response) {
            Console::print("Error took place ", result.error ? errorText(*result.error) : std::string("no answer"));
            completion(nullptr);
            return;
        }
        StorageManager storage;
        const std::string text = result.data ? std::string(result.data->begin(), result.data->end()) : "";
        Config document;
        std::optional<std::string> decodingError;
        try {
            document = nesting::parseJSON<ordered_json>(text).get<Config>();
        } catch (const std::exception& e) {
            decodingError = e.what();
        }
        // The document as received, its date, and the endpoints and consent it brings are one
        // store transaction: one commit before start-up goes on, and no process sees half.
        std::vector<std::pair<StorageKey, PlistValue>> writes = {
            {StorageKey::autoconf, PlistValue(text)},
            {StorageKey::lastModified, PlistValue(httpDate(platform::currentPlatform()->clock->now()))}};
        if (!decodingError) {
            if (document.url) {
                auto store = [&](const std::optional<std::string>& value, StorageKey key) {
                    if (value && !value->empty()) writes.emplace_back(key, PlistValue(*value));
                };
                store(document.url->user, StorageKey::userUrl);
                store(document.url->crash, StorageKey::crashUrl);
                store(document.url->activity, StorageKey::activityUrl);
            }
            if (document.consent) writes.emplace_back(StorageKey::consent, PlistValue(*document.consent));
        }
        storage.defaultStorage->update({}, [&](platform::UserDefaults::Values& values) {
            for (const auto& [key, value] : writes) values.insert_or_assign(std::string(rawValue(key)), value);
        });
        if (decodingError) {
            Console::print("Error took place ", *decodingError);
            completion(nullptr);
            return;
        }

        // A switch the document does not carry keeps its stored value, and a reminder the
        // host asked for stays scheduled: the builder would otherwise reset both.
        TessraBuilder builder(apiKey);
        if (auto analytics = document.analytics ? document.analytics : storage.getBool(StorageKey::analytics))
            builder.analytics(*analytics);
        if (document.pushConfig && document.pushConfig->enabled.value_or(false)) builder.push();
        if (auto interval = storage.getScheduledTime()) builder.scheduleNotifications(*interval);
        completion(builder.build());
    });
}

void TessraRequest::sendTessraActivityInstall(const ActivityBody& body, ResponseCompletion completion) {
    postActivity(PostKind::install, body, std::move(completion));
}

void TessraRequest::sendTessraActivityOpen(const ActivityBody& body, ResponseCompletion completion) {
    postActivity(PostKind::open, body, std::move(completion));
}

void TessraRequest::sendTessraActivity(const ActivityBody& body, ResponseCompletion completion) {
    postActivity(PostKind::general, body, std::move(completion));
}

void TessraRequest::postActivity(PostKind kind, const ActivityBody& body, ResponseCompletion completion) {
    StorageManager storage;
    auto request = requestFor(storage.getStringFromStorage(StorageKey::activityUrl).value_or(""));
    if (!request) return;
    std::string json;
    try {
        json = ordered_json(body).dump();
    } catch (const std::exception& e) {
        const char* prefix = kind == PostKind::install ? "sendTessraActivityInstall error: "
                             : kind == PostKind::open  ? "sendTessraActivityOpen "
                                                       : "sendTessraActivityLocationEvent ";
        Console::print(prefix, e.what());
        return;
    }
    request->httpMethod = "POST";
    request->setValue("application/json", "Content-Type");
    request->httpBody = std::move(json);

    send(std::move(*request), [this, kind, completion](const UrlResult& result) {
        if (result.response) printBody(result);
        if (kind != PostKind::open) {
            if (completion) completion(result.response, result.error);
            return;
        }
        if (result.response) {
            if (result.response->statusCode == 201) {
                decreaseCounter(StorageKey::openCounter);
                Console::print("Open sent successfully");
            }
            if (completion) completion(result.response, std::nullopt);
            return;
        }
        StorageManager storage;
        storage.increment(StorageKey::openCounter);
        if (completion) completion(std::nullopt, result.error);
        Console::print("Request ERROR");
    });
}

void TessraRequest::sendTessraPushData(const PushBody& body, PushDataCompletion completion) {
    StorageManager storage;
    auto request = requestFor(storage.getStringFromStorage(StorageKey::userUrl).value_or(""));
    if (!request) return;
    try {
        request->httpBody = ordered_json(body).dump();
    } catch (const std::exception& e) {
        Console::print("sendTessraPushData ", e.what());
        return;
    }
    request->httpMethod = "POST";
    request->setValue("application/json", "Content-Type");
    send(std::move(*request), [completion](const UrlResult& result) {
        if (result.response) printBody(result);
        const bool created = result.response && result.response->statusCode == 201;
        if (completion) completion(created, result.response, result.error);
    });
}

void TessraRequest::campaignGet(const std::string& e, CampaignCompletion completion) {
    auto request = requestFor(e + "&ver=2.0");
    if (!request) return;
    // The shared session stays: invalidating it, as a one-off session would be, would end
    // every other request of the process.
    request->timeoutInterval = 10;
    send(std::move(*request), [completion](const UrlResult& result) {
        std::optional<PCampaignObject> campaign;
        if (result.error || !result.response) {
            Console::print("Error took place ", result.error ? errorText(*result.error) : std::string("no answer"));
        } else if (result.response->statusCode >= 300) {
            Console::print("Error took place ", "the campaign endpoint answered " +
                                                    std::to_string(result.response->statusCode));
        } else {
            try {
                const std::string text = result.data ? std::string(result.data->begin(), result.data->end()) : "";
                campaign = nesting::parseJSON<ordered_json>(text).get<PCampaignObject>();
            } catch (const std::exception& error) {
                Console::print("Error took place ", error.what());
            }
        }
        if (completion) completion(std::move(campaign));
    });
}

void TessraRequest::viewTrack(const std::string& url) {
    auto request = requestFor(url);
    if (!request) return;
    send(std::move(*request), [](const UrlResult&) {});
}

// ---- The ad feed ----
//
// The feed and the trackers go through the process's one URL session with a 10-second
// timeout per request: a session of their own per request, as the phone makes it, would
// cost a new connection (and worker) for every ad and every tracker.

namespace {

std::string trackId() {
    auto bundle = platform::Bundle::main();
    const PlistValue* value = bundle ? bundle->object("TessraQuillTrackID") : nullptr;
    if (!value) fatalError("\"TessraQuillTrackID\" is missing from the application's Info.plist: the ad feed needs it");
    const auto* text = value->asString();
    if (!text) fatalError("\"TessraQuillTrackID\" in the application's Info.plist is not a string");
    return *text;
}

std::string sizeText(std::int64_t width, std::int64_t height) {
    return std::to_string(width) + "x" + std::to_string(height);
}

UrlRequest adRequest(Url url) {
    UrlRequest request(std::move(url));
    request.timeoutInterval = 10;
    request.setValue("application/json", "Content-Type");
    return request;
}

}  // namespace

std::string TessraRequest::adFeedURL(const SizesForAdd& sizes, const std::string& adId) {
    const auto screen = sizeText(sizes.screenWidth, sizes.screenHeight);
    const auto ad = sizeText(sizes.adWidth, sizes.adHeight);
    // "po", "rt", "cb" and "ar" are fixed values the feed expects as they stand; the
    // screen and the ad size are each sent twice on purpose.
    return "http://" + platform::deploymentHost(platform::DeploymentHost::ad) + "/v1/display/" + trackId() +
           "?page=" TESSRA_AD_PAGE "&sr=" + screen + "&sa=" + screen +
           "&po=3&rt=1649422465953.4434&cb=ax26w6of7s&ar=fpagc&as=" + adId + "&awh=" + ad + "&ad=" + ad + "&out=json";
}

void TessraRequest::loadAd(const SizesForAdd& sizes, const std::string& adId, AdCompletion completion) {
    auto url = Url::parse(adFeedURL(sizes, adId));
    if (!url) return;
    send(adRequest(std::move(*url)), [completion](const UrlResult& result) {
        if (result.data && result.response && result.response->statusCode == 200) {
            std::optional<MavoObject> ad;
            std::optional<AdError> error;
            try {
                const std::string text(result.data->begin(), result.data->end());
                ad = nesting::parseJSON<ordered_json>(text).get<MavoObject>();
            } catch (const DecodingError& e) {
                error = e;
            } catch (const std::exception& e) {
                // Not JSON at all, or nested beyond the bound.
                error = DecodingError(DecodingError::Kind::dataCorrupted,
                                      std::string("The given data was not valid JSON. ") + e.what());
            }
            if (error) Console::print(std::get<DecodingError>(*error).description());
            if (completion) completion(std::move(ad), std::move(error));
            return;
        }
        // Any other answer, even an error status, says nothing to the caller.
        if (!result.error) return;
        Console::print(errorText(*result.error));
        if (completion) completion(std::nullopt, AdError(*result.error));
    });
}

void TessraRequest::sendTracker(const std::optional<std::string>& tracker,
                                const std::optional<std::string>& trackerSuffix, TrackerCompletion completion) {
    if (!tracker || !trackerSuffix) return;
    static constexpr std::string_view kPlaceholder = "${l2}";
    std::string text = *tracker;
    for (auto at = text.find(kPlaceholder); at != std::string::npos;
         at = text.find(kPlaceholder, at + trackerSuffix->size()))
        text.replace(at, kPlaceholder.size(), *trackerSuffix);
    auto url = Url::parse(text);
    if (!url) return;
    send(adRequest(std::move(*url)), [completion](const UrlResult& result) {
        if (result.response && result.response->statusCode == 204) {
            if (completion) completion(true, std::nullopt);
        } else if (result.error) {
            Console::print(errorText(*result.error));
            if (completion) completion(false, result.error);
        }
    });
}

void TessraRequest::decreaseCounter(StorageKey counter) {
    StorageManager storage;
    // Usually nothing to lower: a cached read spares a write transaction per report.
    auto current = storage.getIntFromStorage(counter);
    if (!current || *current < 2) return;
    storage.defaultStorage->update(rawValue(counter), [](std::optional<PlistValue> current) {
        if (!current || !current->asInteger() || *current->asInteger() < 2) return current;
        return std::optional<PlistValue>(PlistValue(*current->asInteger() - 1));
    });
    storage.defaultStorage->synchronize();
}

}  // namespace tessrakite
