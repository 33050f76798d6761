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

TEST(Device, NamesTheModelOfEachMachineIdentifier) {
    struct Case {
        const char* identifier;
        const char* name;
    };
    const Case cases[] = {
        {"x86_64", "simulator/sandbox"},
        {"iPod5,1", "iPod 5"},
        {"iPad2,4", "iPad 2"},
        {"iPad6,3", "iPad Pro 9.7\""},
        {"iPad7,2", "iPad Pro 2 12.9\" cellular"},
        {"iPhone8,4", "iPhone SE"},
        {"iPhone9,3", "iPhone 7"},
        {"iPhone9,4", "iPhone 7 Plus"},
        {"iPhone10,3", "iPhone X"},
        {"iPhone11,6", "iPhone XSMaxChina"},
        {"iPhone12,3", "iPhone11Pro"},
        {"iPhone12,8", "iPhone SE 2nd Gen"},
        {"iPhone14,5", "iPhone 13"},
        {"iPad8,4", "iPad Pro 11 inch 3rd Gen (1TB, WiFi+Cellular)"},
        {"iPad13,11", "iPad Pro 12.9 inch 5th Gen"},
        {"iPhone15,2", "Unrecognized"},
        {"unrecognized", "?unrecognized?"},
        {"", "Unrecognized"},
    };
    Device device;
    for (const auto& c : cases) {
        SimulatedModel simulated(c.identifier);
        EXPECT_EQ(device.getDeviceModel(), c.name) << c.identifier;
    }
    EXPECT_EQ(device.modelMap.size(), 111u);
}

TEST(Device, MachineIdentifierComesFromUnameUnlessSimulated) {
    ::unsetenv("SIMULATOR_MODEL_IDENTIFIER");
    const auto machine = platform::currentPlatform()->device->machine();
    EXPECT_FALSE(machine.empty());
    EXPECT_EQ(modelName(), machine);
    SimulatedModel simulated("iPhone14,2");
    EXPECT_EQ(modelName(), "iPhone14,2");
    EXPECT_EQ(Device().getDeviceModel(), "iPhone 13 Pro");
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
    EXPECT_EQ(bundleDisplayName(), "Sample");

    test::installMainBundle(home.path() / "empty", "com.example.empty", iconsWith({}));
    EXPECT_FALSE(applicationIcon().has_value());
    test::installMainBundle(home.path() / "none", "com.example.none");
    EXPECT_FALSE(applicationIcon().has_value());
    platform::Bundle::setMain(nullptr);
}

}  // namespace
}  // namespace tessrakite
