#include "TestEnv.hpp"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>

#include <unistd.h>

#include <tessrakite/platform/Console.hpp>

namespace tessrakite::test {

TempFolder::TempFolder() {
    std::random_device random;
    path_ = std::filesystem::temp_directory_path() /
            ("tessra-test-" + std::to_string(::getpid()) + "-" + std::to_string(random()));
    std::filesystem::create_directories(path_);
}

TempFolder::~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

ScopedHome::ScopedHome() {
    if (const char* previous = std::getenv("TESSRA_HOME")) previous_ = previous;
    ::setenv("TESSRA_HOME", path().c_str(), 1);
}

ScopedHome::~ScopedHome() {
    if (previous_)
        ::setenv("TESSRA_HOME", previous_->c_str(), 1);
    else
        ::unsetenv("TESSRA_HOME");
}

std::filesystem::path makeBundle(const std::filesystem::path& folder, const PlistDictionary& info) {
    std::filesystem::create_directories(folder);
    platform::writePropertyList(folder / "Info.plist", PlistValue(info));
    return folder;
}

std::shared_ptr<platform::Bundle> installMainBundle(const std::filesystem::path& root, const std::string& identifier,
                                                    PlistDictionary extra) {
    PlistDictionary info = std::move(extra);
    info["CFBundleIdentifier"] = identifier;
    if (!info.count("CFBundleDisplayName")) info["CFBundleDisplayName"] = "Sample";
    if (!info.count("CFBundleShortVersionString")) info["CFBundleShortVersionString"] = "1.0";
    if (!info.count("CFBundleVersion")) info["CFBundleVersion"] = "1";
    auto bundle = platform::Bundle::open(makeBundle(root / "Sample.app", info));
    platform::Bundle::setMain(bundle);
    return bundle;
}

ConsoleCapture::ConsoleCapture() : state_(std::make_shared<State>()) {
    auto state = state_;
    Console::setSink([state](std::string_view line) {
        std::lock_guard lock(state->mutex);
        state->lines.emplace_back(line);
    });
}

ConsoleCapture::~ConsoleCapture() { Console::setSink(nullptr); }

std::vector<std::string> ConsoleCapture::lines() const {
    std::lock_guard lock(state_->mutex);
    return state_->lines;
}

bool ConsoleCapture::contains(const std::string& line) const { return count(line) > 0; }

std::size_t ConsoleCapture::count(const std::string& line) const {
    std::lock_guard lock(state_->mutex);
    std::size_t n = 0;
    for (const auto& l : state_->lines)
        if (l == line) ++n;
    return n;
}

void ConsoleCapture::clear() {
    std::lock_guard lock(state_->mutex);
    state_->lines.clear();
}

std::string readFile(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::filesystem::path testData(const std::string& name) { return std::filesystem::path(TESSRA_TEST_DATA_DIR) / name; }

std::filesystem::path binary(const std::string& name) {
    if (const char* dir = std::getenv("TESSRA_TEST_BIN_DIR")) return std::filesystem::path(dir) / name;
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
}

}  // namespace tessrakite::test
