#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>

namespace tessrakite {

class StorageManager;

/// The session record every report carries.
struct TESSRA_EXPORT CS {
    std::int64_t ns = 0;  // "tx_session_num"
    std::string sid;      // "tx_session_id"
    std::int64_t scn = 0; // "tx_visitedPCount"
    std::string cid;      // "tx_uniq_session_id"

    /// From the store; an absent number reads as 0 and an absent text as "".
    static CS fromStorage(const StorageManager& storage);
};

TESSRA_EXPORT void to_json(nlohmann::ordered_json& j, const CS& cs);
TESSRA_EXPORT void from_json(const nlohmann::ordered_json& j, CS& cs);

}  // namespace tessrakite
