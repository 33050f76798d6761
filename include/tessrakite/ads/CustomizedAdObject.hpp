#pragma once

#include <memory>
#include <optional>

#include <tessrakite/ads/MavoObject.hpp>
#include <tessrakite/platform/Image.hpp>

namespace tessrakite {

/// A downloaded creative and the ad it belongs to.
struct CustomizedAdObject {
    std::shared_ptr<platform::Image> image;
    std::optional<MavoObject> mavoObject;
};

}  // namespace tessrakite
