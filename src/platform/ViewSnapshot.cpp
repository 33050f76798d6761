// Drawing the view tree with cairo and pango. Their headers stay in this file.
#include <tessrakite/platform/ViewSnapshot.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>

#include <cairo.h>
#include <pango/pangocairo.h>

#include <tessrakite/platform/Image.hpp>
#include <tessrakite/platform/ViewController.hpp>
#include <tessrakite/platform/Window.hpp>

#include "platform/Nesting.hpp"
#include "platform/TextMeasure.hpp"

namespace tessrakite::platform {

namespace {

using SurfacePtr = std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)>;
using ContextPtr = std::unique_ptr<cairo_t, decltype(&cairo_destroy)>;
struct GObjectUnref {
    void operator()(void* object) const { g_object_unref(object); }
};
using LayoutPtr = std::unique_ptr<PangoLayout, GObjectUnref>;

constexpr double kTextViewInsetX = 5, kTextViewInsetY = 8;

/// The text's layout in the system font; wrapped to `width` unless it is one line, which
/// ends in an ellipsis when it does not fit.
void configure(PangoLayout* layout, const std::string& text, double fontSize, double width,
               std::int64_t numberOfLines, TextAlignment alignment) {
    std::unique_ptr<PangoFontDescription, decltype(&pango_font_description_free)> font(
        pango_font_description_from_string("Sans"), pango_font_description_free);
    // Bounded so that pango's fixed-point units cannot overflow.
    pango_font_description_set_absolute_size(font.get(), std::clamp(fontSize, 1.0, 1000.0) * PANGO_SCALE);
    pango_layout_set_font_description(layout, font.get());
    // Pango takes UTF-8 only; a host's broken bytes become replacement characters.
    std::unique_ptr<gchar, decltype(&g_free)> valid(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())),
                                                    g_free);
    pango_layout_set_text(layout, valid.get(), -1);
    if (width > 0) {
        pango_layout_set_width(layout, static_cast<int>(std::min(width, 1e6) * PANGO_SCALE));
        pango_layout_set_wrap(layout, PANGO_WRAP_WORD_CHAR);
        if (numberOfLines > 0) {
            pango_layout_set_height(layout, -static_cast<int>(std::min<std::int64_t>(numberOfLines, 10000)));
            pango_layout_set_ellipsize(layout, PANGO_ELLIPSIZE_END);
        }
    }
    pango_layout_set_alignment(layout, alignment == TextAlignment::center  ? PANGO_ALIGN_CENTER
                                       : alignment == TextAlignment::right ? PANGO_ALIGN_RIGHT
                                                                           : PANGO_ALIGN_LEFT);
}

Size pixelSize(PangoLayout* layout) {
    int w = 0, h = 0;
    pango_layout_get_pixel_size(layout, &w, &h);
    return {static_cast<double>(w), static_cast<double>(h)};
}

void setColor(cairo_t* cr, const Color& c) { cairo_set_source_rgba(cr, c.red, c.green, c.blue, c.alpha); }

void roundedRect(cairo_t* cr, double x, double y, double w, double h, double r) {
    r = std::clamp(r, 0.0, std::min(w, h) / 2);
    if (r <= 0) {
        cairo_rectangle(cr, x, y, w, h);
        return;
    }
    cairo_new_sub_path(cr);
    cairo_arc(cr, x + w - r, y + r, r, -M_PI / 2, 0);
    cairo_arc(cr, x + w - r, y + h - r, r, 0, M_PI / 2);
    cairo_arc(cr, x + r, y + h - r, r, M_PI / 2, M_PI);
    cairo_arc(cr, x + r, y + r, r, M_PI, 3 * M_PI / 2);
    cairo_close_path(cr);
}

/// Cairo wants premultiplied native-endian ARGB; the image holds straight RGBA.
SurfacePtr surfaceOf(const Image& image) {
    SurfacePtr surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, image.width(), image.height()),
                       cairo_surface_destroy);
    if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) return surface;
    cairo_surface_flush(surface.get());
    unsigned char* data = cairo_image_surface_get_data(surface.get());
    const int stride = cairo_image_surface_get_stride(surface.get());
    const std::uint8_t* src = image.rgba();
    for (int y = 0; y < image.height(); ++y) {
        auto* row = reinterpret_cast<std::uint32_t*>(data + static_cast<std::ptrdiff_t>(y) * stride);
        for (int x = 0; x < image.width(); ++x, src += 4) {
            const std::uint32_t a = src[3];
            auto pre = [a](std::uint8_t c) { return (static_cast<std::uint32_t>(c) * a + 127) / 255; };
            row[x] = (a << 24) | (pre(src[0]) << 16) | (pre(src[1]) << 8) | pre(src[2]);
        }
    }
    cairo_surface_mark_dirty(surface.get());
    return surface;
}

void drawImage(cairo_t* cr, const Image& image, ContentMode mode, const Rect& box) {
    if (image.width() <= 0 || image.height() <= 0 || box.width <= 0 || box.height <= 0) return;
    auto surface = surfaceOf(image);
    if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) return;
    const double iw = image.width(), ih = image.height();
    double sx = box.width / iw, sy = box.height / ih;
    switch (mode) {
        case ContentMode::scaleToFill: break;
        case ContentMode::scaleAspectFit: sx = sy = std::min(sx, sy); break;
        case ContentMode::scaleAspectFill: sx = sy = std::max(sx, sy); break;
        case ContentMode::center: sx = sy = 1; break;
    }
    cairo_save(cr);
    cairo_translate(cr, box.x + (box.width - iw * sx) / 2, box.y + (box.height - ih * sy) / 2);
    cairo_scale(cr, sx, sy);
    cairo_set_source_surface(cr, surface.get(), 0, 0);
    // Edge pixels repeat outward, so a scaled image has no faded rim.
    cairo_pattern_set_extend(cairo_get_source(cr), CAIRO_EXTEND_PAD);
    cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_GOOD);
    cairo_rectangle(cr, 0, 0, iw, ih);
    cairo_fill(cr);
    cairo_restore(cr);
}

/// Draws the text in `box`; `centred` puts it in the middle vertically, else at the top.
void drawText(cairo_t* cr, const std::string& text, double fontSize, const Color& color, TextAlignment alignment,
              std::int64_t numberOfLines, const Rect& box, bool centred) {
    if (text.empty() || box.width <= 0) return;
    LayoutPtr layout(pango_cairo_create_layout(cr));
    configure(layout.get(), text, fontSize, box.width, numberOfLines, alignment);
    const Size size = pixelSize(layout.get());
    cairo_save(cr);
    cairo_rectangle(cr, box.x, box.y, box.width, box.height);
    cairo_clip(cr);
    setColor(cr, color);
    cairo_move_to(cr, box.x, centred ? box.y + (box.height - size.height) / 2 : box.y);
    pango_cairo_show_layout(cr, layout.get());
    cairo_restore(cr);
}

void drawContent(cairo_t* cr, const View& view) {
    const Rect b = view.bounds();
    if (const auto* imageView = dynamic_cast<const ImageView*>(&view)) {
        if (imageView->image) drawImage(cr, *imageView->image, view.contentMode, b);
    } else if (const auto* label = dynamic_cast<const Label*>(&view)) {
        drawText(cr, label->text, label->fontSize, label->textColor, label->textAlignment, label->numberOfLines, b, true);
    } else if (const auto* textView = dynamic_cast<const TextView*>(&view)) {
        const Rect inside{kTextViewInsetX, kTextViewInsetY, b.width - 2 * kTextViewInsetX, b.height - 2 * kTextViewInsetY};
        drawText(cr, textView->text, textView->fontSize, textView->textColor, textView->textAlignment, 0, inside, false);
    } else if (const auto* button = dynamic_cast<const Button*>(&view)) {
        if (button->image) drawImage(cr, *button->image, ContentMode::scaleAspectFit, b);
        Color color = button->titleColor;
        if (!button->isEnabled) color.alpha *= 0.35;
        drawText(cr, button->title, button->fontSize, color, TextAlignment::center, 1, b, true);
    }
}

void draw(cairo_t* cr, const View& view, bool atOrigin, int depth) {
    if (view.isHidden || view.alpha <= 0 || depth > nesting::kMaxDepth) return;
    cairo_save(cr);
    if (!atOrigin) cairo_translate(cr, view.frame.x, view.frame.y);
    const bool group = view.alpha < 1;
    if (group) cairo_push_group(cr);
    const Rect b = view.bounds();
    if (view.backgroundColor && view.backgroundColor->alpha > 0) {
        roundedRect(cr, 0, 0, b.width, b.height, view.cornerRadius);
        setColor(cr, *view.backgroundColor);
        cairo_fill(cr);
    }
    cairo_save(cr);
    if (view.clipsToBounds) {
        roundedRect(cr, 0, 0, b.width, b.height, view.cornerRadius);
        cairo_clip(cr);
    }
    drawContent(cr, view);
    for (const auto& child : view.subviews()) draw(cr, *child, false, depth + 1);
    cairo_restore(cr);
    // The border lies inside the bounds, above the content and the children.
    if (view.borderWidth > 0) {
        const double half = view.borderWidth / 2;
        roundedRect(cr, half, half, b.width - view.borderWidth, b.height - view.borderWidth,
                    std::max(0.0, view.cornerRadius - half));
        cairo_set_line_width(cr, view.borderWidth);
        setColor(cr, view.borderColor);
        cairo_stroke(cr);
    }
    if (group) {
        cairo_pop_group_to_source(cr);
        cairo_paint_with_alpha(cr, view.alpha);
    }
    cairo_restore(cr);
}

nlohmann::ordered_json treeOf(const View& view, int depth) {
    nlohmann::ordered_json j;
    j["type"] = view.typeName();
    j["frame"] = {{"x", view.frame.x}, {"y", view.frame.y}, {"width", view.frame.width}, {"height", view.frame.height}};
    j["hidden"] = view.isHidden;
    j["alpha"] = view.alpha;
    if (!view.accessibilityIdentifier.empty()) j["identifier"] = view.accessibilityIdentifier;
    if (view.viewController()) j["controller"] = view.viewController()->typeName();
    auto imageJSON = [](const std::shared_ptr<Image>& image) {
        return image ? nlohmann::ordered_json{{"width", image->width()}, {"height", image->height()}}
                     : nlohmann::ordered_json(nullptr);
    };
    if (const auto* label = dynamic_cast<const Label*>(&view)) j["text"] = label->text;
    if (const auto* textView = dynamic_cast<const TextView*>(&view)) j["text"] = textView->text;
    if (const auto* button = dynamic_cast<const Button*>(&view)) {
        j["text"] = button->title;
        if (button->image) j["image"] = imageJSON(button->image);
    }
    if (const auto* imageView = dynamic_cast<const ImageView*>(&view)) j["image"] = imageJSON(imageView->image);
    auto children = nlohmann::ordered_json::array();
    // Deeper trees are cut off where every JSON tree of the SDK is.
    if (depth < nesting::kMaxDepth - 1)
        for (const auto& child : view.subviews()) children.push_back(treeOf(*child, depth + 1));
    j["children"] = std::move(children);
    return j;
}

}  // namespace

Size measureText(const std::string& text, double fontSize, double maxWidth, std::int64_t numberOfLines) {
    std::unique_ptr<PangoContext, GObjectUnref> context(pango_font_map_create_context(pango_cairo_font_map_get_default()));
    LayoutPtr layout(pango_layout_new(context.get()));
    configure(layout.get(), text, fontSize, numberOfLines == 1 ? 0 : maxWidth, numberOfLines, TextAlignment::left);
    return pixelSize(layout.get());
}

std::optional<std::string> renderPNG(View& view, const std::filesystem::path& path) {
    view.layoutIfNeeded();
    const double width = std::ceil(view.frame.width), height = std::ceil(view.frame.height);
    if (!(width >= 1 && height >= 1)) return "the view has no area to draw";
    if (width * height > static_cast<double>(Image::kDefaultMaxPixels) || width > 32767 || height > 32767)
        return "the view is too large to draw";
    SurfacePtr surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, static_cast<int>(width), static_cast<int>(height)),
                       cairo_surface_destroy);
    if (auto status = cairo_surface_status(surface.get()); status != CAIRO_STATUS_SUCCESS)
        return std::string(cairo_status_to_string(status));
    {
        ContextPtr cr(cairo_create(surface.get()), cairo_destroy);
        draw(cr.get(), view, true, 0);
    }
    cairo_surface_flush(surface.get());
    if (auto status = cairo_surface_write_to_png(surface.get(), path.c_str()); status != CAIRO_STATUS_SUCCESS)
        return path.string() + ": " + cairo_status_to_string(status);
    return std::nullopt;
}

nlohmann::ordered_json toJSON(const View& view) { return treeOf(view, 0); }

void drawView(cairo_t* cr, View& view) {
    view.layoutIfNeeded();
    draw(cr, view, true, 0);
}

namespace {
/// FNV-1a over the bytes of each value mixed in.
struct Digest {
    std::uint64_t value = 1469598103934665603ull;
    void bytes(const void* data, std::size_t size) {
        const auto* p = static_cast<const unsigned char*>(data);
        for (std::size_t i = 0; i < size; ++i) value = (value ^ p[i]) * 1099511628211ull;
    }
    template <typename T>
    void add(const T& v) {
        bytes(&v, sizeof v);
    }
    void add(const std::string& s) {
        add(s.size());
        bytes(s.data(), s.size());
    }
    void add(const Color& c) {
        add(c.red), add(c.green), add(c.blue), add(c.alpha);
    }
};

void digest(Digest& d, const View& view, int depth) {
    d.add(view.isHidden);
    if (view.isHidden || depth > nesting::kMaxDepth) return;
    d.add(view.frame.x), d.add(view.frame.y), d.add(view.frame.width), d.add(view.frame.height);
    d.add(view.alpha), d.add(view.cornerRadius), d.add(view.borderWidth), d.add(view.clipsToBounds);
    d.add(view.borderColor);
    d.add(view.backgroundColor.has_value());
    if (view.backgroundColor) d.add(*view.backgroundColor);
    // An image is immutable: a new frame of an animation is a new image.
    if (const auto* imageView = dynamic_cast<const ImageView*>(&view)) {
        d.add(imageView->image.get());
        d.add(view.contentMode);
    } else if (const auto* label = dynamic_cast<const Label*>(&view)) {
        d.add(label->text), d.add(label->fontSize), d.add(label->textColor), d.add(label->numberOfLines);
        d.add(label->textAlignment);
    } else if (const auto* textView = dynamic_cast<const TextView*>(&view)) {
        d.add(textView->text), d.add(textView->fontSize), d.add(textView->textColor), d.add(textView->textAlignment);
    } else if (const auto* button = dynamic_cast<const Button*>(&view)) {
        d.add(button->title), d.add(button->fontSize), d.add(button->titleColor), d.add(button->isEnabled);
        d.add(button->image.get());
    }
    d.add(view.subviews().size());
    for (const auto& child : view.subviews()) digest(d, *child, depth + 1);
}
}  // namespace

std::uint64_t drawnState(const View& view) {
    Digest d;
    digest(d, view, 0);
    return d.value;
}

}  // namespace tessrakite::platform
