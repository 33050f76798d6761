// One notification category per message with buttons, and the bounded list of them.
#include <tessrakite/push/CategoryHelper.hpp>

#include <algorithm>
#include <chrono>
#include <mutex>

#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/platform/Platform.hpp>
#include <tessrakite/platform/UserDefaults.hpp>

#include "core/FacadeState.hpp"
#include "push/PushInternal.hpp"

namespace tessrakite {

using platform::UNNotificationCategory;

namespace {

std::string lowercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// The wait for the centre's answer is bounded, so a platform that answers on the waiting
// thread costs one message its buttons instead of hanging the extension.
constexpr auto kCategoryQueryTimeout = std::chrono::seconds(5);

// Pairs each category query with its answer; an answer that comes after its wait gave up
// is dropped instead of releasing a later wait.
struct QueryState {
    std::mutex mutex;
    std::uint64_t generation = 0;
    bool answered = false;
};
QueryState& queryState() {
    static auto* state = new QueryState;
    return *state;
}

}  // namespace

CategoryHelper& CategoryHelper::shared() {
    static auto* helper = new CategoryHelper;
    return *helper;
}

std::vector<UNNotificationCategory> CategoryHelper::getExistingCategories() {
    auto& state = queryState();
    std::uint64_t generation;
    {
        std::lock_guard lock(state.mutex);
        generation = ++state.generation;
        state.answered = false;
    }
    platform::currentPlatform()->userNotificationCenter->getNotificationCategories(
        [this, generation](std::vector<UNNotificationCategory> categories) {
            auto& state = queryState();
            std::lock_guard lock(state.mutex);
            if (state.generation != generation) return;
            readCategories_ = std::move(categories);
            state.answered = true;
            categoryReadLock.release();
        });
    if (!categoryReadLock.try_acquire_for(kCategoryQueryTimeout)) {
        std::lock_guard lock(state.mutex);
        if (state.answered) {
            categoryReadLock.acquire();  // answered just as the wait ended
        } else {
            ++state.generation;
            throw std::runtime_error("the notification centre did not answer its category query");
        }
    }
    std::lock_guard lock(state.mutex);
    return std::move(readCategories_);
}

std::vector<std::string> CategoryHelper::getExistingDynamicCategoriesList() {
    auto standard = platform::standardUserDefaults();
    const std::string key = detail::storageKey(StorageKey::category);
    std::vector<std::string> list;
    if (auto stored = standard->object(key); stored && stored->asArray()) {
        for (const auto& item : *stored->asArray())
            if (const auto* text = item.asString()) list.push_back(*text);
        return list;
    }
    standard->set(key, PlistValue(PlistArray{}));
    return list;
}

void CategoryHelper::pruneCategoriesAndSave(std::vector<UNNotificationCategory> categories,
                                            std::vector<std::string> dynamicCategories) {
    if (dynamicCategories.size() > kLimit) {
        const auto excess = static_cast<std::ptrdiff_t>(dynamicCategories.size() - kLimit);
        std::vector<std::string> oldest(dynamicCategories.begin(), dynamicCategories.begin() + excess);
        std::erase_if(categories, [&](const UNNotificationCategory& c) {
            return std::find(oldest.begin(), oldest.end(), c.identifier) != oldest.end();
        });
        dynamicCategories.erase(dynamicCategories.begin(), dynamicCategories.begin() + excess);
    }
    platform::currentPlatform()->userNotificationCenter->setNotificationCategories(std::move(categories));
    PlistArray list;
    for (auto& id : dynamicCategories) list.emplace_back(std::move(id));
    const std::string key = detail::storageKey(StorageKey::category);
    // Read back from the standard defaults, so kept there too: otherwise the list would
    // never grow past one and nothing would ever be pruned.
    platform::standardUserDefaults()->set(key, PlistValue(list));
    TessraQuill::storageManager().set(StorageKey::category, PlistValue(std::move(list)));
    TessraQuill::storageManager().defaultStorage->synchronize();
}

void CategoryHelper::registerCategory(const UNNotificationCategory& category) {
    dynamicCategoryLock.acquire();
    try {
        auto categories = getExistingCategories();
        auto list = getExistingDynamicCategoriesList();
        // Inserted into a set on the phone: a category of the same identifier is replaced.
        std::erase_if(categories, [&](const UNNotificationCategory& c) { return c.identifier == category.identifier; });
        categories.push_back(category);
        list.push_back(category.identifier);
        pruneCategoriesAndSave(std::move(categories), std::move(list));
    } catch (const std::exception& e) {
        Console::print(std::string("CategoryHelper: ") + e.what());
    }
    dynamicCategoryLock.release();
}

namespace detail {

void addCategory(platform::UNMutableNotificationContent& bestAttemptContent,
                 const std::optional<std::vector<Action>>& actionArray, const std::string& id,
                 const std::string& categoryIdentifier) {
    UNNotificationCategory category;
    category.identifier = categoryIdentifier;
    for (const auto& action : actionArray.value_or(std::vector<Action>{})) {
        platform::UNNotificationAction button{action.title, action.title, 0};
        if (lowercased(action.title) == "no") {
            button.options = platform::UNNotificationActionOptions::destructive;
        } else {
            button.options = platform::UNNotificationActionOptions::foreground;
            TessraQuill::saveUrl(action, id);
        }
        category.actions.push_back(std::move(button));
    }
    CategoryHelper::shared().registerCategory(category);
    bestAttemptContent.categoryIdentifier = categoryIdentifier;
}

}  // namespace detail

}  // namespace tessrakite
