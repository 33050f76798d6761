#include <tessrakite/platform/LocationManager.hpp>

namespace tessrakite::platform {

namespace {
int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
bool isDash(std::size_t i) { return i == 8 || i == 13 || i == 18 || i == 23; }
}  // namespace

std::optional<UUID> UUID::parse(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    UUID uuid;
    std::size_t byte = 0;
    for (std::size_t i = 0; i < text.size();) {
        if (isDash(i)) {
            if (text[i] != '-') return std::nullopt;
            ++i;
            continue;
        }
        const int high = hexDigit(text[i]), low = hexDigit(text[i + 1]);
        if (high < 0 || low < 0 || isDash(i + 1)) return std::nullopt;
        uuid.bytes_[byte++] = static_cast<std::uint8_t>(high * 16 + low);
        i += 2;
    }
    return uuid;
}

std::string UUID::uuidString() const {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(36);
    for (std::size_t i = 0; i < bytes_.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
        out.push_back(kDigits[bytes_[i] >> 4]);
        out.push_back(kDigits[bytes_[i] & 0x0F]);
    }
    return out;
}

}  // namespace tessrakite::platform
