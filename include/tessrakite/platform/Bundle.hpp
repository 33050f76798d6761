#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/PlistValue.hpp>

namespace tessrakite::platform {

/// A bundle is a folder with an Info.plist (XML or binary, read with libplist). An
/// extension is a folder "X.appex" inside "App.app/PlugIns/".
class TESSRA_EXPORT Bundle {
public:
    /// Opens the bundle at `folder`; nothing when the folder does not exist. A folder
    /// without a readable Info.plist is a bundle with an empty info dictionary.
    static std::shared_ptr<Bundle> open(const std::filesystem::path& folder);

    /// The main bundle: set by the host, else $TESSRA_MAIN_BUNDLE, else the folder of
    /// the running executable.
    static std::shared_ptr<Bundle> main();
    static void setMain(std::shared_ptr<Bundle> bundle);
    /// For an extension (App.app/PlugIns/X.appex), the application that contains it; none
    /// for any other bundle, or when the application's folder cannot be opened.
    static std::shared_ptr<Bundle> containingApplication(const Bundle& extension);

    const std::filesystem::path& bundleURL() const { return path_; }
    const PlistDictionary& infoDictionary() const { return info_; }
    const PlistValue* object(std::string_view infoDictionaryKey) const;
    std::optional<std::string> string(std::string_view infoDictionaryKey) const;
    std::optional<std::string> bundleIdentifier() const { return string("CFBundleIdentifier"); }
    /// "CFBundleDisplayName" when it is a string.
    std::optional<std::string> displayName() const { return string("CFBundleDisplayName"); }
    /// The path of a resource file inside the bundle, when it exists.
    std::optional<std::filesystem::path> pathForResource(const std::string& name) const;

    Bundle(std::filesystem::path path, PlistDictionary info);

private:
    std::filesystem::path path_;
    PlistDictionary info_;
};

/// Reads a property-list file (XML or binary); nothing when unreadable.
TESSRA_EXPORT std::optional<PlistValue> readPropertyList(const std::filesystem::path& file);
/// Writes a property list as XML; false on failure.
TESSRA_EXPORT bool writePropertyList(const std::filesystem::path& file, const PlistValue& value);

}  // namespace tessrakite::platform
