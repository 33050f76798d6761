#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/PlistValue.hpp>

namespace tessrakite::test {

/// A fresh folder under the system's temporary folder, removed with its contents.
class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

/// A scratch TESSRA_HOME for one test, removed afterwards.
class ScopedHome : public TempFolder {
public:
    ScopedHome();
    ~ScopedHome();

private:
    std::optional<std::string> previous_;
};

/// Writes an app bundle folder with an Info.plist; returns the folder.
std::filesystem::path makeBundle(const std::filesystem::path& folder, const PlistDictionary& info);
/// Writes "<root>/<name>.app" with the given identifier (and extra keys) and makes it the
/// main bundle of this process.
std::shared_ptr<platform::Bundle> installMainBundle(const std::filesystem::path& root,
                                                    const std::string& identifier = "com.example.sample",
                                                    PlistDictionary extra = {});

/// Captures console lines while alive; restores the default sink afterwards.
class ConsoleCapture {
public:
    ConsoleCapture();
    ~ConsoleCapture();
    std::vector<std::string> lines() const;
    bool contains(const std::string& line) const;
    std::size_t count(const std::string& line) const;
    void clear();

private:
    struct State {
        std::mutex mutex;
        std::vector<std::string> lines;
    };
    std::shared_ptr<State> state_;
};

/// The bytes of a file; empty when it cannot be read.
std::string readFile(const std::filesystem::path& file);
/// Path of a file under tests/data.
std::filesystem::path testData(const std::string& name);
/// Path of a built executable under build/bin.
std::filesystem::path binary(const std::string& name);

}  // namespace tessrakite::test
