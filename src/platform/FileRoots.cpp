#include <tessrakite/platform/FileRoots.hpp>

#include <cstdlib>
#include <system_error>

#include <sys/stat.h>

namespace tessrakite::platform {

std::filesystem::path FileRoots::home() {
    if (const char* h = std::getenv("TESSRA_HOME"); h && *h) return h;
    if (const char* x = std::getenv("XDG_DATA_HOME"); x && *x) return std::filesystem::path(x) / "tessrakite";
    if (const char* u = std::getenv("HOME"); u && *u) return std::filesystem::path(u) / ".local/share/tessrakite";
    return std::filesystem::temp_directory_path() / "tessrakite";
}

std::filesystem::path FileRoots::appGroupContainer(const std::string& suite) { return home() / "AppGroups" / suite; }
std::filesystem::path FileRoots::appFolder(const std::string& id) { return home() / "Apps" / id; }
std::filesystem::path FileRoots::documents(const std::string& id) { return appFolder(id) / "Documents"; }
std::filesystem::path FileRoots::temporary(const std::string& id) { return appFolder(id) / "tmp"; }

bool FileRoots::ensureDirectory(const std::filesystem::path& folder) {
    std::error_code ec;
    if (std::filesystem::is_directory(folder, ec)) return true;
    std::filesystem::create_directories(folder, ec);
    if (ec) return false;
    ::chmod(folder.c_str(), 0700);
    return true;
}

}  // namespace tessrakite::platform
