#include <tessrakite/core/Device.hpp>

#include <cstdlib>

#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/Platform.hpp>

namespace tessrakite {

std::string_view rawValue(Model model) {
    switch (model) {
        case Model::simulator: return "simulator/sandbox";
        case Model::iPod1: return "iPod 1";
        case Model::iPod2: return "iPod 2";
        case Model::iPod3: return "iPod 3";
        case Model::iPod4: return "iPod 4";
        case Model::iPod5: return "iPod 5";
        case Model::iPad2: return "iPad 2";
        case Model::iPad3: return "iPad 3";
        case Model::iPad4: return "iPad 4";
        case Model::iPad5: return "iPad 5";
        case Model::iPhone4: return "iPhone 4";
        case Model::iPhone4S: return "iPhone 4S";
        case Model::iPhone5: return "iPhone 5";
        case Model::iPhone5S: return "iPhone 5S";
        case Model::iPhone5C: return "iPhone 5C";
        case Model::iPadMini1: return "iPad Mini 1";
        case Model::iPadMini2: return "iPad Mini 2";
        case Model::iPadMini3: return "iPad Mini 3";
        case Model::iPadAir1: return "iPad Air 1";
        case Model::iPadAir2: return "iPad Air 2";
        case Model::iPadPro9_7Inch: return "iPad Pro 9.7\"";
        case Model::iPadPro9_7InchCellular: return "iPad Pro 9.7\" cellular";
        case Model::iPadPro12_9Inch: return "iPad Pro 12.9\"";
        case Model::iPadPro12_9InchCellular: return "iPad Pro 12.9\" cellular";
        case Model::iPadPro212_9Inch: return "iPad Pro 2 12.9\"";
        case Model::iPadPro212_9InchCellular: return "iPad Pro 2 12.9\" cellular";
        case Model::iPhone6: return "iPhone 6";
        case Model::iPhone6Plus: return "iPhone 6 Plus";
        case Model::iPhone6S: return "iPhone 6S";
        case Model::iPhone6SPlus: return "iPhone 6S Plus";
        case Model::iPhoneSE: return "iPhone SE";
        case Model::iPhone7: return "iPhone 7";
        case Model::iPhone7Plus: return "iPhone 7 Plus";
        case Model::iPhone8: return "iPhone 8";
        case Model::iPhone8Plus: return "iPhone 8 Plus";
        case Model::iPhoneX: return "iPhone X";
        case Model::iPhoneXS: return "iPhone XS";
        case Model::iPhoneXSMax: return "iPhone XSMax";
        case Model::iPhoneXSMaxChina: return "iPhone XSMaxChina";
        case Model::iPhoneXR: return "iPhone XR";
        case Model::iPhone11: return "iPhone11";
        case Model::iPhone11Pro: return "iPhone11Pro";
        case Model::iPhone11ProMax: return "iPhone11ProMax";
        case Model::iPhoneSE2ndGen: return "iPhone SE 2nd Gen";
        case Model::iPhone12Mini: return "iPhone 12 Mini";
        case Model::iPhone12: return "iPhone 12";
        case Model::iPhone12Pro: return "iPhone 12 Pro";
        case Model::iPhone12ProMax: return "iPhone 12 Pro Max";
        case Model::iPhone13Pro: return "iPhone 13 Pro";
        case Model::iPhone13ProMax: return "iPhone 13 Pro Max";
        case Model::iPhone13Mini: return "iPhone 13 Mini";
        case Model::iPhone13: return "iPhone 13";
        case Model::iPadPro2ndGenWiFiPlusCellular: return "iPad Pro 2nd Gen (WiFi+Cellular)";
        case Model::iPadPro10_5Inch2ndGen: return "iPad Pro 10.5-inch 2nd Gen";
        case Model::iPad6thGenWiFi: return "iPad 6th Gen (WiFi)";
        case Model::iPad6thGenWiFiPlusCellular: return "iPad 6th Gen (WiFi+Cellular)";
        case Model::iPad7thGen10_2InchWiFi: return "iPad 7th Gen 10.2-inch (WiFi)";
        case Model::iPad7thGen10_2InchWiFiPlusCellular: return "iPad 7th Gen 10.2-inch (WiFi+Cellular)";
        case Model::iPadPro11Inch3rdGenWiFi: return "iPad Pro 11 inch 3rd Gen (WiFi)";
        case Model::iPadPro11Inch3rdGen1TBWiFi: return "iPad Pro 11 inch 3rd Gen (1TB, WiFi)";
        case Model::iPadPro11Inch3rdGenWiFiPlusCellular: return "iPad Pro 11 inch 3rd Gen (WiFi+Cellular)";
        case Model::iPadPro11Inch3rdGen1TBWiFiPlusCellular: return "iPad Pro 11 inch 3rd Gen (1TB, WiFi+Cellular)";
        case Model::iPadPro12_9Inch3rdGenWiFi: return "iPad Pro 12.9 inch 3rd Gen (WiFi)";
        case Model::iPadPro12_9Inch3rdGen1TBWiFi: return "iPad Pro 12.9 inch 3rd Gen (1TB, WiFi)";
        case Model::iPadPro12_9Inch3rdGenWiFiPlusCellular: return "iPad Pro 12.9 inch 3rd Gen (WiFi+Cellular)";
        case Model::iPadPro12_9Inch3rdGen1TBWiFiPlusCellular: return "iPad Pro 12.9 inch 3rd Gen (1TB, WiFi+Cellular)";
        case Model::iPadPro11Inch4thGenWiFi: return "iPad Pro 11 inch 4th Gen (WiFi)";
        case Model::iPadPro11Inch4thGenWiFiPlusCellular: return "iPad Pro 11 inch 4th Gen (WiFi+Cellular)";
        case Model::iPadPro12_9Inch4thGenWiFi: return "iPad Pro 12.9 inch 4th Gen (WiFi)";
        case Model::iPadPro12_9Inch4thGenWiFiPlusCellular: return "iPad Pro 12.9 inch 4th Gen (WiFi+Cellular)";
        case Model::iPadMini5thGenWiFi: return "iPad mini 5th Gen (WiFi)";
        case Model::iPadMini5thGen: return "iPad mini 5th Gen";
        case Model::iPadAir3rdGenWiFi: return "iPad Air 3rd Gen (WiFi)";
        case Model::iPadAir3rdGen: return "iPad Air 3rd Gen";
        case Model::iPad8thGenWiFi: return "iPad 8th Gen (WiFi)";
        case Model::iPad8thGenWiFiPlusCellular: return "iPad 8th Gen (WiFi+Cellular)";
        case Model::iPad9thGen: return "iPad 9th Gen";
        case Model::iPadMini6thGen: return "iPad mini 6th Gen";
        case Model::iPadAir4thGenWiFi: return "iPad Air 4th Gen (WiFi)";
        case Model::iPadAir4thGenWiFiPlusCellular: return "iPad Air 4th Gen (WiFi+Cellular)";
        case Model::iPadPro11Inch5thGen: return "iPad Pro 11 inch 5th Gen";
        case Model::iPadPro12_9Inch5thGen: return "iPad Pro 12.9 inch 5th Gen";
        case Model::unrecognized: return "?unrecognized?";
    }
    return "?unrecognized?";
}

Device::Device()
    : modelMap{
        {"i386", Model::simulator},
        {"x86_64", Model::simulator},
        {"iPod1,1", Model::iPod1},
        {"iPod2,1", Model::iPod2},
        {"iPod3,1", Model::iPod3},
        {"iPod4,1", Model::iPod4},
        {"iPod5,1", Model::iPod5},
        {"iPad2,1", Model::iPad2},
        {"iPad2,2", Model::iPad2},
        {"iPad2,3", Model::iPad2},
        {"iPad2,4", Model::iPad2},
        {"iPad2,5", Model::iPadMini1},
        {"iPad2,6", Model::iPadMini1},
        {"iPad2,7", Model::iPadMini1},
        {"iPhone3,1", Model::iPhone4},
        {"iPhone3,2", Model::iPhone4},
        {"iPhone3,3", Model::iPhone4},
        {"iPhone4,1", Model::iPhone4S},
        {"iPhone5,1", Model::iPhone5},
        {"iPhone5,2", Model::iPhone5},
        {"iPhone5,3", Model::iPhone5C},
        {"iPhone5,4", Model::iPhone5C},
        {"iPad3,1", Model::iPad3},
        {"iPad3,2", Model::iPad3},
        {"iPad3,3", Model::iPad3},
        {"iPad3,4", Model::iPad4},
        {"iPad3,5", Model::iPad4},
        {"iPad3,6", Model::iPad4},
        {"iPhone6,1", Model::iPhone5S},
        {"iPhone6,2", Model::iPhone5S},
        {"iPad4,2", Model::iPadAir1},
        {"iPad5,4", Model::iPadAir2},
        {"iPad4,4", Model::iPadMini2},
        {"iPad4,5", Model::iPadMini2},
        {"iPad4,6", Model::iPadMini2},
        {"iPad4,7", Model::iPadMini3},
        {"iPad4,8", Model::iPadMini3},
        {"iPad4,9", Model::iPadMini3},
        {"iPad6,3", Model::iPadPro9_7Inch},
        {"iPad6,4", Model::iPadPro9_7InchCellular},
        {"iPad6,12", Model::iPad5},
        {"iPad6,7", Model::iPadPro12_9Inch},
        {"iPad6,8", Model::iPadPro12_9InchCellular},
        {"iPad7,1", Model::iPadPro212_9Inch},
        {"iPad7,2", Model::iPadPro212_9InchCellular},
        {"iPad7,3", Model::iPadPro10_5Inch2ndGen},
        {"iPad7,4", Model::iPadPro2ndGenWiFiPlusCellular},
        {"iPad7,5", Model::iPad6thGenWiFi},
        {"iPad7,6", Model::iPad6thGenWiFiPlusCellular},
        {"iPad7,11", Model::iPad7thGen10_2InchWiFi},
        {"iPad7,12", Model::iPad7thGen10_2InchWiFiPlusCellular},
        {"iPad8,1", Model::iPadPro11Inch3rdGenWiFi},
        {"iPad8,2", Model::iPadPro11Inch3rdGen1TBWiFi},
        {"iPad8,3", Model::iPadPro11Inch3rdGenWiFiPlusCellular},
        {"iPad8,4", Model::iPadPro11Inch3rdGen1TBWiFiPlusCellular},
        {"iPad8,5", Model::iPadPro12_9Inch3rdGenWiFi},
        {"iPad8,6", Model::iPadPro12_9Inch3rdGen1TBWiFi},
        {"iPad8,7", Model::iPadPro12_9Inch3rdGenWiFiPlusCellular},
        {"iPad8,8", Model::iPadPro12_9Inch3rdGen1TBWiFiPlusCellular},
        {"iPad8,9", Model::iPadPro11Inch4thGenWiFi},
        {"iPad8,10", Model::iPadPro11Inch4thGenWiFiPlusCellular},
        {"iPad8,11", Model::iPadPro12_9Inch4thGenWiFi},
        {"iPad8,12", Model::iPadPro12_9Inch4thGenWiFiPlusCellular},
        {"iPad11,1", Model::iPadMini5thGenWiFi},
        {"iPad11,2", Model::iPadMini5thGen},
        {"iPad11,3", Model::iPadAir3rdGenWiFi},
        {"iPad11,4", Model::iPadAir3rdGen},
        {"iPad11,6", Model::iPad8thGenWiFi},
        {"iPad11,7", Model::iPad8thGenWiFiPlusCellular},
        {"iPad12,2", Model::iPad9thGen},
        {"iPad14,2", Model::iPadMini6thGen},
        {"iPad13,1", Model::iPadAir4thGenWiFi},
        {"iPad13,2", Model::iPadAir4thGenWiFiPlusCellular},
        {"iPad13,4", Model::iPadPro11Inch5thGen},
        {"iPad13,5", Model::iPadPro11Inch5thGen},
        {"iPad13,6", Model::iPadPro11Inch5thGen},
        {"iPad13,7", Model::iPadPro11Inch5thGen},
        {"iPad13,8", Model::iPadPro12_9Inch5thGen},
        {"iPad13,9", Model::iPadPro12_9Inch5thGen},
        {"iPad13,10", Model::iPadPro12_9Inch5thGen},
        {"iPad13,11", Model::iPadPro12_9Inch5thGen},
        {"iPhone7,1", Model::iPhone6Plus},
        {"iPhone7,2", Model::iPhone6},
        {"iPhone8,1", Model::iPhone6S},
        {"iPhone8,2", Model::iPhone6SPlus},
        {"iPhone8,4", Model::iPhoneSE},
        {"iPhone9,1", Model::iPhone7},
        {"iPhone9,3", Model::iPhone7},
        {"iPhone9,2", Model::iPhone7Plus},
        {"iPhone9,4", Model::iPhone7Plus},
        {"iPhone10,3", Model::iPhoneX},
        {"iPhone10,4", Model::iPhone8},
        {"iPhone10,5", Model::iPhone8Plus},
        {"iPhone10,6", Model::iPhoneX},
        {"iPhone11,2", Model::iPhoneXS},
        {"iPhone11,4", Model::iPhoneXSMax},
        {"iPhone11,6", Model::iPhoneXSMaxChina},
        {"iPhone11,8", Model::iPhoneXR},
        {"iPhone12,1", Model::iPhone11},
        {"iPhone12,3", Model::iPhone11Pro},
        {"iPhone12,5", Model::iPhone11ProMax},
        {"iPhone12,8", Model::iPhoneSE2ndGen},
        {"iPhone13,1", Model::iPhone12Mini},
        {"iPhone13,2", Model::iPhone12},
        {"iPhone13,3", Model::iPhone12Pro},
        {"iPhone13,4", Model::iPhone12ProMax},
        {"iPhone14,2", Model::iPhone13Pro},
        {"iPhone14,3", Model::iPhone13ProMax},
        {"iPhone14,4", Model::iPhone13Mini},
        {"iPhone14,5", Model::iPhone13},
        {"unrecognized", Model::unrecognized},
      } {
}

std::string Device::getDeviceModel() const {
    auto it = modelMap.find(modelName());
    if (it == modelMap.end()) return "Unrecognized";
    return std::string(rawValue(it->second));
}

std::string modelName() {
    if (const char* simulated = std::getenv("SIMULATOR_MODEL_IDENTIFIER")) return simulated;
    return platform::currentPlatform()->device->machine();
}

std::optional<std::string> bundleDisplayName() { return platform::Bundle::main()->displayName(); }

std::optional<std::filesystem::path> applicationIcon() {
    auto bundle = platform::Bundle::main();
    const auto* icons = bundle->object("CFBundleIcons");
    const auto* primary = icons ? icons->find("CFBundlePrimaryIcon") : nullptr;
    const auto* files = primary ? primary->find("CFBundleIconFiles") : nullptr;
    if (!files || !files->asArray() || files->asArray()->empty()) return std::nullopt;
    const auto* name = files->asArray()->back().asString();
    if (!name) return std::nullopt;
    return bundle->pathForResource(*name);
}

}  // namespace tessrakite
