#include <array>
#include <cstdio>
#include <exception>
#include <random>
#include <system_error>

#include <tessrakite/core/StorageManager.hpp>
#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/FileRoots.hpp>
#include <tessrakite/platform/Image.hpp>
#include <tessrakite/platform/UserNotificationCenter.hpp>

namespace tessrakite::platform {
namespace {

// The process's globally unique string: a random UUID, made once, in the phone's spelling
// (upper-case hex with dashes). Attachments of one process share its folder.
const std::string& processUniqueString() {
    static const std::string text = [] {
        std::random_device source;
        std::array<std::uint8_t, 16> bytes{};
        for (std::size_t i = 0; i < bytes.size(); i += 4) {
            const std::uint32_t word = source();
            for (std::size_t k = 0; k < 4; ++k) bytes[i + k] = static_cast<std::uint8_t>(word >> (8 * k));
        }
        bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
        bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
        std::string out;
        char hex[3];
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            if (i == 4 || i == 6 || i == 8 || i == 10) out += '-';
            std::snprintf(hex, sizeof hex, "%02X", bytes[i]);
            out += hex;
        }
        return out;
    }();
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
