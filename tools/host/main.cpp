// tessra-host: a scriptable sample app. Reads operations as JSON lines and writes
// everything the SDK does as JSON lines.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/FileRoots.hpp>

#include "Host.hpp"

namespace {

int usage() {
    std::cerr << "usage: tessra-host [--bundle DIR] [--script FILE]\n";
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

}  // namespace

int main(int argc, char** argv) {
    std::string bundle, script;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--bundle") && i + 1 < argc)
            bundle = argv[++i];
        else if (!std::strcmp(argv[i], "--script") && i + 1 < argc)
            script = argv[++i];
        else
            return usage();
    }
    if (bundle.empty()) bundle = sampleBundle();

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
    tessra_host::Host host(output, bundle);
    std::string line;
    while (std::getline(in, line))
        if (!host.runLine(line)) break;
    return 0;
}
