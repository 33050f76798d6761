#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>

#include <tessrakite/Export.hpp>
#include <tessrakite/core/Model.hpp>

namespace tessrakite {

/// Machine identifiers and their model names.
class TESSRA_EXPORT Device {
public:
    Device();
    /// Machine identifier to model; 111 entries.
    std::map<std::string, Model> modelMap;
    /// The display name of this device's model, "Unrecognized" when the table has none.
    std::string getDeviceModel() const;
};

/// The machine identifier: uname's machine field, or $SIMULATOR_MODEL_IDENTIFIER when set.
TESSRA_EXPORT std::string modelName();

/// The main bundle's "CFBundleDisplayName" when it is a string.
TESSRA_EXPORT std::optional<std::string> bundleDisplayName();

/// The app's icon: the last entry of CFBundleIcons.CFBundlePrimaryIcon.CFBundleIconFiles,
/// as an image file in the main bundle. Nothing when any step is missing.
TESSRA_EXPORT std::optional<std::filesystem::path> applicationIcon();

}  // namespace tessrakite
