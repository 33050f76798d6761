#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace tessrakite::sandbox {

/// One file under /img/.
struct Image {
    std::string type;   // Content-Type
    std::string bytes;
    int width = 0;      // 0: the bytes are not a complete image
    int height = 0;
};

/// The images the sandbox serves, drawn once at start-up from fixed seeds, so that every run
/// serves the same bytes and no binary sits in the repository.
class ImageLibrary {
public:
    ImageLibrary();
    /// The image stored under `name` ("photo.jpg", ...), or null.
    const Image* find(std::string_view name) const;

    /// What /img/huge.jpg announces: far more than any notification image should be.
    static constexpr std::size_t kHugeBytes = std::size_t{50} * 1024 * 1024;

private:
    std::map<std::string, Image, std::less<>> images_;
};

}  // namespace tessrakite::sandbox
