#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/Device.hpp>

namespace tessrakite::platform {

class Image;
class View;
class ViewController;
class Window;

struct Point {
    double x = 0, y = 0;
    friend bool operator==(const Point&, const Point&) = default;
};

/// Components from 0 to 1, not premultiplied.
struct Color {
    double red = 0, green = 0, blue = 0, alpha = 1;
    friend bool operator==(const Color&, const Color&) = default;

    static Color black() { return {0, 0, 0, 1}; }
    static Color white() { return {1, 1, 1, 1}; }
    static Color gray() { return {0.5, 0.5, 0.5, 1}; }
    static Color orange() { return {1, 0.5, 0, 1}; }
    static Color clear() { return {0, 0, 0, 0}; }
    Color withAlpha(double a) const { return {red, green, blue, a}; }
};

struct EdgeInsets {
    double top = 0, left = 0, bottom = 0, right = 0;
    friend bool operator==(const EdgeInsets&, const EdgeInsets&) = default;
};

/// How an image view fits its image into its bounds.
enum class ContentMode { scaleToFill, scaleAspectFit, scaleAspectFill, center };
enum class TextAlignment { left, center, right };

/// Leading and trailing are left and right: text runs left to right here.
enum class LayoutAttribute { left, right, top, bottom, leading, trailing, width, height, centerX, centerY };

struct LayoutAnchor;

/// first.firstAttribute = multiplier × second.secondAttribute + constant, where the second
/// item is the first's superview (or its safe area), a sibling, or nothing (a fixed size).
struct TESSRA_EXPORT LayoutConstraint {
    View* firstItem = nullptr;
    LayoutAttribute firstAttribute = LayoutAttribute::left;
    bool firstIsSafeArea = false;
    View* secondItem = nullptr;
    LayoutAttribute secondAttribute = LayoutAttribute::left;
    bool secondIsSafeArea = false;
    double multiplier = 1;
    double constant = 0;
    friend bool operator==(const LayoutConstraint&, const LayoutConstraint&) = default;

    /// Installs the constraints. One that relates a view to anything but its superview, a
    /// sibling or nothing is refused with a console line, as the phone refuses a constraint
    /// without a common ancestor.
    static void activate(const std::vector<LayoutConstraint>& constraints);
    static void deactivate(const std::vector<LayoutConstraint>& constraints);
    /// The visual format subset: "H:" or "V:", then optionally "|" and a spacing ("-",
    /// "-N-"), one view "[name]", optionally a spacing and "|". "H:|[v]|" pins both
    /// horizontal edges to the superview. A format outside the subset gives nothing and a
    /// console line.
    static std::vector<LayoutConstraint> constraints(const std::string& withVisualFormat,
                                                     const std::map<std::string, std::shared_ptr<View>>& views);
};

/// An attribute of a view or of its safe area, from which constraints are made.
struct TESSRA_EXPORT LayoutAnchor {
    View* view = nullptr;
    LayoutAttribute attribute = LayoutAttribute::left;
    bool safeArea = false;

    /// this = other + constant.
    LayoutConstraint constraint(const LayoutAnchor& equalTo, double constant = 0) const;
    /// this = multiplier × other + constant.
    LayoutConstraint constraintWithMultiplier(const LayoutAnchor& equalTo, double multiplier,
                                              double constant = 0) const;
    /// this = constant; for width and height.
    LayoutConstraint constraint(double equalToConstant) const;
};

/// The safe area of a view: its bounds less the window's safe-area insets where they overlap.
struct TESSRA_EXPORT LayoutGuide {
    View* view = nullptr;
    LayoutAnchor leadingAnchor() const { return {view, LayoutAttribute::leading, true}; }
    LayoutAnchor trailingAnchor() const { return {view, LayoutAttribute::trailing, true}; }
    LayoutAnchor leftAnchor() const { return {view, LayoutAttribute::left, true}; }
    LayoutAnchor rightAnchor() const { return {view, LayoutAttribute::right, true}; }
    LayoutAnchor topAnchor() const { return {view, LayoutAttribute::top, true}; }
    LayoutAnchor bottomAnchor() const { return {view, LayoutAttribute::bottom, true}; }
    LayoutAnchor widthAnchor() const { return {view, LayoutAttribute::width, true}; }
    LayoutAnchor heightAnchor() const { return {view, LayoutAttribute::height, true}; }
    LayoutAnchor centerXAnchor() const { return {view, LayoutAttribute::centerX, true}; }
    LayoutAnchor centerYAnchor() const { return {view, LayoutAttribute::centerY, true}; }
};

/// A tap recogniser. Like the phone's, it belongs to one view at a time: adding it to a
/// second view takes it off the first.
class TESSRA_EXPORT TapGestureRecognizer {
public:
    explicit TapGestureRecognizer(std::function<void()> action) : action_(std::move(action)) {}
    bool isEnabled = true;
    View* view() const { return view_; }
    void fire() const {
        if (action_) action_();
    }

private:
    friend class View;
    std::function<void()> action_;
    View* view_ = nullptr;
};

/// A rectangle in the view tree. Views belong to the main queue; nothing here is locked.
/// Appearance is plain members; the tree and the constraints go through member functions
/// that keep them consistent.
class TESSRA_EXPORT View {
public:
    View() = default;
    explicit View(Rect frame) : frame(frame) {}
    virtual ~View();
    View(const View&) = delete;
    View& operator=(const View&) = delete;

    Rect frame;  // in the superview's coordinates
    bool isHidden = false;
    double alpha = 1;
    std::optional<Color> backgroundColor;  // none: transparent
    double borderWidth = 0;
    Color borderColor = Color::black();
    double cornerRadius = 0;
    bool clipsToBounds = false;
    bool isUserInteractionEnabled = true;
    ContentMode contentMode = ContentMode::scaleToFill;
    std::int64_t tag = 0;
    std::string accessibilityIdentifier;

    Rect bounds() const { return {0, 0, frame.width, frame.height}; }

    // ---- The tree ----
    /// Adds on top of the existing children, taking the view from its old superview.
    void addSubview(const std::shared_ptr<View>& view);
    void insertSubview(const std::shared_ptr<View>& view, std::size_t index);
    /// Also drops the constraints between this view and its superview or siblings.
    void removeFromSuperview();
    View* superview() const { return superview_; }
    const std::vector<std::shared_ptr<View>>& subviews() const { return subviews_; }
    /// The window this view is in, if any.
    Window* window() const;
    /// The controller whose root view this is, if any.
    ViewController* viewController() const { return controller_; }
    /// Depth-first, this view first; nothing when none has that identifier.
    View* viewWithAccessibilityIdentifier(const std::string& identifier);
    /// This rectangle of the view in the coordinates of its topmost ancestor.
    Rect convertToRoot(Rect rect) const;

    // ---- Layout ----
    LayoutAnchor leadingAnchor() { return {this, LayoutAttribute::leading}; }
    LayoutAnchor trailingAnchor() { return {this, LayoutAttribute::trailing}; }
    LayoutAnchor leftAnchor() { return {this, LayoutAttribute::left}; }
    LayoutAnchor rightAnchor() { return {this, LayoutAttribute::right}; }
    LayoutAnchor topAnchor() { return {this, LayoutAttribute::top}; }
    LayoutAnchor bottomAnchor() { return {this, LayoutAttribute::bottom}; }
    LayoutAnchor widthAnchor() { return {this, LayoutAttribute::width}; }
    LayoutAnchor heightAnchor() { return {this, LayoutAttribute::height}; }
    LayoutAnchor centerXAnchor() { return {this, LayoutAttribute::centerX}; }
    LayoutAnchor centerYAnchor() { return {this, LayoutAttribute::centerY}; }
    LayoutGuide safeAreaLayoutGuide() { return {this}; }
    /// The window's safe-area insets where they overlap this view; zero outside a window.
    EdgeInsets safeAreaInsets() const;
    /// The active constraints that position this view (it is their first item).
    const std::vector<LayoutConstraint>& constraints() const { return constraints_; }

    /// The size the content wants; a negative component means none on that axis.
    virtual Size intrinsicContentSize() const { return {-1, -1}; }
    /// Sets the frame's size to the intrinsic content size where there is one.
    void sizeToFit();
    /// Resolves the children's frames from their constraints. Overrides call the base.
    virtual void layoutSubviews();
    /// Lays out this view's subtree top-down, every time it is called.
    void layoutIfNeeded();

    // ---- Touches ----
    void addGestureRecognizer(const std::shared_ptr<TapGestureRecognizer>& recognizer);
    void removeGestureRecognizer(const std::shared_ptr<TapGestureRecognizer>& recognizer);
    const std::vector<std::shared_ptr<TapGestureRecognizer>>& gestureRecognizers() const { return recognizers_; }
    /// Whether a touch can reach this view: it and its ancestors are shown, opaque enough
    /// and take touches.
    bool canReceiveTouches() const;
    /// A tap on this view: fires its enabled recognisers when it can receive touches.
    /// True when something fired.
    virtual bool tap();
    /// The deepest view under `point` (in this view's bounds) that can take a touch: shown,
    /// opaque enough, taking touches; the topmost child first. None when the point is
    /// outside or nothing there takes touches.
    View* hitTest(Point point);
    /// A tap at `point`, as a finger would make it: the view hit gets it, and when nothing
    /// on it fires, its superviews in turn. True when something fired.
    bool tapAt(Point point);

    /// The dynamic type's name without namespaces ("Label", "BannerView").
    std::string typeName() const;

private:
    friend class ViewController;
    friend struct LayoutConstraint;
    void detachConstraintsWithSiblings();

    View* superview_ = nullptr;
    ViewController* controller_ = nullptr;
    std::vector<std::shared_ptr<View>> subviews_;
    std::vector<LayoutConstraint> constraints_;
    std::vector<std::shared_ptr<TapGestureRecognizer>> recognizers_;
};

/// Shows an image, fitted by `contentMode`. It takes no touches until told to.
class TESSRA_EXPORT ImageView : public View {
public:
    ImageView() { isUserInteractionEnabled = false; }
    explicit ImageView(std::shared_ptr<Image> image) : image(std::move(image)) { isUserInteractionEnabled = false; }
    std::shared_ptr<Image> image;
    Size intrinsicContentSize() const override;
};

/// Text in the system font ("Sans"), centred vertically in the frame, wrapped to its
/// width when `numberOfLines` is not 1 (0: as many lines as needed).
class TESSRA_EXPORT Label : public View {
public:
    Label() { isUserInteractionEnabled = false; }
    std::string text;
    double fontSize = 17;
    Color textColor = Color::black();
    TextAlignment textAlignment = TextAlignment::left;
    std::int64_t numberOfLines = 1;
    Size intrinsicContentSize() const override;
};

/// Multi-line text from the top, inside an inset of 8 points top and bottom, 5 left and right.
class TESSRA_EXPORT TextView : public View {
public:
    TextView() { backgroundColor = Color::white(); }
    std::string text;
    double fontSize = 12;
    Color textColor = Color::black();
    TextAlignment textAlignment = TextAlignment::left;
    bool isEditable = true;
    bool isSelectable = true;
};

enum class ControlEvent { touchDown, touchUpInside, touchUpOutside, valueChanged, primaryActionTriggered };

/// A title (and an optional image) that sends actions for control events. A tap sends
/// touch-up-inside, after the recognisers.
class TESSRA_EXPORT Button : public View {
public:
    Button() = default;
    explicit Button(Rect frame) : View(frame) {}
    std::string title;
    Color titleColor{0, 0.478, 1, 1};
    double fontSize = 15;
    std::shared_ptr<Image> image;
    bool isEnabled = true;

    void setTitle(std::string text) { title = std::move(text); }
    void addAction(ControlEvent event, std::function<void()> action);
    void removeActions(ControlEvent event);
    /// Runs the actions registered for the event, in order (a tap on a disabled button
    /// sends none).
    void sendActions(ControlEvent event);
    bool tap() override;
    Size intrinsicContentSize() const override;

private:
    std::vector<std::pair<ControlEvent, std::shared_ptr<std::function<void()>>>> actions_;
};

}  // namespace tessrakite::platform
