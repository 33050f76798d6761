#include <tessrakite/ads/CloseButton.hpp>

namespace tessrakite {

CloseButton::CloseButton(platform::Rect frame) : platform::Button(frame) {
    setTitle("X");
    titleColor = platform::Color::black();
    backgroundColor = platform::Color::white();
    alpha = 0.6;
    borderColor = platform::Color::black();
    borderWidth = 1;
}

CloseButton::CloseButton(std::function<void()> action, platform::ControlEvent event) : CloseButton() {
    addAction(event, std::move(action));
}

}  // namespace tessrakite
