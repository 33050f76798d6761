#include <tessrakite/gif/GifDecoder.hpp>

#include <algorithm>
#include <cstring>

#include <gif_lib.h>

namespace tessrakite {

namespace {

struct Reader {
    std::shared_ptr<const Data> bytes;
    std::size_t position = 0;
};

int readBytes(GifFileType* gif, GifByteType* out, int wanted) {
    auto* reader = static_cast<Reader*>(gif->UserData);
    if (wanted <= 0) return 0;
    const std::size_t left = reader->bytes->size() - reader->position;
    const std::size_t count = std::min(left, static_cast<std::size_t>(wanted));
    std::memcpy(out, reader->bytes->data() + reader->position, count);
    reader->position += count;
    return static_cast<int>(count);
}

// A delay of 0 or 1 centisecond plays at 10, as browsers do.
double delaySeconds(int centiseconds) { return (centiseconds <= 1 ? 10 : centiseconds) / 100.0; }

struct Rect {
    int x = 0, y = 0, width = 0, height = 0;
};

}  // namespace

struct GifDecoder::State {
    Reader reader;
    GifFileType* gif = nullptr;
    int width = 0;
    int height = 0;
    std::uint64_t maxPixels = 0;
    std::vector<std::uint8_t> canvas;  // RGBA
    // What the last frame leaves behind when the next one starts.
    int pendingDisposal = DISPOSAL_UNSPECIFIED;
    Rect pendingRect;
    std::vector<std::uint8_t> saved;  // the rectangle under a "previous" frame
    // The graphic control extension waiting for its frame.
    GraphicsControlBlock control{};
    std::vector<std::uint8_t> row;
    std::optional<int> loopCount;
    std::size_t framesRead = 0;
    bool finished = false;
    bool damaged = false;

    ~State() {
        if (gif) DGifCloseFile(gif, nullptr);
    }

    void resetControl() {
        control = GraphicsControlBlock{};
        control.DisposalMode = DISPOSAL_UNSPECIFIED;
        control.TransparentColor = NO_TRANSPARENT_COLOR;
    }

    bool fail() {
        damaged = true;
        finished = true;
        return false;
    }

    bool readExtension() {
        int code = 0;
        GifByteType* block = nullptr;
        if (DGifGetExtension(gif, &code, &block) == GIF_ERROR) return fail();
        bool netscape = false;
        if (code == GRAPHICS_EXT_FUNC_CODE && block && block[0] >= 4) {
            if (DGifExtensionToGCB(block[0], block + 1, &control) == GIF_ERROR) resetControl();
        } else if (code == APPLICATION_EXT_FUNC_CODE && block && block[0] == 11) {
            netscape = std::memcmp(block + 1, "NETSCAPE2.0", 11) == 0 || std::memcmp(block + 1, "ANIMEXTS1.0", 11) == 0;
        }
        for (;;) {
            if (DGifGetExtensionNext(gif, &block) == GIF_ERROR) return fail();
            if (!block) return true;
            // Sub-block 1 of the looping extension: the repeat count, little-endian.
            if (netscape && block[0] >= 3 && block[1] == 1) loopCount = block[2] | (block[3] << 8);
        }
    }

    void dispose() {
        if (pendingDisposal == DISPOSE_BACKGROUND) {
            for (int y = pendingRect.y; y < pendingRect.y + pendingRect.height; ++y)
                std::memset(pixel(pendingRect.x, y), 0, static_cast<std::size_t>(pendingRect.width) * 4);
        } else if (pendingDisposal == DISPOSE_PREVIOUS && !saved.empty()) {
            copyRect(pendingRect, saved.data(), false);
        }
        pendingDisposal = DISPOSAL_UNSPECIFIED;
    }

    std::uint8_t* pixel(int x, int y) {
        return canvas.data() + (static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)) * 4;
    }

    // Copies the rectangle out of the canvas (save) or back into it.
    void copyRect(const Rect& r, std::uint8_t* buffer, bool save) {
        if (r.width <= 0 || r.height <= 0) return;
        const std::size_t stride = static_cast<std::size_t>(r.width) * 4;
        for (int y = 0; y < r.height; ++y) {
            std::uint8_t* line = pixel(r.x, r.y + y);
            std::uint8_t* copy = buffer + static_cast<std::size_t>(y) * stride;
            if (save)
                std::memcpy(copy, line, stride);
            else
                std::memcpy(line, copy, stride);
        }
    }

    // Reads one image record and draws it onto the canvas; false at a damaged record.
    bool readImage() {
        if (DGifGetImageDesc(gif) == GIF_ERROR) return fail();
        const GifImageDesc& desc = gif->Image;
        const ColorMapObject* colors = desc.ColorMap ? desc.ColorMap : gif->SColorMap;
        const std::uint64_t area = static_cast<std::uint64_t>(desc.Width) * static_cast<std::uint64_t>(desc.Height);
        // A frame wider than any canvas would cost its full decoding for nothing.
        if (!colors || desc.Width <= 0 || desc.Height <= 0 || area > maxPixels) return fail();

        // The part of the frame inside the canvas; the rest is decoded and dropped.
        Rect clip;
        clip.x = std::min(desc.Left, width);
        clip.y = std::min(desc.Top, height);
        clip.width = std::min(desc.Left + desc.Width, width) - clip.x;
        clip.height = std::min(desc.Top + desc.Height, height) - clip.y;

        dispose();
        if (control.DisposalMode == DISPOSE_PREVIOUS) {
            saved.resize(static_cast<std::size_t>(clip.width) * static_cast<std::size_t>(clip.height) * 4);
            copyRect(clip, saved.data(), true);
        }

        row.resize(static_cast<std::size_t>(desc.Width));
        const int transparent = control.TransparentColor;
        const auto drawRow = [&](int y) {
            const int canvasY = desc.Top + y;
            if (canvasY >= height) return;
            for (int x = 0; x < clip.width; ++x) {
                const int index = row[static_cast<std::size_t>(x)];
                // An index past the colour table is left transparent, like the transparent one.
                if (index == transparent || index >= colors->ColorCount) continue;
                const GifColorType& c = colors->Colors[index];
                std::uint8_t* p = pixel(clip.x + x, canvasY);
                p[0] = c.Red;
                p[1] = c.Green;
                p[2] = c.Blue;
                p[3] = 255;
            }
        };
        if (desc.Interlace) {
            static constexpr int kStart[] = {0, 4, 2, 1};
            static constexpr int kStep[] = {8, 8, 4, 2};
            for (int pass = 0; pass < 4; ++pass)
                for (int y = kStart[pass]; y < desc.Height; y += kStep[pass]) {
                    if (DGifGetLine(gif, row.data(), desc.Width) == GIF_ERROR) return fail();
                    drawRow(y);
                }
        } else {
            for (int y = 0; y < desc.Height; ++y) {
                if (DGifGetLine(gif, row.data(), desc.Width) == GIF_ERROR) return fail();
                drawRow(y);
            }
        }
        pendingDisposal = control.DisposalMode;
        pendingRect = clip;
        return true;
    }
};

GifDecoder::GifDecoder(std::unique_ptr<State> state) : state_(std::move(state)) {}
GifDecoder::~GifDecoder() = default;

std::unique_ptr<GifDecoder> GifDecoder::open(std::shared_ptr<const Data> bytes, std::uint64_t maxPixels) {
    if (!bytes || bytes->size() < 13) return nullptr;
    auto state = std::make_unique<State>();
    state->reader.bytes = std::move(bytes);
    state->maxPixels = maxPixels;
    int error = 0;
    // Reads the screen descriptor and the global colour table only.
    state->gif = DGifOpen(&state->reader, readBytes, &error);
    if (!state->gif) return nullptr;
    const int width = state->gif->SWidth;
    const int height = state->gif->SHeight;
    if (width <= 0 || height <= 0 ||
        static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height) > maxPixels)
        return nullptr;
    state->width = width;
    state->height = height;
    state->canvas.assign(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4, 0);
    state->resetControl();
    return std::unique_ptr<GifDecoder>(new GifDecoder(std::move(state)));
}

std::optional<GifFrame> GifDecoder::next() {
    State& s = *state_;
    while (!s.finished) {
        GifRecordType type = UNDEFINED_RECORD_TYPE;
        if (DGifGetRecordType(s.gif, &type) == GIF_ERROR) {
            s.fail();
            break;
        }
        if (type == TERMINATE_RECORD_TYPE) {
            s.finished = true;
        } else if (type == EXTENSION_RECORD_TYPE) {
            s.readExtension();
        } else if (type == IMAGE_DESC_RECORD_TYPE) {
            const double delay = delaySeconds(s.control.DelayTime);
            if (!s.readImage()) break;
            s.resetControl();
            ++s.framesRead;
            const std::size_t size = s.canvas.size();
            std::shared_ptr<std::uint8_t> pixels(new std::uint8_t[size], std::default_delete<std::uint8_t[]>());
            std::memcpy(pixels.get(), s.canvas.data(), size);
            return GifFrame{std::make_shared<platform::Image>(s.width, s.height, std::move(pixels)), delay};
        } else {
            s.fail();
        }
    }
    return std::nullopt;
}

int GifDecoder::width() const { return state_->width; }
int GifDecoder::height() const { return state_->height; }
std::size_t GifDecoder::framesRead() const { return state_->framesRead; }
std::optional<int> GifDecoder::loopCount() const { return state_->loopCount; }
bool GifDecoder::damaged() const { return state_->damaged; }

std::optional<GifAnimation> GifDecoder::decodeAll(const Data& bytes, std::uint64_t maxPixels) {
    auto decoder = open(std::make_shared<const Data>(bytes), maxPixels);
    if (!decoder) return std::nullopt;
    GifAnimation animation;
    animation.width = decoder->width();
    animation.height = decoder->height();
    while (auto frame = decoder->next()) animation.frames.push_back(std::move(*frame));
    if (animation.frames.empty()) return std::nullopt;
    animation.loopCount = decoder->loopCount();
    return animation;
}

}  // namespace tessrakite
