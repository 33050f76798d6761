#include <tessrakite/gif/ImageViewAnimation.hpp>

#include <map>
#include <mutex>

#include <tessrakite/gif/GifManager.hpp>
#include <tessrakite/gif/GifTarget.hpp>

namespace tessrakite::gif {

namespace {

// Shows each frame as the image view's image.
class ImageViewTarget final : public GifTarget {
public:
    explicit ImageViewTarget(std::weak_ptr<platform::ImageView> view) : view_(std::move(view)) {}
    void showFrame(std::shared_ptr<platform::Image> frame) override {
        if (auto view = view_.lock()) view->image = std::move(frame);
    }
    bool expired() const { return view_.expired(); }

private:
    std::weak_ptr<platform::ImageView> view_;
};

// The manager holds targets weakly: the playing ones are kept here, one per view.
struct Playing {
    std::mutex mutex;
    std::map<const platform::ImageView*, std::shared_ptr<ImageViewTarget>> targets;
};
Playing& playing() {
    static auto* state = new Playing;
    return *state;
}

std::shared_ptr<ImageViewTarget> detach(const platform::ImageView& imageView) {
    auto& state = playing();
    std::lock_guard lock(state.mutex);
    auto it = state.targets.find(&imageView);
    if (it == state.targets.end()) return nullptr;
    auto target = std::move(it->second);
    state.targets.erase(it);
    return target;
}

}  // namespace

void startAnimating(const Url& url, const std::shared_ptr<platform::ImageView>& imageView) {
    if (!imageView) return;
    stopAnimating(*imageView);
    auto target = std::make_shared<ImageViewTarget>(imageView);
    {
        auto& state = playing();
        std::lock_guard lock(state.mutex);
        // Views released while playing leave an entry behind; drop those as we go.
        std::erase_if(state.targets, [](const auto& entry) { return entry.second->expired(); });
        state.targets[imageView.get()] = target;
    }
    GifManager::shared().play(url, target);
}

void stopAnimating(const platform::ImageView& imageView) {
    if (auto target = detach(imageView)) GifManager::shared().stop(target);
}

}  // namespace tessrakite::gif
