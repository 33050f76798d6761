// Screens and views on the desktop: the SDK's view tree drawn by its own renderer into GTK
// widgets, and real clicks turned into taps.
#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/ViewController.hpp>
#include <tessrakite/platform/ViewSnapshot.hpp>
#include <tessrakite/platform/Window.hpp>

#include "platform/desktop/GtkWindows.hpp"

namespace tessrakite::platform::desktop {

bool haveDisplay() {
    static const bool opened = [] {
        if (gtk_init_check(nullptr, nullptr)) return true;
        Console::print("Nothing is shown on the desktop: GTK cannot open a display (DISPLAY unset or unreachable)");
        return false;
    }();
    return opened;
}

HostWindow::~HostWindow() { set(nullptr); }

void HostWindow::set(GtkWindow* window) {
    if (window_) {
        g_signal_handler_disconnect(window_, handler_);
        g_object_remove_weak_pointer(G_OBJECT(window_), reinterpret_cast<gpointer*>(&window_));
    }
    window_ = window;
    if (!window_) return;
    // A host that closes its window before us leaves nothing dangling here.
    g_object_add_weak_pointer(G_OBJECT(window_), reinterpret_cast<gpointer*>(&window_));
    // Before GTK's own handler, which ends the emission; the window's size is already new.
    handler_ = g_signal_connect(window_, "configure-event", G_CALLBACK(+[](GtkWidget*, GdkEvent*, gpointer self) {
                                    static_cast<HostWindow*>(self)->changed();
                                    return FALSE;
                                }),
                                this);
    changed();
}

void HostWindow::changed() const {
    for (const auto& listener : listeners_) listener();
}

void HostWindow::cover(GtkWindow* window, Rect fallback) const {
    if (window_) {
        gtk_window_set_transient_for(window, window_);
        gint x = 0, y = 0, width = 0, height = 0;
        gtk_window_get_position(window_, &x, &y);
        gtk_window_get_size(window_, &width, &height);
        gtk_window_move(window, x, y);
        gtk_window_resize(window, width, height);
        return;
    }
    if (fallback.width < 1 || fallback.height < 1) fallback = {0, 0, 400, 700};
    gtk_window_resize(window, static_cast<gint>(fallback.width), static_cast<gint>(fallback.height));
}

void makeOverlay(GtkWindow* window) {
    gtk_window_set_decorated(window, FALSE);
    gtk_window_set_skip_taskbar_hint(window, TRUE);
    gtk_window_set_title(window, "TessraKite");
    GtkWidget* widget = GTK_WIDGET(window);
    GdkScreen* screen = gtk_widget_get_screen(widget);
    if (GdkVisual* rgba = gdk_screen_get_rgba_visual(screen); rgba && gdk_screen_is_composited(screen)) {
        gtk_widget_set_visual(widget, rgba);
        gtk_widget_set_app_paintable(widget, TRUE);
    }
}

namespace {

/// What a drawing area shows and where its clicks go.
class Scene {
public:
    virtual ~Scene() = default;
    virtual void draw(cairo_t* cr) = 0;
    virtual std::uint64_t state() = 0;
    /// The view that takes touches at `point` of the area; none there.
    virtual View* target(Point point) = 0;
    /// The size the area asks for; none: whatever it is given.
    virtual std::optional<Size> size() { return std::nullopt; }
};

/// A drawing area that draws its scene, redraws when what it shows changes (checked at each
/// frame of the display), and taps the view under a click: pressed and released on it.
class LiveArea {
public:
    static GtkWidget* make(std::unique_ptr<Scene> scene) {
        GtkWidget* area = gtk_drawing_area_new();
        auto* self = new LiveArea(std::move(scene));
        g_object_set_data_full(G_OBJECT(area), "tessrakite-scene", self,
                               [](gpointer p) { delete static_cast<LiveArea*>(p); });
        gtk_widget_add_events(area, GDK_BUTTON_PRESS_MASK | GDK_BUTTON_RELEASE_MASK);
        g_signal_connect(area, "draw", G_CALLBACK(onDraw), self);
        g_signal_connect(area, "button-press-event", G_CALLBACK(onPress), self);
        g_signal_connect(area, "button-release-event", G_CALLBACK(onRelease), self);
        gtk_widget_add_tick_callback(area, onTick, self, nullptr);
        self->resize(area);
        return area;
    }

private:
    explicit LiveArea(std::unique_ptr<Scene> scene) : scene_(std::move(scene)) {}

    void resize(GtkWidget* area) {
        if (auto size = scene_->size()) {
            // A frame is the host's to set: anything not a sane size asks for none.
            auto pixels = [](double v) { return std::isfinite(v) ? static_cast<gint>(std::clamp(std::ceil(v), 0.0, 32767.0)) : 0; };
            const gint w = pixels(size->width), h = pixels(size->height);
            gint oldW = 0, oldH = 0;
            gtk_widget_get_size_request(area, &oldW, &oldH);
            if (w != oldW || h != oldH) gtk_widget_set_size_request(area, w, h);
        }
    }

    static gboolean onDraw(GtkWidget* area, cairo_t* cr, gpointer data) {
        auto* self = static_cast<LiveArea*>(data);
        // A see-through window starts clear; any other keeps the theme's background.
        if (gtk_widget_get_app_paintable(gtk_widget_get_toplevel(area))) {
            cairo_save(cr);
            cairo_set_source_rgba(cr, 0, 0, 0, 0);
            cairo_set_operator(cr, CAIRO_OPERATOR_SOURCE);
            cairo_paint(cr);
            cairo_restore(cr);
        }
        self->scene_->draw(cr);
        // After drawing: the layout it ran may have moved things.
        self->drawn_ = self->scene_->state();
        return FALSE;
    }

    static gboolean onTick(GtkWidget* area, GdkFrameClock*, gpointer data) {
        auto* self = static_cast<LiveArea*>(data);
        self->resize(area);
        if (self->scene_->state() != self->drawn_) gtk_widget_queue_draw(area);
        return G_SOURCE_CONTINUE;
    }

    static gboolean onPress(GtkWidget*, GdkEventButton* event, gpointer data) {
        auto* self = static_cast<LiveArea*>(data);
        if (event->button != GDK_BUTTON_PRIMARY) return FALSE;
        self->pressed_ = self->scene_->target({event->x, event->y});
        return TRUE;
    }

    static gboolean onRelease(GtkWidget*, GdkEventButton* event, gpointer data) {
        auto* self = static_cast<LiveArea*>(data);
        if (event->button != GDK_BUTTON_PRIMARY) return FALSE;
        View* pressed = std::exchange(self->pressed_, nullptr);
        View* released = self->scene_->target({event->x, event->y});
        // Down on one view and up on another is no tap, as with a finger.
        if (released && released == pressed)
            for (View* v = released; v; v = v->superview())
                if (v->tap()) break;
        return TRUE;
    }

    std::unique_ptr<Scene> scene_;
    std::uint64_t drawn_ = 0;
    View* pressed_ = nullptr;  // compared only, never followed: it may be gone by the release
};

/// One view the host packs where it likes (a banner).
class ViewScene final : public Scene {
public:
    explicit ViewScene(std::shared_ptr<View> view) : view_(std::move(view)) {}
    void draw(cairo_t* cr) override { drawView(cr, *view_); }
    std::uint64_t state() override { return drawnState(*view_); }
    View* target(Point point) override { return view_->hitTest(point); }
    std::optional<Size> size() override { return Size{view_->frame.width, view_->frame.height}; }

private:
    std::shared_ptr<View> view_;
};

/// The screens presented on the key window, bottom to top; its root screen is the host's
/// own window beneath. Touches go to the topmost screen only, as a modal screen takes them.
class PresentedScene final : public Scene {
public:
    explicit PresentedScene(std::weak_ptr<Window> window) : window_(std::move(window)) {}

    void draw(cairo_t* cr) override {
        auto window = window_.lock();
        if (!window) return;
        for (View* view : presented(*window)) {
            cairo_save(cr);
            cairo_translate(cr, view->frame.x, view->frame.y);
            drawView(cr, *view);
            cairo_restore(cr);
        }
    }

    std::uint64_t state() override {
        auto window = window_.lock();
        std::uint64_t digest = 0;
        if (window)
            for (View* view : presented(*window)) digest = digest * 31 + drawnState(*view);
        return digest;
    }

    View* target(Point point) override {
        auto window = window_.lock();
        if (!window) return nullptr;
        const auto views = presented(*window);
        if (views.empty()) return nullptr;
        View* top = views.back();
        return top->hitTest({point.x - top->frame.x, point.y - top->frame.y});
    }

private:
    static std::vector<View*> presented(Window& window) {
        std::vector<View*> views;
        const auto controllers = window.controllers();
        for (std::size_t i = 1; i < controllers.size(); ++i)
            if (controllers[i]->isViewLoaded() && controllers[i]->view()->superview() == &window)
                views.push_back(controllers[i]->view().get());
        return views;
    }

    std::weak_ptr<Window> window_;
};

class Screens final : public ScreenSupport, public std::enable_shared_from_this<Screens> {
public:
    Screens(const headless::Headless& h, std::shared_ptr<HostWindow> host)
        : window_(h.window), screen_(h.screen), runLoop_(h.platform->runLoop), host_(std::move(host)) {}

    ~Screens() override { close(); }

    void start() {
        std::weak_ptr<Screens> weak = weak_from_this();
        if (auto window = window_.lock()) {
            auto before = window->transitionObserver();
            // The window keeps this alive: a host may drop the platform's other handles.
            window->setTransitionObserver([before, self = shared_from_this()](const std::string& name,
                                                                               const ViewController& c, bool animated) {
                if (before) before(name, c, animated);
                // After the transition has finished: the observer hears it from inside.
                self->runLoop_->async([weak = std::weak_ptr<Screens>(self)] {
                    if (auto s = weak.lock()) s->sync();
                });
            });
        }
        host_->onChange([weak] {
            if (auto self = weak.lock()) self->followHost();
        });
    }

    GtkWidget* makeViewWidget(std::shared_ptr<View> view) override {
        if (!view || !haveDisplay()) return nullptr;
        return LiveArea::make(std::make_unique<ViewScene>(std::move(view)));
    }

private:
    /// The SDK's screen is the host's window: ads measure it and fill it.
    void followHost() {
        GtkWindow* host = host_->get();
        if (!host) return;
        gint width = 0, height = 0;
        gtk_window_get_size(host, &width, &height);
        const Rect bounds{0, 0, double(width), double(height)};
        if (auto screen = screen_.lock(); screen && width > 0 && height > 0 && screen->bounds() != bounds)
            screen->setBounds(bounds);
        if (overlay_) host_->cover(GTK_WINDOW(overlay_), bounds);
    }

    void sync() {
        auto window = window_.lock();
        if (!window || window->controllers().size() < 2) {
            close();
            return;
        }
        if (!haveDisplay()) return;
        if (!overlay_) open(window);
        host_->cover(GTK_WINDOW(overlay_), window->frame);
        gtk_widget_show_all(overlay_);
        gtk_widget_queue_draw(overlay_);
    }

    void open(const std::shared_ptr<Window>& window) {
        overlay_ = gtk_window_new(GTK_WINDOW_TOPLEVEL);
        makeOverlay(GTK_WINDOW(overlay_));
        gtk_container_add(GTK_CONTAINER(overlay_), LiveArea::make(std::make_unique<PresentedScene>(window)));
        // The screens decide when they go (an ad's close button): the window manager's close
        // would hide a screen the app still presents.
        g_signal_connect(overlay_, "delete-event", G_CALLBACK(gtk_true), nullptr);
        g_signal_connect(overlay_, "destroy", G_CALLBACK(+[](GtkWidget*, gpointer self) {
                             static_cast<Screens*>(self)->overlay_ = nullptr;
                         }),
                         this);
    }

    void close() {
        if (!overlay_) return;
        g_signal_handlers_disconnect_by_data(overlay_, this);
        gtk_widget_destroy(std::exchange(overlay_, nullptr));
    }

    std::weak_ptr<Window> window_;
    std::weak_ptr<headless::HeadlessScreen> screen_;
    std::shared_ptr<RunLoop> runLoop_;
    std::shared_ptr<HostWindow> host_;
    GtkWidget* overlay_ = nullptr;
};

}  // namespace

std::shared_ptr<ScreenSupport> installScreenWindows(const headless::Headless& headless,
                                                    std::shared_ptr<HostWindow> host) {
    auto screens = std::make_shared<Screens>(headless, std::move(host));
    screens->start();
    return screens;
}

}  // namespace tessrakite::platform::desktop
