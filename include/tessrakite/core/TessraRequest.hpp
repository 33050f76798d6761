#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include <tessrakite/Export.hpp>
#include <tessrakite/ads/MavoObject.hpp>
#include <tessrakite/ads/SizesForAdd.hpp>
#include <tessrakite/core/ActivityBody.hpp>
#include <tessrakite/core/DecodingError.hpp>
#include <tessrakite/core/StorageManager.hpp>
#include <tessrakite/core/TessraConfig.hpp>
#include <tessrakite/push/PCampaignObject.hpp>
#include <tessrakite/push/PushBody.hpp>
#include <tessrakite/platform/UrlSession.hpp>

namespace tessrakite {

/// The backend client. Endpoints are read from the shared store at each request, so the
/// configuration document can move them. Completions run on the URL session's thread.
class TESSRA_EXPORT TessraRequest {
public:
    using ConfigCompletion = std::function<void(std::shared_ptr<TessraConfig>)>;
    using ResponseCompletion =
        std::function<void(const std::optional<platform::HttpResponse>&, const std::optional<platform::UrlError>&)>;

    /// The fixed date sent before any document was received.
    static constexpr const char* firstModifiedSince = "Fri, 12 Jan 2024 09:42:01 GMT";

    void getConfig(const std::string& apiKey, ConfigCompletion completion);
    void sendTessraActivityInstall(const ActivityBody& body, ResponseCompletion completion);
    void sendTessraActivityOpen(const ActivityBody& body, ResponseCompletion completion);
    void sendTessraActivity(const ActivityBody& body, ResponseCompletion completion);
    /// Posts the user record; only a 201 counts as success.
    using PushDataCompletion = std::function<void(bool success, const std::optional<platform::HttpResponse>&,
                                                  const std::optional<platform::UrlError>&)>;
    void sendTessraPushData(const PushBody& body, PushDataCompletion completion);
    /// GETs a campaign from `e` + "&ver=2.0" (10-second timeout). The completion gets the
    /// campaign, or nothing after a transport error, a status of 300 or more, or an answer
    /// that does not decode (each with an "Error took place " line). An endpoint that does
    /// not form a URL sends nothing and calls nothing.
    using CampaignCompletion = std::function<void(std::optional<PCampaignObject>)>;
    void campaignGet(const std::string& e, CampaignCompletion completion);
    /// Fire-and-forget GET.
    void viewTrack(const std::string& url);

    // ---- The ad feed ----
    /// Why the feed gave no ad: a transport failure, or an answer that does not decode.
    using AdError = std::variant<platform::UrlError, DecodingError>;
    using AdCompletion = std::function<void(std::optional<MavoObject>, std::optional<AdError>)>;
    /// GETs an ad from the feed host ("http://" + TESSRA_AD_HOST + "/v1/display/" + the
    /// Info.plist's "TessraQuillTrackID" + the fixed query; 10-second timeout). Only a 200
    /// is decoded; a transport error is printed and passed on; any other answer calls
    /// nothing. A missing or non-text "TessraQuillTrackID" is a fatal stop.
    void loadAd(const SizesForAdd& sizes, const std::string& adId, AdCompletion completion);
    /// The feed URL for these sizes and ad id, as loadAd sends it.
    static std::string adFeedURL(const SizesForAdd& sizes, const std::string& adId);
    /// GETs `tracker` with every "${l2}" replaced by `trackerSuffix`; nothing when either is
    /// absent. Only a 204 calls completion(true); a transport error calls completion(false)
    /// with a line; any other answer calls nothing.
    using TrackerCompletion = std::function<void(bool, std::optional<platform::UrlError>)>;
    void sendTracker(const std::optional<std::string>& tracker, const std::optional<std::string>& trackerSuffix,
                     TrackerCompletion completion);

    /// Lowers the counter by one, never below 1.
    void decreaseCounter(StorageKey counter = StorageKey::openCounter);

    /// An HTTP date ("E, dd MMM yyyy HH:mm:ss zzz", GMT, English names).
    static std::string httpDate(double secondsSince1970);

private:
    enum class PostKind { install, open, general };
    void postActivity(PostKind kind, const ActivityBody& body, ResponseCompletion completion);
};

}  // namespace tessrakite
