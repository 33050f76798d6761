// tessra-host: a scriptable sample app. Reads operations as JSON lines and writes
// everything the SDK does as JSON lines.
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include <tessrakite/BuildConfig.hpp>
#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/FileRoots.hpp>

#include "Host.hpp"

namespace {

int usage() {
    std::cerr << "usage: tessra-host [--bundle DIR] [--extension NAME] [--script FILE] [--platform headless|desktop]\n";
    return 2;
}

/// The sample app bundle, made under TESSRA_HOME when the caller names none.
std::string sampleBundle() {
    using namespace tessrakite;
    auto folder = platform::FileRoots::home() / "Bundles" / "Sample.app";
    platform::FileRoots::ensureDirectory(folder);
    PlistDictionary info{{"CFBundleIdentifier", "com.example.sample"},
                         {"CFBundleName", "Sample"},
                         {"CFBundleDisplayName", "Sample"},
                         {"CFBundleShortVersionString", "1.0"},
                         {"CFBundleVersion", "1"},
                         {"TessraQuillApiKey", "demo-key"},
                         {"TessraQuillTrackID", "demo-track"}};
    platform::writePropertyList(folder / "Info.plist", PlistValue(info));
    return folder.string();
}

/// The app's service extension: App.app/PlugIns/NAME.appex, made when absent. It carries
/// the app's SDK keys, as the extension target of a real app repeats them.
std::string extensionBundle(const std::string& appFolder, const std::string& name) {
    using namespace tessrakite;
    const auto folder = std::filesystem::path(appFolder) / "PlugIns" / (name + ".appex");
    if (std::filesystem::exists(folder / "Info.plist")) return folder.string();
    const auto app = platform::Bundle::open(appFolder);
    const auto appIdentifier = app ? app->bundleIdentifier() : std::nullopt;
    if (!appIdentifier) {
        std::cerr << "tessra-host: the app bundle " << appFolder << " has no CFBundleIdentifier\n";
        return {};
    }
    PlistDictionary info{{"CFBundleIdentifier", *appIdentifier + "." + name},
                         {"CFBundleName", name},
                         {"CFBundlePackageType", "XPC!"},
                         {"CFBundleShortVersionString", app->string("CFBundleShortVersionString").value_or("1.0")},
                         {"CFBundleVersion", app->string("CFBundleVersion").value_or("1")}};
    for (const auto& [key, value] : app->infoDictionary())
        if (key.rfind("TessraQuill", 0) == 0) info.insert_or_assign(key, value);
    platform::FileRoots::ensureDirectory(folder);
    if (!platform::writePropertyList(folder / "Info.plist", PlistValue(info))) {
        std::cerr << "tessra-host: cannot write " << (folder / "Info.plist").string() << "\n";
        return {};
    }
    return folder.string();
}

}  // namespace

int main(int argc, char** argv) {
    std::string bundle, script, extension;
    std::string platformName = TESSRA_DESKTOP_PLATFORM ? "desktop" : "headless";  // as the SDK was built
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--bundle") && i + 1 < argc)
            bundle = argv[++i];
        else if (!std::strcmp(argv[i], "--script") && i + 1 < argc)
            script = argv[++i];
        else if (!std::strcmp(argv[i], "--extension") && i + 1 < argc && *argv[i + 1])
            extension = argv[++i];
        else if (!std::strcmp(argv[i], "--platform") && i + 1 < argc)
            platformName = argv[++i];
        else
            return usage();
    }
    if (platformName != "headless" && platformName != "desktop") return usage();
    if (platformName == "desktop" && !TESSRA_DESKTOP_PLATFORM) {
        std::cerr << "tessra-host: this build has no desktop platform (configure with TESSRA_PLATFORM=desktop)\n";
        return 2;
    }
    if (bundle.empty()) bundle = sampleBundle();
    if (!extension.empty()) {
        // The extension runs with its own bundle as the main one; the SDK finds the app's
        // shared store through the folders around it.
        bundle = extensionBundle(bundle, extension);
        if (bundle.empty()) return 2;
    }

    std::ifstream file;
    if (!script.empty()) {
        file.open(script);
        if (!file) {
            std::cerr << "tessra-host: cannot read " << script << "\n";
            return 2;
        }
    }
    std::istream& in = script.empty() ? std::cin : file;

    tessra_host::Output output;
    tessra_host::Host host(output, bundle, !extension.empty(), platformName == "desktop");
    std::string line;
    while (std::getline(in, line))
        if (!host.runLine(line)) break;
    return 0;
}
