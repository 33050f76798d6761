#include <tessrakite/ads/AppOpenAdView.hpp>

#include "AdSupport.hpp"

namespace tessrakite {

namespace {

using platform::Color;
using platform::LayoutConstraint;

constexpr double kMargin = 24;   // card to screen edge
constexpr double kPadding = 16;  // inside the card
constexpr double kIconSize = 40;

}  // namespace

AppOpenAdView::AppOpenAdView() { backgroundColor = Color::black().withAlpha(0.9); }

std::shared_ptr<platform::View> AppOpenAdView::containerView() {
    if (!container_) {
        container_ = std::make_shared<platform::View>();
        container_->backgroundColor = Color::white();
        container_->cornerRadius = 12;
        container_->clipsToBounds = true;
        container_->accessibilityIdentifier = "appOpen.container";
    }
    return container_;
}

std::shared_ptr<platform::Label> AppOpenAdView::advertisementLabel() {
    if (!advertisement_) {
        advertisement_ = std::make_shared<platform::Label>();
        advertisement_->text = "Advertisement";
        advertisement_->fontSize = 12;
        advertisement_->textColor = Color::gray();
        advertisement_->accessibilityIdentifier = "appOpen.advertisement";
    }
    return advertisement_;
}

std::shared_ptr<platform::ImageView> AppOpenAdView::adImageView() {
    if (!image_) {
        image_ = std::make_shared<platform::ImageView>();
        image_->contentMode = platform::ContentMode::scaleAspectFit;
        image_->backgroundColor = Color{0.95, 0.95, 0.95, 1};
        image_->accessibilityIdentifier = "appOpen.image";
    }
    return image_;
}

std::shared_ptr<platform::ImageView> AppOpenAdView::iconImageView() {
    if (!icon_) {
        icon_ = std::make_shared<platform::ImageView>();
        // The feed has no separate logo: the icon shows the creative, cropped to a square.
        icon_->contentMode = platform::ContentMode::scaleAspectFill;
        icon_->cornerRadius = 8;
        icon_->clipsToBounds = true;
        icon_->backgroundColor = Color::orange();
        icon_->accessibilityIdentifier = "appOpen.icon";
    }
    return icon_;
}

std::shared_ptr<platform::Label> AppOpenAdView::titleLabel() {
    if (!title_) {
        title_ = std::make_shared<platform::Label>();
        title_->fontSize = 17;
        title_->numberOfLines = 2;
        title_->accessibilityIdentifier = "appOpen.title";
    }
    return title_;
}

std::shared_ptr<platform::Button> AppOpenAdView::continueButton() {
    if (!continue_) {
        continue_ = std::make_shared<platform::Button>();
        continue_->setTitle("Continue");
        continue_->titleColor = Color::black();
        continue_->backgroundColor = Color::white();
        continue_->cornerRadius = 22;
        continue_->fontSize = 17;
        continue_->accessibilityIdentifier = "appOpen.continue";
    }
    return continue_;
}

void AppOpenAdView::buildLayout() {
    if (built_) return;
    built_ = true;
    auto card = containerView();
    auto label = advertisementLabel();
    auto image = adImageView();
    auto icon = iconImageView();
    auto title = titleLabel();
    auto button = continueButton();
    addSubview(card);
    addSubview(button);
    for (const auto& part : {static_cast<std::shared_ptr<platform::View>>(label), std::shared_ptr<platform::View>(image),
                             std::shared_ptr<platform::View>(icon), std::shared_ptr<platform::View>(title)})
        card->addSubview(part);

    auto safe = safeAreaLayoutGuide();
    LayoutConstraint::activate({
        // The button sits at the bottom; the card fills the screen above it, within margins.
        button->bottomAnchor().constraint(safe.bottomAnchor(), -kMargin),
        button->centerXAnchor().constraint(centerXAnchor()),
        button->widthAnchor().constraint(200.0),
        button->heightAnchor().constraint(44.0),
        card->topAnchor().constraint(safe.topAnchor(), kMargin),
        card->leadingAnchor().constraint(safe.leadingAnchor(), kMargin),
        card->trailingAnchor().constraint(safe.trailingAnchor(), -kMargin),
        card->bottomAnchor().constraint(button->topAnchor(), -kMargin),
        // Inside the card: the label on top, the icon and title at the foot, the image
        // edge to edge between them.
        label->topAnchor().constraint(card->topAnchor(), 12),
        label->leadingAnchor().constraint(card->leadingAnchor(), kPadding),
        icon->bottomAnchor().constraint(card->bottomAnchor(), -kPadding),
        icon->leadingAnchor().constraint(card->leadingAnchor(), kPadding),
        icon->widthAnchor().constraint(kIconSize),
        icon->heightAnchor().constraint(kIconSize),
        title->leadingAnchor().constraint(icon->trailingAnchor(), 12),
        title->trailingAnchor().constraint(card->trailingAnchor(), -kPadding),
        title->centerYAnchor().constraint(icon->centerYAnchor()),
        image->topAnchor().constraint(label->bottomAnchor(), 8),
        image->bottomAnchor().constraint(icon->topAnchor(), -kPadding),
        image->leadingAnchor().constraint(card->leadingAnchor()),
        image->trailingAnchor().constraint(card->trailingAnchor()),
    });
}

void AppOpenAdView::configure(const CustomizedAdObject& ad) {
    buildLayout();
    adImageView()->image = ad.image;
    iconImageView()->image = ad.image;
    const Md* md = ad.mavoObject ? ads_detail::firstMd(*ad.mavoObject) : nullptr;
    titleLabel()->text = md && md->title ? *md->title : std::string();
    titleLabel()->isHidden = titleLabel()->text.empty();
}

}  // namespace tessrakite
