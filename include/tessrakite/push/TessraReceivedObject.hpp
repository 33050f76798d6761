#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <tessrakite/Export.hpp>
#include <tessrakite/push/Action.hpp>
#include <tessrakite/push/Aps.hpp>
#include <tessrakite/push/Conversion.hpp>
#include <tessrakite/push/P.hpp>

namespace tessrakite {

/// One message in flat form, whichever payload shape it came from. Built only by the two
/// constructors; it has no JSON form of its own.
struct TESSRA_EXPORT TessraReceivedObject {
    std::optional<std::string> notifId;  // the notification request's identifier
    std::optional<std::string> title;
    std::optional<bool> renotify;
    std::optional<std::int64_t> el;
    std::optional<std::string> ap;
    std::optional<std::string> an;
    std::optional<std::string> tc;
    std::optional<std::string> dc;
    std::optional<std::int64_t> cl;
    std::optional<std::string> tag;
    std::optional<std::string> sound;
    std::optional<std::vector<std::int64_t>> vibrate;
    std::optional<std::string> badge;
    std::optional<std::string> image;
    std::optional<std::string> body;
    std::optional<std::vector<Action>> actions;
    std::optional<Conversion> data;
    std::optional<bool> silent;
    std::optional<std::vector<std::string>> impTracker;
    std::optional<std::string> taskId;
    std::optional<bool> scl;

    TessraReceivedObject() = default;
    /// From a direct push: the title and impression trackers of "alert", the message
    /// fields of "alert"."n" (all absent when there is no "n").
    TessraReceivedObject(const Aps& push, std::string id);
    /// From a campaign entry: its "t" as title, its "i" as impression trackers, the
    /// message fields of its "o".
    TessraReceivedObject(const P& fromEndpoint, std::string id);

    friend bool operator==(const TessraReceivedObject&, const TessraReceivedObject&) = default;
};

}  // namespace tessrakite
