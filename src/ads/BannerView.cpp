#include <tessrakite/ads/BannerView.hpp>

#include <cmath>
#include <cstdint>
#include <exception>
#include <string>
#include <variant>

#include <tessrakite/gif/ImageViewAnimation.hpp>
#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/Image.hpp>
#include <tessrakite/platform/Platform.hpp>

#include <tessrakite/core/TessraQuill.hpp>

#include "AdSupport.hpp"

namespace tessrakite {

namespace {

// The sample page a new banner carries; the tap never opens it.
constexpr const char* kSamplePage = "https://tessrakite.io/demo";

bool endsWith(const std::string& text, std::string_view suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

BannerView::BannerView(BannerSize size, std::string adId, bool showCloseIcon, std::weak_ptr<AdBannerDelegate> delegate)
    : BannerView(platform::Rect{}) {
    bannerSize = size;
    this->adId = std::move(adId);
    this->showCloseIcon = showCloseIcon;
    delegate_ = std::move(delegate);
    bannerCGSize = bannerDimensionForPortrait(size);
}

BannerView::BannerView(platform::Rect frame) : View(frame), urlToGo(kSamplePage) {
    addGestureRecognizer(std::make_shared<platform::TapGestureRecognizer>([this] { didTapBanner(); }));
    isUserInteractionEnabled = true;
    isHidden = true;
    observe();
}

BannerView::~BannerView() {
    auto center = center_.lock();
    if (!center) return;
    if (resignObserver_) center->removeObserver(*resignObserver_);
    if (orientationObserver_) center->removeObserver(*orientationObserver_);
}

std::shared_ptr<AdBannerDelegate> BannerView::delegate() const {
    std::lock_guard lock(mutex_);
    return delegate_.lock();
}

void BannerView::setDelegate(std::weak_ptr<AdBannerDelegate> delegate) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
}

void BannerView::observe() {
    auto center = platform::currentPlatform()->notificationCenter;
    if (!center) return;
    center_ = center;
    // The observers go with the banner (the destructor removes them), so `this` is alive
    // whenever they run.
    resignObserver_ = center->addObserver(platform::AppNotification::willResignActive, [this] { willResignActive(); });
    orientationObserver_ =
        center->addObserver(platform::DeviceNotification::orientationDidChange, [this] { updateLayout(); });
}

double BannerView::screenWidth() {
    if (!screenWidth_) {
        auto screen = platform::currentPlatform()->screen;
        screenWidth_ = screen ? screen->bounds().width : 0;
    }
    return *screenWidth_;
}

double BannerView::screenHeight() {
    if (!screenHeight_) {
        auto screen = platform::currentPlatform()->screen;
        screenHeight_ = screen ? screen->bounds().height : 0;
    }
    return *screenHeight_;
}

platform::Size BannerView::bannerDimensionForPortrait(BannerSize size) {
    switch (size) {
        case BannerSize::small: return {320, 50};
        case BannerSize::medium: return {320, 100};
        case BannerSize::large: return {320, 250};  // 320 wide on purpose, not 300
        case BannerSize::adaptive: break;
    }
    const double height = screenHeight();
    heightForAdaptiveBanner = height < 700 ? 32 : height < 900 ? 50 : 90;
    return {320, heightForAdaptiveBanner};
}

// ---- Layout ----

void BannerView::layoutSubviews() {
    setupUI();
    View::layoutSubviews();
}

void BannerView::updateLayout() { layoutIfNeeded(); }

void BannerView::setupUI() {
    using platform::LayoutConstraint;
    View* parent = superview();
    if (!parent) fatalError("BannerView: a banner is laid out only inside a parent view; add it to one first");

    imageView->backgroundColor = platform::Color::orange();
    imageView->isUserInteractionEnabled = true;
    imageView->contentMode = platform::ContentMode::scaleToFill;
    if (imageView->superview() != this) addSubview(imageView);

    closeButton->backgroundColor = platform::Color::gray();
    closeButton->setTitle("X");
    closeButton->isHidden = !showCloseIcon;
    if (closeButton->superview() != this) {
        addSubview(closeButton);  // above the image
        closeButton->addAction(platform::ControlEvent::touchUpInside, [this] { closeAd(); });
    }

    if (childConstraints_.empty()) {
        for (const char* format : {"V:|[imageView]|", "H:|[imageView]|"})
            for (auto& c : LayoutConstraint::constraints(format, {{"imageView", imageView}})) childConstraints_.push_back(c);
        childConstraints_.push_back(closeButton->widthAnchor().constraint(15));
        childConstraints_.push_back(closeButton->heightAnchor().constraint(15));
        childConstraints_.push_back(closeButton->topAnchor().constraint(topAnchor(), 5));
        childConstraints_.push_back(closeButton->rightAnchor().constraint(rightAnchor(), -10));
        LayoutConstraint::activate(childConstraints_);
    }

    const std::vector<LayoutConstraint> own = {
        centerXAnchor().constraint(parent->centerXAnchor()),
        bottomAnchor().constraint(parent->safeAreaLayoutGuide().bottomAnchor()),
        heightAnchor().constraint(bannerCGSize.height),
        widthAnchor().constraint(bannerCGSize.width),
    };
    if (own == ownConstraints_) return;
    LayoutConstraint::deactivate(ownConstraints_);
    ownConstraints_ = own;
    LayoutConstraint::activate(ownConstraints_);
    // The parent placed its children before this pass reached the banner: place it now
    // that its constraints are in.
    parent->View::layoutSubviews();
}

// ---- Loading ----

void BannerView::loadAd() {
    try {
        gif::stopAnimating(*imageView);
        if (!isHidden) return;  // only a hidden banner loads
        if (!ads_detail::adsEnabled()) return;
        std::weak_ptr<BannerView> weakSelf = weak_from_this();
        if (weakSelf.expired()) {
            Console::print("BannerView: create the banner with std::make_shared; this one cannot receive ads");
            return;
        }
        using ads_detail::wholePoints;
        const SizesForAdd sizes{wholePoints(screenWidth()), wholePoints(screenHeight()), wholePoints(frame.width),
                                wholePoints(frame.height)};
        TessraQuill::tessraRequest().loadAd(
            sizes, adId, [weakSelf](std::optional<MavoObject> ad, std::optional<TessraRequest::AdError> error) {
                auto self = weakSelf.lock();
                if (!self) return;
                if (error || !ad) {
                    if (!error) fatalError("Unexpectedly found nil while unwrapping an Optional value: no ad and no error");
                    if (auto delegate = self->delegate()) delegate->bannerView(*self, *error);
                    Console::print(ads_detail::describe(*error));
                    return;
                }
                platform::currentPlatform()->mainQueue().async([self, ad = std::move(*ad)] { self->show(ad); });
            });
    } catch (const std::exception& e) {
        Console::print(std::string("BannerView: loadAd failed: ") + e.what());
    }
}

void BannerView::show(const MavoObject& ad) {
    bannedObject = ad;
    bannerID = ad.viewId;
    if (auto delegate = this->delegate()) delegate->adBannerDidReceiveAd(*this);
    if (bannedObject) ads_detail::fireTracker(*bannedObject, ads_detail::AdEvent::impression);

    std::optional<std::string> img;
    if (ad.items && !ad.items->empty() && ad.items->front().md) img = ad.items->front().md->img;
    if (!img) return;
    auto url = Url::parse(*img);
    if (!url) return;
    if (endsWith(*img, "gif")) {
        // The GIF plays into the image view; the banner stays as it is (a GIF is not the
        // still image that unhides it and counts as a view).
        gif::startAnimating(*url, imageView);
        return;
    }
    // The still image is read synchronously on the main queue, as the banner always has:
    // the session's synchronous send is meant for other threads, but here the wait is the
    // behaviour (the banner shows with its image, never empty). The read is bounded by the
    // 10-second ad timeout.
    platform::UrlRequest request(*url);
    request.timeoutInterval = 10;
    const auto result = platform::currentPlatform()->urlSession->sendSynchronous(request);
    imageView->image = result.data ? platform::Image::decode(*result.data) : nullptr;
    isHidden = false;
    if (bannedObject) ads_detail::fireTracker(*bannedObject, ads_detail::AdEvent::view);
}

// ---- Events ----

void BannerView::closeAd() {
    if (auto delegate = this->delegate()) delegate->adBannerClosed(*this);
    isHidden = true;
    imageView->image = nullptr;
}

void BannerView::didTapBanner() {
    if (bannedObject)
        ads_detail::fireTracker(*bannedObject, ads_detail::AdEvent::click,
                                [](bool success, std::optional<platform::UrlError> error) {
                                    Console::print(std::string("didTapBanner(), success: ") +
                                                   (success ? "true" : "false") + ", error: " +
                                                   (error ? error->localizedDescription() : std::string("nil")));
                                });
    if (!bannedObject || !bannedObject->items || bannedObject->items->empty()) return;
    const auto& md = bannedObject->items->front().md;
    if (!md || !md->url) return;
    std::string text = *md->url;
    if (md->l2) {
        static constexpr std::string_view kPlaceholder = "${l2}";
        for (auto at = text.find(kPlaceholder); at != std::string::npos; at = text.find(kPlaceholder, at + md->l2->size()))
            text.replace(at, kPlaceholder.size(), *md->l2);
    }
    auto url = Url::parse(text);
    if (!url) return;
    auto application = platform::currentPlatform()->application;
    if (!application || !application->canOpenURL(*url)) return;
    if (auto delegate = this->delegate()) delegate->adBannerWillPresentScreen(*this);
    application->open(*url, nullptr);
}

void BannerView::willResignActive() {
    if (auto delegate = this->delegate()) delegate->adBannerWillLeaveApplication(*this);
}

void BannerView::safariViewControllerDidFinish() {
    if (auto delegate = this->delegate()) delegate->adBannerWillDismissScreen(*this);
}

}  // namespace tessrakite
