#pragma once

#include <filesystem>
#include <string>

#include <tessrakite/Export.hpp>

namespace tessrakite::platform {

/// Where on-disk state lives. Everything is under one home folder: $TESSRA_HOME, else
/// $XDG_DATA_HOME/tessrakite, else ~/.local/share/tessrakite.
struct TESSRA_EXPORT FileRoots {
    static std::filesystem::path home();
    /// The shared container of an app group: home/AppGroups/<suite>.
    static std::filesystem::path appGroupContainer(const std::string& suite);
    /// An app's own folder: home/Apps/<bundle id>.
    static std::filesystem::path appFolder(const std::string& bundleIdentifier);
    /// The app's documents folder: home/Apps/<bundle id>/Documents.
    static std::filesystem::path documents(const std::string& bundleIdentifier);
    /// The app's temporary folder: home/Apps/<bundle id>/tmp.
    static std::filesystem::path temporary(const std::string& bundleIdentifier);
    /// Creates a folder and its parents with mode 0700; false on failure.
    static bool ensureDirectory(const std::filesystem::path& folder);
};

}  // namespace tessrakite::platform
