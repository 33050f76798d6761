#include <exception>
#include <system_error>

#include <tessrakite/core/StorageManager.hpp>
#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/FileRoots.hpp>
#include <tessrakite/platform/Image.hpp>
#include <tessrakite/platform/UserNotificationCenter.hpp>

#include "core/Text.hpp"

namespace tessrakite::platform {
namespace {

// The process's globally unique string: a random UUID, made once, in the phone's spelling
// (upper-case hex with dashes). Attachments of one process share its folder.
const std::string& processUniqueString() {
    static const std::string text = tessrakite::detail::uuidString();
    return text;
}

}  // namespace

std::optional<UNNotificationAttachment> UNNotificationAttachment::create(const std::string& identifier,
                                                                         const Image& image,
                                                                         const PlistDictionary& options) {
    try {
        const auto folder = FileRoots::temporary(StorageManager::bundleId()) / processUniqueString();
        std::error_code ec;
        std::filesystem::create_directories(folder, ec);
        if (ec) {
            Console::print("error cannot create " + folder.string() + ": " + ec.message());
            return std::nullopt;
        }
        const auto file = folder / (identifier + ".png");
        if (auto error = image.writePNG(file)) {
            Console::print("error " + *error);
            return std::nullopt;
        }
        return UNNotificationAttachment{identifier, file.string(), options};
    } catch (const std::exception& e) {
        Console::print(std::string("error ") + e.what());
        return std::nullopt;
    }
}

}  // namespace tessrakite::platform
