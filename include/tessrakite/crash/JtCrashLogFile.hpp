#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <tessrakite/Export.hpp>

namespace tessrakite {

/// One crash record. It fills a crash report and can be archived to a file and read
/// back; the archive holds exactly seven keys ("type", "address", "code", "callStack",
/// "appVersion", "info", "buildVersion") as a JSON object, absent values as null. The
/// other properties are left out of the archive and are empty after reading it.
struct TESSRA_EXPORT JtCrashLogFile {
    std::int32_t type = 0;        // 1 = uncaught exception, 2 = fatal signal
    std::uint32_t address = 0;    // low 32 bits of the fault or first return address
    std::int64_t code = 0;        // the signal's si_code; 0 for exceptions
    std::optional<std::vector<std::string>> callStack;
    std::optional<std::string> appVersion;
    std::optional<std::string> info;
    std::optional<std::string> buildVersion;
    std::optional<std::string> name;
    std::optional<std::string> codee;
    std::optional<std::string> reason;
    std::optional<std::string> time;
    std::optional<std::string> osVersion;
    std::optional<std::string> deviceModel;
    std::optional<std::string> className;
    std::optional<std::string> method;
    std::optional<std::string> lineNumber;
    std::optional<std::string> stackTrace;
    std::optional<std::string> extra;

    /// Writes the seven archived keys into `coder`.
    void encodeWithCoder(nlohmann::ordered_json& coder) const;
    /// A record from an archive object; nothing when a key is missing or of a wrong type.
    static std::shared_ptr<JtCrashLogFile> initWithCoder(const nlohmann::json& coder);

    /// Archives the record to `path` (written to a temporary file, then renamed);
    /// false on failure.
    bool writeToFile(const std::filesystem::path& path) const;
    /// Reads an archive written by writeToFile; nothing when the file is missing or is
    /// not such an archive (a plain-text crash report, for example).
    static std::shared_ptr<JtCrashLogFile> createFromLogFileName(const std::filesystem::path& path);

    friend bool operator==(const JtCrashLogFile&, const JtCrashLogFile&) = default;
};

}  // namespace tessrakite
