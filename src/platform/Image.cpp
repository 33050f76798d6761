#include <tessrakite/platform/Image.hpp>

#include <cerrno>
#include <climits>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include <jpeglib.h>
#include <png.h>

// JPEG goes through libjpeg-turbo, row by row into the RGBA buffer: stb's JPEG decoder
// holds full-size planes of every component beside its output, about 1.75 times the
// pixels at the peak, too much for a notification extension with a photo.
// The one translation unit with stb's implementation (PNG). Debian installs it as a system header,
// so our warning flags do not reach it and it needs no pragmas. Static functions keep its
// symbols out of our library (a host may link its own stb).
#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_STATIC
#define STBI_ONLY_PNG
#define STBI_NO_STDIO
#include <stb/stb_image.h>

namespace tessrakite::platform {

Image::Image(int width, int height, std::shared_ptr<std::uint8_t> pixels)
    : width_(width), height_(height), pixels_(std::move(pixels)) {}

namespace {

bool isJpeg(const Data& bytes) { return bytes.size() > 3 && bytes[0] == 0xFF && bytes[1] == 0xD8 && bytes[2] == 0xFF; }

struct JpegError {
    jpeg_error_mgr manager;
    std::jmp_buf jump;
};

void onJpegError(j_common_ptr info) { std::longjmp(reinterpret_cast<JpegError*>(info->err)->jump, 1); }
void onJpegMessage(j_common_ptr) {}

// Plain C state only: libjpeg reports errors with longjmp, which must not skip a
// destructor. The pixels are malloc'ed; nothing when the bytes do not decode or the
// picture has more than `maxPixels`.
std::uint8_t* decodeJpegRows(const Data& bytes, std::uint64_t maxPixels, int* width, int* height) {
    jpeg_decompress_struct info;
    JpegError error;
    std::uint8_t* volatile pixels = nullptr;
    info.err = jpeg_std_error(&error.manager);
    error.manager.error_exit = onJpegError;
    error.manager.output_message = onJpegMessage;
    if (setjmp(error.jump)) {
        jpeg_destroy_decompress(&info);
        std::free(pixels);
        return nullptr;
    }
    jpeg_create_decompress(&info);
    jpeg_mem_src(&info, bytes.data(), static_cast<unsigned long>(bytes.size()));
    if (jpeg_read_header(&info, TRUE) != JPEG_HEADER_OK ||
        static_cast<std::uint64_t>(info.image_width) * info.image_height > maxPixels ||
        info.image_width > INT_MAX / 4 || info.image_height > INT_MAX) {
        jpeg_destroy_decompress(&info);
        return nullptr;
    }
    // The header alone first: a picture too large is refused before anything is allocated.
    info.out_color_space = JCS_EXT_RGBA;
    jpeg_start_decompress(&info);
    const std::size_t stride = static_cast<std::size_t>(info.output_width) * 4;
    pixels = static_cast<std::uint8_t*>(std::malloc(stride * info.output_height));
    if (!pixels) {
        jpeg_destroy_decompress(&info);
        return nullptr;
    }
    while (info.output_scanline < info.output_height) {
        JSAMPROW row = pixels + stride * info.output_scanline;
        jpeg_read_scanlines(&info, &row, 1);
    }
    jpeg_finish_decompress(&info);
    *width = static_cast<int>(info.output_width);
    *height = static_cast<int>(info.output_height);
    jpeg_destroy_decompress(&info);
    return pixels;
}

// Every chunk's length fits in the bytes that follow it. stb grows its buffer for the
// compressed data to what a chunk claims before reading it, so a 100-byte file claiming a
// 2 GB chunk would allocate 2 GB; such a file is refused here instead.
bool pngChunksFit(const Data& bytes) {
    constexpr std::size_t kSignature = 8, kChunkOverhead = 12;  // length, type, CRC
    std::size_t at = kSignature;
    while (at + kChunkOverhead <= bytes.size()) {
        const std::size_t length = (std::size_t{bytes[at]} << 24) | (std::size_t{bytes[at + 1]} << 16) |
                                   (std::size_t{bytes[at + 2]} << 8) | std::size_t{bytes[at + 3]};
        if (length > bytes.size() - at - kChunkOverhead) return false;
        if (std::memcmp(&bytes[at + 4], "IEND", 4) == 0) return true;
        at += kChunkOverhead + length;
    }
    return false;  // ends without IEND: truncated
}

}  // namespace

std::shared_ptr<Image> Image::decode(const Data& bytes, std::uint64_t maxPixels) {
    if (bytes.empty() || bytes.size() > static_cast<std::size_t>(INT_MAX)) return nullptr;
    int width = 0, height = 0, channels = 0;
    if (isJpeg(bytes)) {
        std::uint8_t* pixels = decodeJpegRows(bytes, maxPixels, &width, &height);
        if (!pixels) return nullptr;
        return std::make_shared<Image>(width, height, std::shared_ptr<std::uint8_t>(pixels, std::free));
    }
    if (bytes.size() < 8 || !pngChunksFit(bytes)) return nullptr;
    const auto length = static_cast<int>(bytes.size());
    // The header alone first: a picture too large is refused before anything is allocated.
    if (!stbi_info_from_memory(bytes.data(), length, &width, &height, &channels)) return nullptr;
    if (width <= 0 || height <= 0 ||
        static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height) > maxPixels)
        return nullptr;
    stbi_uc* pixels = stbi_load_from_memory(bytes.data(), length, &width, &height, &channels, 4);
    if (!pixels) return nullptr;
    // stb's own buffer, freed by stb: decoding makes the only copy of the pixels.
    std::shared_ptr<std::uint8_t> owned(pixels, [](std::uint8_t* p) { stbi_image_free(p); });
    return std::make_shared<Image>(width, height, std::move(owned));
}

namespace {

constexpr std::size_t kMessageSize = 256;

void onPngError(png_structp png, png_const_charp message) {
    auto* text = static_cast<char*>(png_get_error_ptr(png));
    std::snprintf(text, kMessageSize, "%s", message ? message : "libpng error");
    png_longjmp(png, 1);
}

void onPngWarning(png_structp, png_const_charp) {}

// Plain C state only from here to the end: libpng reports errors with longjmp, which must
// not skip a destructor. Returns false with the reason in `message`.
bool writeRows(std::FILE* file, const std::uint8_t* rgba, png_uint_32 width, png_uint_32 height, char* message) {
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, message, onPngError, onPngWarning);
    if (!png) {
        std::snprintf(message, kMessageSize, "cannot create the PNG writer");
        return false;
    }
    png_infop info = png_create_info_struct(png);
    if (!info) {
        png_destroy_write_struct(&png, nullptr);
        std::snprintf(message, kMessageSize, "cannot create the PNG header");
        return false;
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_init_io(png, file);
    // The default limits (a million pixels a side) are for reading untrusted files.
    png_set_user_limits(png, PNG_UINT_31_MAX, PNG_UINT_31_MAX);
    png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGBA, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    const std::size_t stride = static_cast<std::size_t>(width) * 4;
    for (png_uint_32 y = 0; y < height; ++y) png_write_row(png, rgba + static_cast<std::size_t>(y) * stride);
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return true;
}

std::string systemError(const std::string& what, const std::filesystem::path& path, int error) {
    return what + " " + path.string() + ": " + std::strerror(error);
}

}  // namespace

std::optional<std::string> Image::writePNG(const std::filesystem::path& file) const {
    if (!pixels_ || width_ <= 0 || height_ <= 0) return "the image has no pixels";
    // A temporary file beside the target, renamed into place: a reader sees no PNG or a whole one.
    std::string temporary = (file.parent_path() / ("." + file.filename().string() + ".XXXXXX")).string();
    int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) return systemError("cannot create a file beside", file, errno);
    std::FILE* stream = ::fdopen(fd, "wb");
    if (!stream) {
        int error = errno;
        ::close(fd);
        ::unlink(temporary.c_str());
        return systemError("cannot write", temporary, error);
    }
    char message[kMessageSize] = {};
    bool written = writeRows(stream, pixels_.get(), static_cast<png_uint_32>(width_),
                             static_cast<png_uint_32>(height_), message);
    int error = 0;
    if (written && std::fflush(stream) != 0) error = errno;
    if (std::fclose(stream) != 0 && written && error == 0) error = errno;
    if (!written || error != 0) {
        ::unlink(temporary.c_str());
        if (!written) return std::string("cannot encode the PNG: ") + message;
        return systemError("cannot write", temporary, error);
    }
    if (::rename(temporary.c_str(), file.c_str()) != 0) {
        error = errno;
        ::unlink(temporary.c_str());
        return systemError("cannot move the PNG to", file, error);
    }
    return std::nullopt;
}

}  // namespace tessrakite::platform
