// Arbitrary bytes, read as JSON, as the user info of an administrative push. The fatal
// stops for malformed pushes are expected outcomes (fuzz builds unwind them as FatalStop).
// A finding is a crash, a sanitizer report, any other exception leaving the entry point,
// a completion called twice or with both results, or a result that disagrees with what
// the payload holds.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include <tessrakite/core/StorageManager.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/location/Beacons.hpp>
#include <tessrakite/location/Geofences.hpp>
#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/Console.hpp>

#include "platform/FatalStop.hpp"
#include "platform/Nesting.hpp"
#include "FuzzCheck.hpp"

namespace {

using namespace tessrakite;
using Json = nlohmann::ordered_json;

using fuzz::check;

// Expected outcomes are counted and printed at exit, so a run shows how often the stops hit.
std::size_t inputs = 0, fatalStops = 0;

// A scratch app with push on: the entry point reads nothing while push is off.
void setUpApp() {
    Console::setSink([](std::string_view) {});
    char pattern[] = "/tmp/tessra-fuzz-admin-XXXXXX";
    const char* home = ::mkdtemp(pattern);
    check(home != nullptr, "a scratch TESSRA_HOME");
    static const std::filesystem::path scratch = home;
    std::atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(scratch, ignored);
    });
    ::setenv("TESSRA_HOME", home, 1);
    const auto bundle = std::filesystem::path(home) / "Fuzz.app";
    std::filesystem::create_directories(bundle);
    PlistDictionary info{{"CFBundleIdentifier", "com.example.fuzz"}};
    check(platform::writePropertyList(bundle / "Info.plist", PlistValue(info)), "the bundle's Info.plist");
    platform::Bundle::setMain(platform::Bundle::open(bundle));
    TessraQuill::storageManager().set(StorageKey::push, PlistValue(true));
    std::atexit([] { std::fprintf(stderr, "administrative pushes: %zu, fatal stops: %zu\n", inputs, fatalStops); });
}

// How many elements the list under `key` has when it is a list of objects.
std::optional<std::size_t> objectListSize(const Json& alert, const char* key) {
    auto it = alert.find(key);
    if (it == alert.end() || !it->is_array()) return std::nullopt;
    for (const auto& element : *it)
        if (!element.is_object()) return std::nullopt;
    return it->size();
}

template <class Record>
void checkRoundTrip(const Record& record, const char* what) {
    Json json = record;
    check(json.get<Record>() == record, what);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool ready = [] {
        setUpApp();
        return true;
    }();
    (void)ready;

    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (!nesting::jsonWithinLimit(text)) return 0;  // refused before any push code runs
    auto json = Json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (json.is_discarded() || !json.is_object()) return 0;
    const auto userInfo = *PlistValue::fromJSON(json).asDictionary();
    ++inputs;

    int calls = 0;
    std::optional<Geofences> geofences;
    std::optional<Beacons> beacons;
    try {
        TessraQuill::didReciveAdministrativeNotificationWith(userInfo,
                                                             [&](std::optional<Geofences> g, std::optional<Beacons> b) {
                                                                 ++calls;
                                                                 geofences = std::move(g);
                                                                 beacons = std::move(b);
                                                             });
    } catch (const FatalStop&) {
        check(calls == 0, "a fatal stop comes before the completion");
        ++fatalStops;
        return 0;
    }
    check(calls <= 1, "the completion runs at most once");
    check(!(geofences && beacons), "at most one of the two results");

    // What the payload holds: the alert's "gl" when it is a list of objects, else its "bl".
    std::optional<std::size_t> gl, bl;
    if (auto aps = json.find("aps"); aps != json.end() && aps->is_object())
        if (auto alert = aps->find("alert"); alert != aps->end() && alert->is_object()) {
            gl = objectListSize(*alert, "gl");
            if (!gl) bl = objectListSize(*alert, "bl");
        }
    check(calls == (gl || bl ? 1 : 0), "a completion exactly when the alert holds a list");
    if (gl) {
        check(geofences && geofences->gl.size() == *gl, "one geofence per element");
        checkRoundTrip(*geofences, "Geofences survive their own encoding");
    }
    if (bl) {
        check(beacons && beacons->bl.size() == *bl, "one beacon per element");
        checkRoundTrip(*beacons, "Beacons survive their own encoding");
    }
    return 0;
}
