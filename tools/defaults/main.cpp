// tessra-defaults: reads and writes the shared store of an app group from the shell.

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>
#include <system_error>
#include <vector>

#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/FileRoots.hpp>
#include <tessrakite/platform/UserDefaults.hpp>

#include "DefaultsValue.hpp"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;
using tessrakite::platform::FileRoots;

constexpr const char* kSynopsis =
    "usage: tessra-defaults [--json] suites\n"
    "       tessra-defaults [--json] read SUITE [KEY]\n"
    "       tessra-defaults write SUITE KEY TYPE VALUE\n"
    "       tessra-defaults delete SUITE KEY\n";
constexpr const char* kDetails =
    "  suites   the app groups under $TESSRA_HOME/AppGroups that hold a store\n"
    "  read     every key of SUITE with its value and type, or only KEY\n"
    "  write    stores VALUE under KEY; TYPE is bool, int, double, string, array or dict\n"
    "           (array and dict VALUEs are JSON, e.g. '{\"utm_source\": \"mail\"}')\n"
    "  delete   removes KEY\n"
    "  --json   print JSON for scripts instead of lines for people\n"
    "  --       ends the options, for a VALUE that starts with '-'\n"
    "The store lives under $TESSRA_HOME (else $XDG_DATA_HOME/tessrakite, else ~/.local/share/tessrakite).\n";

/// A failure to report: the message goes to stderr, the code is the exit status.
struct Failure {
    int code;
    std::string message;
};

Failure usageError(const std::string& message) { return {2, message + "\n" + kSynopsis}; }

std::string dump(const Json& json) { return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace); }

fs::path storeFile(const std::string& suite) { return FileRoots::appGroupContainer(suite) / "defaults.sqlite"; }

bool isSuiteName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

/// The store of an existing suite; reading or deleting never creates one.
std::shared_ptr<tessrakite::platform::UserDefaults> openSuite(const std::string& suite, bool create) {
    if (!isSuiteName(suite)) throw Failure{2, "\"" + suite + "\" is not a suite name (a folder name under AppGroups)"};
    std::error_code error;
    if (!create && !fs::is_regular_file(storeFile(suite), error))
        throw Failure{1, "no store for suite \"" + suite + "\" under " + (FileRoots::home() / "AppGroups").string()};
    auto store = tessrakite::platform::userDefaults(suite);
    if (!store) throw Failure{1, "cannot open the store of suite \"" + suite + "\" (" + storeFile(suite).string() + ")"};
    return store;
}

void printEntry(const std::string& key, const tessrakite::PlistValue& value) {
    std::cout << key << " = " << tessra_defaults::describe(value) << " ("
              << tessrakite::PlistValue::typeName(value.type()) << ")\n";
}

int suites(bool json) {
    std::vector<std::string> names;
    std::error_code error;
    const fs::path root = FileRoots::home() / "AppGroups";
    for (fs::directory_iterator it(root, error), end; !error && it != end; it.increment(error)) {
        std::error_code fileError;
        if (fs::is_regular_file(it->path() / "defaults.sqlite", fileError)) names.push_back(it->path().filename().string());
    }
    std::sort(names.begin(), names.end());
    if (json) {
        std::cout << dump(Json(names)) << "\n";
    } else {
        for (const auto& name : names) std::cout << name << "\n";
    }
    return 0;
}

int read(const std::vector<std::string>& args, bool json) {
    if (args.empty() || args.size() > 2) throw usageError("read takes SUITE and an optional KEY");
    auto store = openSuite(args[0], false);
    if (args.size() == 2) {
        auto value = store->object(args[1]);
        if (!value) throw Failure{1, "no key \"" + args[1] + "\" in suite \"" + args[0] + "\""};
        if (json)
            std::cout << dump(tessra_defaults::typedJson(*value)) << "\n";
        else
            printEntry(args[1], *value);
        return 0;
    }
    const auto all = store->dictionaryRepresentation();
    if (json) {
        Json out = Json::object();
        for (const auto& [key, value] : all) out[key] = tessra_defaults::typedJson(value);
        std::cout << dump(out) << "\n";
    } else {
        for (const auto& [key, value] : all) printEntry(key, value);
    }
    return 0;
}

int write(const std::vector<std::string>& args) {
    if (args.size() != 4) throw usageError("write takes SUITE KEY TYPE VALUE");
    if (args[1].empty()) throw usageError("the key is empty");
    tessrakite::PlistValue value;
    try {
        value = tessra_defaults::parseValue(args[2], args[3]);
    } catch (const tessra_defaults::BadValue& bad) {
        throw Failure{2, bad.what()};
    }
    auto store = openSuite(args[0], true);
    store->set(args[1], value);
    // A failed write is kept only in this process; it reports through the console line.
    if (!store->synchronize()) throw Failure{1, "\"" + args[1] + "\" was not saved"};
    return 0;
}

int remove(const std::vector<std::string>& args) {
    if (args.size() != 2) throw usageError("delete takes SUITE KEY");
    auto store = openSuite(args[0], false);
    if (!store->object(args[1])) throw Failure{1, "no key \"" + args[1] + "\" in suite \"" + args[0] + "\""};
    store->removeObject(args[1]);
    if (!store->synchronize()) throw Failure{1, "\"" + args[1] + "\" was not removed"};
    return 0;
}

int run(int argc, char** argv) {
    bool json = false, optionsEnded = false;
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (!optionsEnded && word == "--") {
            optionsEnded = true;
        } else if (!optionsEnded && word == "--json") {
            json = true;
        } else if (!optionsEnded && (word == "-h" || word == "--help")) {
            std::cout << kSynopsis << kDetails;
            return 0;
        } else if (!optionsEnded && word.size() > 1 && word[0] == '-' && words.size() < 4) {
            // Options come before the VALUE of write, which may be a negative number.
            throw usageError("unknown option " + word);
        } else {
            words.push_back(word);
        }
    }
    if (words.empty()) throw usageError("no command given");
    const std::string command = words.front();
    const std::vector<std::string> args(words.begin() + 1, words.end());
    if (command == "suites") {
        if (!args.empty()) throw usageError("suites takes no arguments");
        return suites(json);
    }
    if (command == "read") return read(args, json);
    if (command == "write") return write(args);
    if (command == "delete") return remove(args);
    throw usageError("unknown command \"" + command + "\"");
}

}  // namespace

int main(int argc, char** argv) {
    // The store's own lines (a damaged file moved aside, a failed write) are diagnostics, not output.
    tessrakite::Console::setSink([](std::string_view line) {
        std::cerr << "tessra-defaults: " << line << std::endl;
    });
    int code = 1;
    try {
        code = run(argc, argv);
    } catch (const Failure& failure) {
        std::cerr << "tessra-defaults: " << failure.message << (failure.message.ends_with('\n') ? "" : "\n");
        code = failure.code;
    } catch (const std::exception& error) {
        std::cerr << "tessra-defaults: " << error.what() << "\n";
    }
    std::cout.flush();
    tessrakite::Console::setSink(nullptr);
    return code;
}
