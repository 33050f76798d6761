#include <tessrakite/platform/Image.hpp>
#include <tessrakite/platform/UserNotificationCenter.hpp>
namespace tessrakite::platform {
std::shared_ptr<Image> Image::decode(const Data&, std::uint64_t) { return nullptr; }
std::optional<std::string> Image::writePNG(const std::filesystem::path&) const { return "stub"; }
Image::Image(int w, int h, std::shared_ptr<std::uint8_t> p) : width_(w), height_(h), pixels_(std::move(p)) {}
std::optional<UNNotificationAttachment> UNNotificationAttachment::create(const std::string&, const Image&, const PlistDictionary&) { return std::nullopt; }
}
