#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/Image.hpp>
#include <tessrakite/platform/PlistValue.hpp>

namespace tessrakite {

/// One composed frame: the whole canvas as it looks while the frame shows.
struct TESSRA_EXPORT GifFrame {
    std::shared_ptr<platform::Image> image;
    double delay = 0.1;  // seconds
};

/// A whole GIF decoded at once.
struct TESSRA_EXPORT GifAnimation {
    int width = 0;
    int height = 0;
    std::vector<GifFrame> frames;
    /// The NETSCAPE2.0 loop count: nothing when the GIF has none (it plays once), 0 for
    /// forever, N for N repeats after the first play.
    std::optional<int> loopCount;
};

/// Decodes GIF bytes (giflib) record by record into full-canvas RGBA frames, in order.
///
/// - Delays come from each frame's graphic control extension; 0 and 1 centisecond become
///   10, as browsers do (such files mean "as fast as you can", which nobody wants).
/// - Disposal: none/keep leaves the frame in place, background clears its rectangle to
///   transparent, previous restores what was under it. The canvas starts transparent.
/// - The transparent index leaves the canvas pixel as it was.
/// - A canvas of more than `maxPixels` is refused from the screen descriptor, before any
///   pixel is allocated. A damaged or truncated record ends the frames: those decoded
///   before it stay valid.
class TESSRA_EXPORT GifDecoder {
public:
    /// 16 megapixels (64 MB a canvas): far above an ad banner or a full-screen ad.
    static constexpr std::uint64_t kDefaultMaxPixels = 16ull * 1024 * 1024;

    /// Opens the bytes (shared, not copied); nothing when they do not start a GIF or the
    /// canvas is empty or larger than `maxPixels`.
    static std::unique_ptr<GifDecoder> open(std::shared_ptr<const Data> bytes,
                                            std::uint64_t maxPixels = kDefaultMaxPixels);
    /// Every frame at once; nothing when not even one frame decodes.
    static std::optional<GifAnimation> decodeAll(const Data& bytes, std::uint64_t maxPixels = kDefaultMaxPixels);

    ~GifDecoder();
    GifDecoder(const GifDecoder&) = delete;
    GifDecoder& operator=(const GifDecoder&) = delete;

    int width() const;
    int height() const;
    /// The next composed frame (a picture of its own); nothing after the last frame or at
    /// a damaged record.
    std::optional<GifFrame> next();
    /// Frames returned so far.
    std::size_t framesRead() const;
    /// The loop count read so far (it usually comes before the first frame).
    std::optional<int> loopCount() const;
    /// True when decoding stopped at a damaged or truncated record rather than the end.
    bool damaged() const;

    struct State;

private:
    explicit GifDecoder(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

}  // namespace tessrakite
