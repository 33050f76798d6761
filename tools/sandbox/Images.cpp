#include "Images.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

// The only translation unit that compiles the encoder; static, so that nothing else linked into
// the sandbox can clash with it.
#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STB_IMAGE_WRITE_STATIC
#include <stb/stb_image_write.h>

namespace tessrakite::sandbox {
namespace {

/// splitmix64: fixed output for a fixed seed on every platform, unlike the standard distributions.
class Random {
public:
    explicit Random(std::uint64_t seed) : state_(seed) {}
    std::uint64_t next() {
        std::uint64_t z = (state_ += 0x9E3779B97F4A7C15u);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
        return z ^ (z >> 31);
    }
    /// Uniform in [-amplitude, amplitude].
    float around(float amplitude) {
        return (static_cast<float>(next() >> 40) / static_cast<float>(1u << 24) * 2.0f - 1.0f) * amplitude;
    }

private:
    std::uint64_t state_;
};

struct Rgb {
    float r, g, b;
};

Rgb mix(Rgb a, Rgb b, float t) {
    t = std::clamp(t, 0.0f, 1.0f);
    return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t};
}

class Canvas {
public:
    Canvas(int width, int height)
        : width_(width), height_(height), pixels_(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 3) {}
    int width() const { return width_; }
    int height() const { return height_; }
    void set(int x, int y, Rgb colour) {
        const std::size_t at = (static_cast<std::size_t>(y) * static_cast<std::size_t>(width_) + static_cast<std::size_t>(x)) * 3;
        pixels_[at] = channel(colour.r);
        pixels_[at + 1] = channel(colour.g);
        pixels_[at + 2] = channel(colour.b);
    }
    std::string jpeg(int quality) const {
        std::string out;
        stbi_write_jpg_to_func(append, &out, width_, height_, 3, pixels_.data(), quality);
        return out;
    }
    std::string png() const {
        std::string out;
        stbi_write_png_to_func(append, &out, width_, height_, 3, pixels_.data(), width_ * 3);
        return out;
    }

private:
    static unsigned char channel(float value) {
        return static_cast<unsigned char>(std::lround(std::clamp(value, 0.0f, 255.0f)));
    }
    static void append(void* context, void* data, int size) {
        static_cast<std::string*>(context)->append(static_cast<const char*>(data), static_cast<std::size_t>(size));
    }

    int width_;
    int height_;
    std::vector<unsigned char> pixels_;
};

/// A landscape: sky, sun, two ranges of hills and a field, with film grain. The grain is what
/// makes a JPEG as large as a real photo; `grain` is its amplitude in levels.
Canvas landscape(int width, int height, std::uint64_t seed, float grain) {
    Canvas canvas(width, height);
    Random random(seed);
    const float phase = static_cast<float>(seed % 628) / 100.0f;
    const float w = static_cast<float>(width), h = static_cast<float>(height);
    for (int y = 0; y < height; ++y) {
        const float fy = static_cast<float>(y) / h;
        for (int x = 0; x < width; ++x) {
            const float fx = static_cast<float>(x) / w;
            const float far = 0.50f + 0.07f * std::sin(fx * 6.0f + phase) + 0.03f * std::sin(fx * 17.0f + 2 * phase);
            const float near = 0.68f + 0.06f * std::sin(fx * 4.0f - phase) + 0.02f * std::sin(fx * 29.0f);
            Rgb colour;
            if (fy < far) {
                colour = mix({62, 118, 196}, {206, 224, 240}, fy / far);
                const float dx = (fx - 0.72f) * w / h, dy = fy - 0.22f;
                const float sun = std::sqrt(dx * dx + dy * dy);
                if (sun < 0.07f) colour = {255, 244, 214};
                else colour = mix({255, 236, 190}, colour, (sun - 0.07f) * 6.0f);
            } else if (fy < near) {
                colour = mix({92, 118, 138}, {70, 104, 84}, (fy - far) / (near - far));
            } else {
                const float rows = std::sin(fy * h * 0.35f + std::sin(fx * 9.0f) * 3.0f) * 10.0f;
                colour = mix({88, 140, 62}, {126, 110, 58}, (fy - near) / (1.0f - near));
                colour = {colour.r + rows, colour.g + rows, colour.b + rows * 0.5f};
            }
            const float luminance = random.around(grain);
            canvas.set(x, y, {colour.r + luminance + random.around(grain / 3),
                              colour.g + luminance + random.around(grain / 3),
                              colour.b + luminance + random.around(grain / 3)});
        }
    }
    return canvas;
}

/// A flat, graphic picture of the kind a campaign card carries: a gradient, a panel, discs and
/// bars. Flat colour is what PNG is for.
Canvas card(int width, int height) {
    Canvas canvas(width, height);
    const float w = static_cast<float>(width), h = static_cast<float>(height);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const float fx = static_cast<float>(x), fy = static_cast<float>(y);
            Rgb colour = mix({27, 138, 140}, {242, 158, 76}, (fx / w + fy / h) / 2);
            const bool panel = fx > w * 0.08f && fx < w * 0.92f && fy > h * 0.12f && fy < h * 0.88f;
            if (panel) colour = {250, 248, 244};
            const float disc = std::hypot(fx - w * 0.25f, fy - h * 0.45f);
            if (panel && disc < h * 0.2f) colour = disc < h * 0.12f ? Rgb{242, 158, 76} : Rgb{27, 138, 140};
            if (panel && fx > w * 0.45f && fx < w * 0.85f) {
                for (int bar = 0; bar < 3; ++bar) {
                    const float top = h * (0.3f + 0.14f * static_cast<float>(bar));
                    const float length = w * (0.4f - 0.08f * static_cast<float>(bar));
                    if (fy > top && fy < top + h * 0.06f && fx < w * 0.45f + length) colour = {32, 32, 32};
                }
            }
            canvas.set(x, y, colour);
        }
    }
    return canvas;
}

/// The ads' small striped square.
Canvas stripes() {
    Canvas canvas(32, 32);
    for (int y = 0; y < 32; ++y)
        for (int x = 0; x < 32; ++x)
            canvas.set(x, y, ((x + y) / 8) % 2 == 0 ? Rgb{27, 138, 140} : Rgb{242, 158, 76});
    return canvas;
}

void putLittleEndian16(std::string& out, std::uint32_t value) {
    out += static_cast<char>(value & 0xFFu);
    out += static_cast<char>((value >> 8) & 0xFFu);
}

/// A looping two-frame 16x16 GIF. The LZW stream restarts its table every two pixels, so every
/// code stays 3 bits wide and no compressor is needed.
std::string makeGif() {
    constexpr std::uint32_t kSize = 16;
    constexpr std::uint32_t kClear = 4, kEnd = 5, kCodeBits = 3;
    std::string gif = "GIF89a";
    putLittleEndian16(gif, kSize);
    putLittleEndian16(gif, kSize);
    gif += '\x91';  // global colour table of 4 entries
    gif += std::string("\x00\x00", 2);
    gif += std::string("\xff\xff\xff\x1b\x8a\x8c\xf2\x9e\x4c\x20\x20\x20", 12);
    gif += std::string("\x21\xff\x0bNETSCAPE2.0\x03\x01\x00\x00\x00", 19);  // loop forever
    for (std::uint32_t frame = 0; frame < 2; ++frame) {
        gif += std::string("\x21\xf9\x04\x00", 4);
        putLittleEndian16(gif, 50);  // half a second per frame
        gif += std::string("\x00\x00", 2);
        gif += '\x2c';
        putLittleEndian16(gif, 0);
        putLittleEndian16(gif, 0);
        putLittleEndian16(gif, kSize);
        putLittleEndian16(gif, kSize);
        gif += '\x00';
        gif += '\x02';  // LZW minimum code size

        std::string data;
        std::uint32_t bits = 0, count = 0;
        auto put = [&](std::uint32_t code) {
            bits |= code << count;
            count += kCodeBits;
            while (count >= 8) {
                data += static_cast<char>(bits & 0xFFu);
                bits >>= 8;
                count -= 8;
            }
        };
        for (std::uint32_t i = 0; i < kSize * kSize; ++i) {
            if (i % 2 == 0) put(kClear);
            const std::uint32_t x = i % kSize, y = i / kSize;
            put(((x / 4 + y / 4 + frame) % 2) == 0 ? 1u : 2u);
        }
        put(kEnd);
        if (count > 0) data += static_cast<char>(bits & 0xFFu);
        for (std::size_t offset = 0; offset < data.size(); offset += 255) {
            const std::size_t n = std::min<std::size_t>(255, data.size() - offset);
            gif += static_cast<char>(n);
            gif += data.substr(offset, n);
        }
        gif += '\x00';
    }
    gif += '\x3b';
    return gif;
}

constexpr std::string_view kHtmlImage =
    "<!DOCTYPE html><html><head><meta charset=\"utf-8\"><title>Sign in to the network</title></head>"
    "<body><h1>Sign in</h1><p>This network asks you to sign in before you can reach the internet.</p>"
    "</body></html>\n";

}  // namespace

ImageLibrary::ImageLibrary() {
    const Canvas photo = landscape(1600, 1200, 20241121, 36.0f);
    const Canvas banner = landscape(1024, 512, 7, 13.0f);
    const Canvas picture = card(600, 400);
    const Canvas small = stripes();

    images_["photo.jpg"] = {"image/jpeg", photo.jpeg(90), photo.width(), photo.height()};
    images_["banner.jpeg"] = {"image/jpeg", banner.jpeg(85), banner.width(), banner.height()};
    images_["card.png"] = {"image/png", picture.png(), picture.width(), picture.height()};
    images_["campaign.png"] = images_["card.png"];
    images_["ad.png"] = {"image/png", small.png(), small.width(), small.height()};
    images_["ad.gif"] = {"image/gif", makeGif(), 16, 16};
    // What a captive portal or a misconfigured CDN answers for an image URL.
    images_["html.jpg"] = {"text/html; charset=utf-8", std::string(kHtmlImage), 0, 0};
    // A complete answer whose JPEG stops after half its bytes.
    const std::string& whole = images_["banner.jpeg"].bytes;
    images_["truncated.jpg"] = {"image/jpeg", whole.substr(0, whole.size() / 2), 0, 0};
}

const Image* ImageLibrary::find(std::string_view name) const {
    const auto found = images_.find(name);
    return found == images_.end() ? nullptr : &found->second;
}

}  // namespace tessrakite::sandbox
