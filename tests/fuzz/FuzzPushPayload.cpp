// Arbitrary bytes, read as JSON, through the push payload decoders and JSONAny. A
// finding is a crash, a sanitizer report, an exception leaving an entry point, a record
// that does not survive its own JSON form, or a converter that disagrees with the nesting
// bound.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <variant>

#include <nlohmann/json.hpp>

#include <tessrakite/core/DecodingError.hpp>
#include <tessrakite/core/JSONAny.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/platform/Console.hpp>

#include "platform/Nesting.hpp"
#include "FuzzCheck.hpp"

namespace {

using namespace tessrakite;
using Json = nlohmann::ordered_json;

using fuzz::check;

template <class Record>
void checkRoundTrip(const Record& record, const char* what) {
    Json json = record;
    check(json.get<Record>() == record, what);
}

void fuzzJSONAny(const Json& json) {
    JSONAny any;
    try {
        any = JSONAny::decode(json);
    } catch (const DecodingError&) {
        check(false, "JSONAny decodes everything JSON text can hold");
    }
    // Whatever decoded encodes (an EncodingError escaping here aborts), and decodes again
    // to the same value.
    auto encoded = any.encode();
    check(JSONAny::decode(encoded).encode() == encoded, "JSONAny survives its own encoding");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool quiet = [] {
        Console::setSink([](std::string_view) {});
        return true;
    }();
    (void)quiet;

    auto json = Json::parse(data, data + size, nullptr, /*allow_exceptions=*/false);
    if (json.is_discarded()) return 0;
    // The parser itself is iterative; everything after it must refuse what the bound refuses.
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (!nesting::jsonWithinLimit(text)) {
        bool refused = false;
        try {
            (void)JSONAny::decode(json);
        } catch (const DecodingError&) {
            refused = true;
        }
        check(refused, "JSONAny refuses what is nested too deep");
        refused = false;
        try {
            (void)PlistValue::fromJSON(json);
        } catch (const std::invalid_argument&) {
            refused = true;
        }
        check(refused, "PlistValue refuses what is nested too deep");
        return 0;
    }
    fuzzJSONAny(json);

    auto value = PlistValue::fromJSON(json);
    const auto* userInfo = value.asDictionary();
    if (!userInfo) return 0;

    auto parsed = TessraQuill::parsePushObj(*userInfo);
    platform::UNNotificationRequest request;
    request.identifier = "fuzz-request";
    request.content.userInfo = *userInfo;
    auto content = TessraQuill::getNotificationContent(*userInfo, request);
    check(content != nullptr, "a JSON object always gives content");
    for (const auto& message : content->notification) check(message.notifId == "fuzz-request", "notifId");

    if (!parsed) {
        check(content->notification.empty(), "neither shape gives no messages");
    } else if (const auto* push = std::get_if<PushObj>(&*parsed)) {
        checkRoundTrip(*push, "PushObj survives its own encoding");
        // The campaign shape wins in the content: a payload of both shapes shows the
        // campaign's entries, possibly none.
        std::optional<PCampaignObject> campaign;
        try {
            campaign = value.toJSON().get<PCampaignObject>();
        } catch (const DecodingError&) {
        }
        check(content->notification.size() == (campaign ? campaign->p.size() : 1),
              "a direct push gives one message unless it is also a campaign");
    } else {
        const auto& campaign = std::get<PCampaignObject>(*parsed);
        checkRoundTrip(campaign, "PCampaignObject survives its own encoding");
        check(content->notification.size() == campaign.p.size(), "one message per campaign entry");
        for (std::size_t i = 0; i < campaign.p.size(); ++i)
            check(content->notification[i].title == campaign.p[i].t, "messages keep the order of the entries");
        auto again = TessraQuill::parsePushObj(campaign.dictionary());
        check(again && std::holds_alternative<PCampaignObject>(*again) &&
                  std::get<PCampaignObject>(*again) == campaign,
              "the dictionary form decodes to the same campaign");
    }
    return 0;
}
