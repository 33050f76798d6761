#pragma once

#include <functional>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/View.hpp>

namespace tessrakite {

/// The small "X" that closes a full-screen ad: black title on white, alpha 0.6. Made
/// in code it always has a frame (an empty one by default) and so a black border of width 1.
class TESSRA_EXPORT CloseButton : public platform::Button {
public:
    CloseButton() : CloseButton(platform::Rect{}) {}
    explicit CloseButton(platform::Rect frame);
    /// The same button with `action` registered for `event` (the phone's target and selector).
    CloseButton(std::function<void()> action, platform::ControlEvent event);
};

}  // namespace tessrakite
