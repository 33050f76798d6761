#include <tessrakite/crash/JtCrashLogFile.hpp>

#include <fstream>
#include <iterator>
#include <limits>
#include <stdexcept>

#include "crash/AtomicFile.hpp"
#include "platform/Nesting.hpp"

namespace tessrakite {
namespace {

// Archives bigger than this are not ours.
constexpr std::uintmax_t kMaxArchiveBytes = 16u << 20;

nlohmann::ordered_json optionalString(const std::optional<std::string>& s) {
    return s ? nlohmann::ordered_json(*s) : nlohmann::ordered_json(nullptr);
}

std::optional<std::string> readString(const nlohmann::json& coder, const char* key) {
    const auto& v = coder.at(key);
    if (v.is_null()) return std::nullopt;
    if (!v.is_string()) throw std::invalid_argument(key);
    return v.get<std::string>();
}

template <typename T>
T readInteger(const nlohmann::json& coder, const char* key) {
    const auto& v = coder.at(key);
    if (v.is_number_unsigned()) {
        auto u = v.get<std::uint64_t>();
        if (u > static_cast<std::uint64_t>(std::numeric_limits<T>::max())) throw std::out_of_range(key);
        return static_cast<T>(u);
    }
    if (v.is_number_integer()) {
        auto i = v.get<std::int64_t>();
        if (i < static_cast<std::int64_t>(std::numeric_limits<T>::min()) ||
            (i > 0 && static_cast<std::uint64_t>(i) > static_cast<std::uint64_t>(std::numeric_limits<T>::max())))
            throw std::out_of_range(key);
        return static_cast<T>(i);
    }
    throw std::invalid_argument(key);
}

}  // namespace

void JtCrashLogFile::encodeWithCoder(nlohmann::ordered_json& coder) const {
    coder = nlohmann::ordered_json::object();
    coder["type"] = type;
    coder["address"] = address;
    // Archived as a 32-bit signed number, the way the record has always been stored.
    coder["code"] = static_cast<std::int32_t>(code);
    if (callStack)
        coder["callStack"] = *callStack;
    else
        coder["callStack"] = nullptr;
    coder["appVersion"] = optionalString(appVersion);
    coder["info"] = optionalString(info);
    coder["buildVersion"] = optionalString(buildVersion);
}

std::shared_ptr<JtCrashLogFile> JtCrashLogFile::initWithCoder(const nlohmann::json& coder) {
    try {
        if (!coder.is_object()) return nullptr;
        auto record = std::make_shared<JtCrashLogFile>();
        record->type = readInteger<std::int32_t>(coder, "type");
        record->address = readInteger<std::uint32_t>(coder, "address");
        record->code = readInteger<std::int32_t>(coder, "code");
        const auto& stack = coder.at("callStack");
        if (!stack.is_null()) {
            if (!stack.is_array()) return nullptr;
            std::vector<std::string> entries;
            for (const auto& e : stack) {
                if (!e.is_string()) return nullptr;
                entries.push_back(e.get<std::string>());
            }
            record->callStack = std::move(entries);
        }
        record->appVersion = readString(coder, "appVersion");
        record->info = readString(coder, "info");
        record->buildVersion = readString(coder, "buildVersion");
        return record;
    } catch (const std::exception&) {
        return nullptr;
    }
}

bool JtCrashLogFile::writeToFile(const std::filesystem::path& path) const {
    try {
        nlohmann::ordered_json coder;
        encodeWithCoder(coder);
        return crash::writeFileAtomically(path, coder.dump());
    } catch (const std::exception&) {
        return false;
    }
}

std::shared_ptr<JtCrashLogFile> JtCrashLogFile::createFromLogFileName(const std::filesystem::path& path) {
    try {
        std::error_code ec;
        if (!std::filesystem::is_regular_file(path, ec)) return nullptr;
        auto size = std::filesystem::file_size(path, ec);
        if (ec || size > kMaxArchiveBytes) return nullptr;
        std::ifstream in(path, std::ios::binary);
        if (!in) return nullptr;
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (!nesting::jsonWithinLimit(text)) return nullptr;
        auto coder = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
        if (coder.is_discarded()) return nullptr;
        return initWithCoder(coder);
    } catch (const std::exception&) {
        return nullptr;
    }
}

}  // namespace tessrakite
