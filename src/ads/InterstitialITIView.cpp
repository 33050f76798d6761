#include <tessrakite/ads/ITIView.hpp>

#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/Image.hpp>
#include <tessrakite/platform/Platform.hpp>
#include <tessrakite/platform/Url.hpp>
#include <tessrakite/platform/UrlSession.hpp>

namespace tessrakite {

namespace {

using platform::LayoutConstraint;

constexpr double kImageTimeout = 10.0;  // the one shared session stands in for a session with this timeout

const Md* firstMd(const MavoObject& data) {
    if (!data.items || data.items->empty() || !data.items->front().md) return nullptr;
    return &*data.items->front().md;
}

}  // namespace

ITIView::ITIView(platform::DeviceOrientation orientation, const MavoObject& data) { fill(orientation, data); }

std::shared_ptr<platform::ImageView> ITIView::imageView() {
    if (!imageView_) {
        imageView_ = std::make_shared<platform::ImageView>();
        imageView_->backgroundColor = platform::Color::black();
    }
    return imageView_;
}

std::shared_ptr<platform::TextView> ITIView::textView() {
    if (!textView_) {
        textView_ = std::make_shared<platform::TextView>();
        textView_->isEditable = false;
        textView_->isSelectable = false;
        textView_->isUserInteractionEnabled = false;
        textView_->backgroundColor = platform::Color::black();
        textView_->textColor = platform::Color::white();
        textView_->fontSize = 15;
    }
    return textView_;
}

void ITIView::fill(platform::DeviceOrientation orientation, const MavoObject& data) {
    using O = platform::DeviceOrientation;
    auto text = textView();
    auto image = imageView();
    addSubview(text);
    addSubview(image);
    std::vector<LayoutConstraint> constraints = {image->topAnchor().constraint(topAnchor()),
                                                 image->leadingAnchor().constraint(leadingAnchor())};
    if (orientation == O::portrait || orientation == O::portraitUpsideDown) {
        constraints.push_back(image->trailingAnchor().constraint(trailingAnchor()));
        constraints.push_back(image->heightAnchor().constraintWithMultiplier(heightAnchor(), 0.5));
        constraints.push_back(text->topAnchor().constraint(image->bottomAnchor()));
        constraints.push_back(text->leadingAnchor().constraint(leadingAnchor()));
    } else {
        constraints.push_back(image->bottomAnchor().constraint(bottomAnchor()));
        constraints.push_back(image->widthAnchor().constraintWithMultiplier(widthAnchor(), 0.5));
        constraints.push_back(text->topAnchor().constraint(topAnchor()));
        constraints.push_back(text->leadingAnchor().constraint(image->trailingAnchor()));
    }
    constraints.push_back(text->bottomAnchor().constraint(bottomAnchor()));
    constraints.push_back(text->trailingAnchor().constraint(trailingAnchor()));
    LayoutConstraint::activate(constraints);
    setupITI(data);
}

void ITIView::setupITI(const MavoObject& with) {
    const Md* md = firstMd(with);
    textView()->text = md && md->title ? *md->title : std::string();
    loadImage(md && md->img ? *md->img : std::string());
}

void ITIView::loadImage(const std::string& from, std::function<void()> completion) {
    auto url = Url::parse(from);
    if (!url) return;
    platform::UrlRequest request(*url);
    request.timeoutInterval = kImageTimeout;
    std::weak_ptr<platform::ImageView> target = imageView();
    platform::currentPlatform()->urlSession->dataTask(
        std::move(request), [target, completion = std::move(completion)](const platform::UrlResult& result) {
            if (result.data) {
                platform::currentPlatform()->mainQueue().async([target, completion, data = *result.data] {
                    if (auto view = target.lock()) view->image = platform::Image::decode(data);
                    if (completion) completion();
                });
            } else if (result.error) {
                Console::print(result.error->localizedDescription(), "ERROREEERR");
            }
        });
}

}  // namespace tessrakite
