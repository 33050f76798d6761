#pragma once

#include <semaphore>
#include <string>
#include <vector>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/UserNotificationCenter.hpp>

namespace tessrakite {

/// Owns the notification categories the SDK registers, one per message with buttons:
/// adds each to those registered and keeps at most 128 of its own, pruning the oldest.
/// Categories the host registered itself are never pruned.
class TESSRA_EXPORT CategoryHelper {
public:
    static CategoryHelper& shared();
    /// Blocks until the centre answers its category query: never call it on the queue
    /// that delivers that answer.
    void registerCategory(const platform::UNNotificationCategory& category);

    static constexpr std::size_t kLimit = 128;

private:
    CategoryHelper() = default;
    std::vector<platform::UNNotificationCategory> getExistingCategories();
    std::vector<std::string> getExistingDynamicCategoriesList();
    void pruneCategoriesAndSave(std::vector<platform::UNNotificationCategory> categories,
                                std::vector<std::string> dynamicCategories);

    std::binary_semaphore categoryReadLock{0};
    std::binary_semaphore dynamicCategoryLock{1};
    std::vector<platform::UNNotificationCategory> readCategories_;
};

}  // namespace tessrakite
