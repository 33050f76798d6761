#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include <tessrakite/core/Device.hpp>
#include <tessrakite/platform/Platform.hpp>

#include "TestEnv.hpp"

namespace tessrakite {
namespace {

class SimulatedModel {
public:
    explicit SimulatedModel(const char* id) { ::setenv("SIMULATOR_MODEL_IDENTIFIER", id, 1); }
    ~SimulatedModel() { ::unsetenv("SIMULATOR_MODEL_IDENTIFIER"); }
};

TEST(Device, NamesTheModelOfTheUnameOrSimulatedMachineIdentifier) {
    ::unsetenv("SIMULATOR_MODEL_IDENTIFIER");
    EXPECT_EQ(modelName(), platform::currentPlatform()->device->machine());
    const std::pair<const char*, const char*> cases[] = {
        {"x86_64", "simulator/sandbox"},
        {"iPhone14,2", "iPhone 13 Pro"},
        {"iPhone15,2", "Unrecognized"},
        {"unrecognized", "?unrecognized?"},
        {"", "Unrecognized"},
    };
    for (const auto& [identifier, name] : cases) {
        SimulatedModel simulated(identifier);
        EXPECT_EQ(modelName(), identifier);
        EXPECT_EQ(Device().getDeviceModel(), name) << identifier;
    }
}

TEST(Device, IconIsTheLastListedIconFileOfTheMainBundle) {
    test::ScopedHome home;
    auto iconsWith = [](PlistArray files) {
        return PlistDictionary{
            {"CFBundleIcons", PlistDictionary{{"CFBundlePrimaryIcon", PlistDictionary{{"CFBundleIconFiles", files}}}}}};
    };
    auto bundle = test::installMainBundle(home.path(), "com.example.icon", iconsWith({"AppIcon20", "AppIcon60"}));
    std::ofstream(bundle->bundleURL() / "AppIcon60.png") << "png";
    ASSERT_TRUE(applicationIcon().has_value());
    EXPECT_EQ(applicationIcon()->filename(), "AppIcon60.png");

    test::installMainBundle(home.path() / "empty", "com.example.empty", iconsWith({}));
    EXPECT_FALSE(applicationIcon().has_value());
    test::installMainBundle(home.path() / "none", "com.example.none");
    EXPECT_FALSE(applicationIcon().has_value());
    platform::Bundle::setMain(nullptr);
}

}  // namespace
}  // namespace tessrakite
