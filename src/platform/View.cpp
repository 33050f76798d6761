#include <tessrakite/platform/View.hpp>

#include <algorithm>
#include <regex>

#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/Image.hpp>
#include <tessrakite/platform/Window.hpp>

#include "platform/Nesting.hpp"
#include "platform/TextMeasure.hpp"
#include "platform/TypeName.hpp"

namespace tessrakite::platform {

namespace {

bool isHorizontal(LayoutAttribute a) {
    using A = LayoutAttribute;
    return a == A::left || a == A::right || a == A::leading || a == A::trailing || a == A::width || a == A::centerX;
}

bool isDimension(LayoutAttribute a) { return a == LayoutAttribute::width || a == LayoutAttribute::height; }

const char* attributeName(LayoutAttribute a) {
    static const char* names[] = {"left", "right", "top", "bottom", "leading", "trailing",
                                  "width", "height", "centerX", "centerY"};
    return names[static_cast<int>(a)];
}

std::string describe(const View* view, LayoutAttribute attribute, bool safeArea) {
    if (!view) return "nothing";
    return "<" + view->typeName() + ">" + (safeArea ? ".safeArea." : ".") + attributeName(attribute);
}

bool isSibling(const View* a, const View* b) {
    return a->superview() && a->superview() == b->superview();
}

/// The constraint with the positioned view as its first item, or nothing when it relates
/// views the solver cannot (no common parent, mixed axes, a position without a reference).
std::optional<LayoutConstraint> normalized(LayoutConstraint c) {
    View* first = c.firstItem;
    View* second = c.secondItem;
    if (!first) return std::nullopt;
    if (second && second->superview() == first && first->superview() != second) {
        if (c.multiplier == 0) return std::nullopt;
        c = {second, c.secondAttribute, c.secondIsSafeArea, first, c.firstAttribute, c.firstIsSafeArea,
             1 / c.multiplier, -c.constant / c.multiplier};
        first = c.firstItem;
        second = c.secondItem;
    }
    if (c.firstIsSafeArea) return std::nullopt;
    if (!second) return isDimension(c.firstAttribute) ? std::optional(c) : std::nullopt;
    if (isHorizontal(c.firstAttribute) != isHorizontal(c.secondAttribute)) return std::nullopt;
    if (second == first || second == first->superview() || isSibling(first, second)) return c;
    return std::nullopt;
}

struct Axis {
    std::optional<double> min, max, center, size;
};

Axis& slot(Axis& h, Axis& v, LayoutAttribute a) { return isHorizontal(a) ? h : v; }

std::optional<double>& slotValue(Axis& axis, LayoutAttribute a) {
    using A = LayoutAttribute;
    switch (a) {
        case A::left:
        case A::leading:
        case A::top: return axis.min;
        case A::right:
        case A::trailing:
        case A::bottom: return axis.max;
        case A::centerX:
        case A::centerY: return axis.center;
        case A::width:
        case A::height: break;
    }
    return axis.size;
}

/// The attribute of `item` (or its safe area) in the coordinates of `parent`'s bounds.
double valueOf(const View& item, LayoutAttribute a, bool safeArea, const View& parent) {
    Rect r = &item == &parent ? parent.bounds() : item.frame;
    EdgeInsets in = safeArea ? item.safeAreaInsets() : EdgeInsets{};
    const double x0 = r.x + in.left, x1 = r.x + r.width - in.right;
    const double y0 = r.y + in.top, y1 = r.y + r.height - in.bottom;
    using A = LayoutAttribute;
    switch (a) {
        case A::left:
        case A::leading: return x0;
        case A::right:
        case A::trailing: return x1;
        case A::centerX: return (x0 + x1) / 2;
        case A::width: return x1 - x0;
        case A::top: return y0;
        case A::bottom: return y1;
        case A::centerY: return (y0 + y1) / 2;
        case A::height: break;
    }
    return y1 - y0;
}

/// Position and length on one axis from what the constraints fix: a size and one of the
/// edges or the centre; or two of them. What they leave open keeps the intrinsic size or
/// the current frame.
std::pair<double, double> resolveAxis(const Axis& a, double origin, double length, double intrinsic) {
    double size = length;
    if (a.size)
        size = *a.size;
    else if (a.min && a.max)
        size = *a.max - *a.min;
    else if (a.min && a.center)
        size = 2 * (*a.center - *a.min);
    else if (a.max && a.center)
        size = 2 * (*a.max - *a.center);
    else if (intrinsic >= 0)
        size = intrinsic;
    size = std::max(0.0, size);
    double position = origin;
    if (a.min)
        position = *a.min;
    else if (a.max)
        position = *a.max - size;
    else if (a.center)
        position = *a.center - size / 2;
    return {position, size};
}

void solve(View& child, const View& parent) {
    Axis h, v;
    for (const auto& c : child.constraints()) {
        double value = c.constant;
        if (c.secondItem) value += c.multiplier * valueOf(*c.secondItem, c.secondAttribute, c.secondIsSafeArea, parent);
        slotValue(slot(h, v, c.firstAttribute), c.firstAttribute) = value;
    }
    const Size intrinsic = child.intrinsicContentSize();
    auto [x, width] = resolveAxis(h, child.frame.x, child.frame.width, intrinsic.width);
    auto [y, height] = resolveAxis(v, child.frame.y, child.frame.height, intrinsic.height);
    child.frame = {x, y, width, height};
}

}  // namespace

// ---- Constraints ----

LayoutConstraint LayoutAnchor::constraint(const LayoutAnchor& equalTo, double constant) const {
    return constraintWithMultiplier(equalTo, 1, constant);
}

LayoutConstraint LayoutAnchor::constraintWithMultiplier(const LayoutAnchor& equalTo, double multiplier,
                                                        double constant) const {
    return {view, attribute, safeArea, equalTo.view, equalTo.attribute, equalTo.safeArea, multiplier, constant};
}

LayoutConstraint LayoutAnchor::constraint(double equalToConstant) const {
    return {view, attribute, safeArea, nullptr, attribute, false, 1, equalToConstant};
}

void LayoutConstraint::activate(const std::vector<LayoutConstraint>& constraints) {
    for (const auto& given : constraints) {
        auto c = normalized(given);
        if (!c) {
            Console::print("Unable to activate constraint " +
                           describe(given.firstItem, given.firstAttribute, given.firstIsSafeArea) + " = " +
                           describe(given.secondItem, given.secondAttribute, given.secondIsSafeArea) +
                           ": the views have no common parent, or the attributes do not match");
            continue;
        }
        auto& list = c->firstItem->constraints_;
        if (std::find(list.begin(), list.end(), *c) == list.end()) list.push_back(*c);
    }
}

void LayoutConstraint::deactivate(const std::vector<LayoutConstraint>& constraints) {
    for (const auto& given : constraints) {
        if (auto c = normalized(given)) std::erase(c->firstItem->constraints_, *c);
    }
}

std::vector<LayoutConstraint> LayoutConstraint::constraints(const std::string& withVisualFormat,
                                                            const std::map<std::string, std::shared_ptr<View>>& views) {
    static const std::regex grammar(R"(^(?:([HV]):)?(\|(?:-(\d+(?:\.\d+)?)-)?)?\[(\w+)\]((?:-(\d+(?:\.\d+)?)-)?\|)?$)");
    std::smatch m;
    if (!std::regex_match(withVisualFormat, m, grammar)) {
        Console::print("Unable to parse constraint format \"" + withVisualFormat + "\"");
        return {};
    }
    auto it = views.find(m[4].str());
    if (it == views.end() || !it->second) {
        Console::print("Unable to parse constraint format \"" + withVisualFormat + "\": no view named " + m[4].str());
        return {};
    }
    View* view = it->second.get();
    View* parent = view->superview();
    const bool pinsEdge = m[2].matched || m[5].matched;
    if (pinsEdge && !parent) {
        Console::print("Unable to interpret '|' in \"" + withVisualFormat + "\": the view has no superview");
        return {};
    }
    const bool vertical = m[1].str() == "V";
    using A = LayoutAttribute;
    std::vector<LayoutConstraint> out;
    if (m[2].matched) {
        const double inset = m[3].matched ? std::stod(m[3].str()) : 0;
        auto edge = vertical ? A::top : A::leading;
        out.push_back({view, edge, false, parent, edge, false, 1, inset});
    }
    if (m[5].matched) {
        const double inset = m[6].matched ? std::stod(m[6].str()) : 0;
        auto edge = vertical ? A::bottom : A::trailing;
        out.push_back({view, edge, false, parent, edge, false, 1, -inset});
    }
    return out;
}

// ---- The tree ----

View::~View() {
    for (auto& child : subviews_) {
        child->superview_ = nullptr;
        // Without a parent, constraints to it or to former siblings mean nothing, and those
        // views may go away before this child does.
        std::erase_if(child->constraints_,
                      [&](const LayoutConstraint& c) { return c.secondItem && c.secondItem != child.get(); });
    }
    for (auto& r : recognizers_) r->view_ = nullptr;
}

void View::addSubview(const std::shared_ptr<View>& view) { insertSubview(view, subviews_.size()); }

void View::insertSubview(const std::shared_ptr<View>& view, std::size_t index) {
    if (!view) return;
    for (const View* v = this; v; v = v->superview_)
        if (v == view.get()) {
            Console::print("Can't add a view to itself or to one of its descendants");
            return;
        }
    auto keep = view;  // removal below may drop the last other owner
    if (view->superview_ == this) {
        std::erase(subviews_, view);
    } else {
        view->removeFromSuperview();
    }
    index = std::min(index, subviews_.size());
    subviews_.insert(subviews_.begin() + static_cast<std::ptrdiff_t>(index), keep);
    keep->superview_ = this;
}

void View::removeFromSuperview() {
    if (!superview_) return;
    detachConstraintsWithSiblings();
    auto* parent = superview_;
    superview_ = nullptr;
    auto it = std::find_if(parent->subviews_.begin(), parent->subviews_.end(),
                           [this](const auto& v) { return v.get() == this; });
    if (it != parent->subviews_.end()) parent->subviews_.erase(it);  // may release this view: last
}

void View::detachConstraintsWithSiblings() {
    std::erase_if(constraints_, [this](const LayoutConstraint& c) { return c.secondItem && c.secondItem != this; });
    for (auto& sibling : superview_->subviews_)
        std::erase_if(sibling->constraints_, [this](const LayoutConstraint& c) { return c.secondItem == this; });
}

Window* View::window() const {
    const View* v = this;
    while (v->superview_) v = v->superview_;
    return dynamic_cast<Window*>(const_cast<View*>(v));
}

View* View::viewWithAccessibilityIdentifier(const std::string& identifier) {
    if (accessibilityIdentifier == identifier) return this;
    for (auto& child : subviews_)
        if (auto* found = child->viewWithAccessibilityIdentifier(identifier)) return found;
    return nullptr;
}

Rect View::convertToRoot(Rect rect) const {
    for (const View* v = this; v->superview_; v = v->superview_) {
        rect.x += v->frame.x;
        rect.y += v->frame.y;
    }
    return rect;
}

std::string View::typeName() const {
    auto name = demangledName(typeid(*this));
    auto colon = name.rfind("::");
    return colon == std::string::npos ? name : name.substr(colon + 2);
}

// ---- Layout ----

EdgeInsets View::safeAreaInsets() const {
    Window* w = window();
    if (!w) return {};
    const EdgeInsets in = w->windowSafeAreaInsets;
    if (w == this) return in;
    const Rect r = convertToRoot(bounds());
    const Rect b = w->bounds();
    auto clamp = [](double v, double limit) { return std::clamp(v, 0.0, std::max(0.0, limit)); };
    return {clamp(in.top - r.y, r.height), clamp(in.left - r.x, r.width),
            clamp(r.y + r.height - (b.height - in.bottom), r.height), clamp(r.x + r.width - (b.width - in.right), r.width)};
}

void View::sizeToFit() {
    const Size s = intrinsicContentSize();
    if (s.width >= 0) frame.width = s.width;
    if (s.height >= 0) frame.height = s.height;
}

void View::layoutSubviews() {
    // A child waits for the siblings its constraints refer to; a cycle among siblings is
    // broken in child order, reading the waiting siblings' current frames.
    std::vector<View*> pending;
    for (auto& child : subviews_)
        if (!child->constraints_.empty()) pending.push_back(child.get());
    auto waiting = [&](const View* v) { return std::find(pending.begin(), pending.end(), v) != pending.end(); };
    bool progress = true;
    while (!pending.empty()) {
        auto ready = std::find_if(pending.begin(), pending.end(), [&](View* child) {
            return !progress || std::none_of(child->constraints_.begin(), child->constraints_.end(),
                                             [&](const LayoutConstraint& c) {
                                                 return c.secondItem != child && c.secondItem != this &&
                                                        c.secondItem && waiting(c.secondItem);
                                             });
        });
        if (ready == pending.end()) {
            progress = false;
            continue;
        }
        solve(**ready, *this);
        pending.erase(ready);
        progress = true;
    }
}

void View::layoutIfNeeded() {
    layoutSubviews();
    for (auto& child : std::vector(subviews_)) child->layoutIfNeeded();
}

// ---- Touches ----

void View::addGestureRecognizer(const std::shared_ptr<TapGestureRecognizer>& recognizer) {
    if (!recognizer || recognizer->view_ == this) return;
    if (recognizer->view_) std::erase(recognizer->view_->recognizers_, recognizer);
    recognizer->view_ = this;
    recognizers_.push_back(recognizer);
}

void View::removeGestureRecognizer(const std::shared_ptr<TapGestureRecognizer>& recognizer) {
    if (!recognizer || recognizer->view_ != this) return;
    recognizer->view_ = nullptr;
    std::erase(recognizers_, recognizer);
}

bool View::canReceiveTouches() const {
    for (const View* v = this; v; v = v->superview_)
        if (v->isHidden || !v->isUserInteractionEnabled || v->alpha < 0.01) return false;
    return true;
}

bool View::tap() {
    if (!canReceiveTouches()) return false;
    bool fired = false;
    for (const auto& r : std::vector(recognizers_))
        if (r->isEnabled) {
            r->fire();
            fired = true;
        }
    return fired;
}

namespace {
View* hitIn(View& view, Point point, int depth) {
    // Deeper trees are not drawn either (the renderer stops at the same depth).
    if (depth > nesting::kMaxDepth || view.isHidden || !view.isUserInteractionEnabled || view.alpha < 0.01)
        return nullptr;
    if (point.x < 0 || point.y < 0 || point.x >= view.frame.width || point.y >= view.frame.height) return nullptr;
    const auto& children = view.subviews();
    for (auto it = children.rbegin(); it != children.rend(); ++it)
        if (View* hit = hitIn(**it, {point.x - (*it)->frame.x, point.y - (*it)->frame.y}, depth + 1)) return hit;
    return &view;
}
}  // namespace

View* View::hitTest(Point point) { return hitIn(*this, point, 0); }

bool View::tapAt(Point point) {
    for (View* v = hitTest(point); v; v = v->superview_)
        if (v->tap()) return true;
    return false;
}

// ---- Image views, labels, buttons ----

Size ImageView::intrinsicContentSize() const {
    if (!image) return {-1, -1};
    return {static_cast<double>(image->width()), static_cast<double>(image->height())};
}

Size Label::intrinsicContentSize() const {
    if (text.empty()) return {0, 0};
    return measureText(text, fontSize, 0, numberOfLines);
}

void Button::addAction(ControlEvent event, std::function<void()> action) {
    if (action) actions_.emplace_back(event, std::make_shared<std::function<void()>>(std::move(action)));
}

void Button::removeActions(ControlEvent event) {
    std::erase_if(actions_, [event](const auto& a) { return a.first == event; });
}

void Button::sendActions(ControlEvent event) {
    std::vector<std::shared_ptr<std::function<void()>>> due;
    for (const auto& [e, action] : actions_)
        if (e == event) due.push_back(action);
    for (const auto& action : due) (*action)();
}

bool Button::tap() {
    if (!canReceiveTouches() || !isEnabled) return false;
    View::tap();
    sendActions(ControlEvent::touchUpInside);
    return true;
}

Size Button::intrinsicContentSize() const {
    // The phone's button pads its title: a little on the sides, more above and below.
    Size text = title.empty() ? Size{0, 0} : measureText(title, fontSize, 0, 1);
    double width = text.width + 12, height = std::max(text.height + 12, 30.0);
    if (image) {
        width += image->width();
        height = std::max(height, static_cast<double>(image->height()));
    }
    return {width, height};
}

}  // namespace tessrakite::platform
