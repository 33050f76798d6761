#pragma once

#include <memory>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/Image.hpp>

namespace tessrakite {

/// Something that shows the frames of a playing GIF (an image view). GifManager holds it
/// weakly and calls showFrame on the main queue, one whole composed frame at a time.
class TESSRA_EXPORT GifTarget {
public:
    virtual ~GifTarget();
    virtual void showFrame(std::shared_ptr<platform::Image> frame) = 0;
};

}  // namespace tessrakite
