#include "GifBuilder.hpp"

#include <stdexcept>
#include <string>
#include <utility>

#include <gif_lib.h>

namespace tessrakite::test {

GifFramePlan GifFramePlan::filled(int left, int top, int width, int height, std::uint8_t index) {
    GifFramePlan plan;
    plan.left = left;
    plan.top = top;
    plan.width = width;
    plan.height = height;
    plan.indices.assign(static_cast<std::size_t>(width * height), index);
    return plan;
}

namespace {

int append(GifFileType* gif, const GifByteType* bytes, int count) {
    auto* out = static_cast<Data*>(gif->UserData);
    out->insert(out->end(), bytes, bytes + count);
    return count;
}

void check(int rc, const char* what) {
    if (rc == GIF_ERROR) throw std::runtime_error(std::string("giflib: ") + what);
}

}  // namespace

Data makeGif(int width, int height, const std::vector<Rgb>& palette, std::optional<int> loopCount,
             const std::vector<GifFramePlan>& frames) {
    Data out;
    int error = 0;
    GifFileType* gif = EGifOpen(&out, append, &error);
    if (!gif) throw std::runtime_error("giflib: cannot open the encoder");
    EGifSetGifVersion(gif, true);
    std::vector<GifColorType> colors;
    for (const auto& c : palette) colors.push_back(GifColorType{c[0], c[1], c[2]});
    ColorMapObject* map = GifMakeMapObject(static_cast<int>(colors.size()), colors.data());
    check(EGifPutScreenDesc(gif, width, height, 8, 0, map), "screen");
    GifFreeMapObject(map);
    if (loopCount) {
        const GifByteType app[] = {'N', 'E', 'T', 'S', 'C', 'A', 'P', 'E', '2', '.', '0'};
        const GifByteType loop[] = {1, static_cast<GifByteType>(*loopCount & 0xFF),
                                    static_cast<GifByteType>((*loopCount >> 8) & 0xFF)};
        check(EGifPutExtensionLeader(gif, APPLICATION_EXT_FUNC_CODE), "loop");
        check(EGifPutExtensionBlock(gif, sizeof app, app), "loop");
        check(EGifPutExtensionBlock(gif, sizeof loop, loop), "loop");
        check(EGifPutExtensionTrailer(gif), "loop");
    }
    for (const auto& frame : frames) {
        GraphicsControlBlock control{};
        control.DisposalMode = frame.disposal;
        control.DelayTime = frame.delayCs;
        control.TransparentColor = frame.transparent;
        GifByteType block[4];
        const auto length = EGifGCBToExtension(&control, block);
        check(EGifPutExtension(gif, GRAPHICS_EXT_FUNC_CODE, static_cast<int>(length), block), "control");
        check(EGifPutImageDesc(gif, frame.left, frame.top, frame.width, frame.height, frame.interlaced, nullptr),
              "image");
        // An interlaced image is written in its four passes' row order.
        std::vector<int> order;
        if (frame.interlaced) {
            for (auto [start, step] : {std::pair{0, 8}, {4, 8}, {2, 4}, {1, 2}})
                for (int y = start; y < frame.height; y += step) order.push_back(y);
        } else {
            for (int y = 0; y < frame.height; ++y) order.push_back(y);
        }
        std::vector<GifPixelType> row(static_cast<std::size_t>(frame.width));
        for (int y : order) {
            for (int x = 0; x < frame.width; ++x)
                row[static_cast<std::size_t>(x)] = frame.indices[static_cast<std::size_t>(y * frame.width + x)];
            check(EGifPutLine(gif, row.data(), frame.width), "line");
        }
    }
    check(EGifCloseFile(gif, &error), "close");
    return out;
}

}  // namespace tessrakite::test
