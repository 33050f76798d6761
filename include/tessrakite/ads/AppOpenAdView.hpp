#pragma once

#include <memory>

#include <tessrakite/Export.hpp>
#include <tessrakite/ads/CustomizedAdObject.hpp>
#include <tessrakite/platform/View.hpp>

namespace tessrakite {

/// The app-open ad's content: a white card (the container) on a dark backdrop, holding
/// the "Advertisement" label, the creative image, and a row of an icon and the ad's
/// title; a "Continue" button below the card closes the ad. Each part is made on first
/// use. Main queue only.
///
///   accessibility identifiers: appOpen.container, appOpen.advertisement, appOpen.image,
///   appOpen.icon, appOpen.title, appOpen.continue
class TESSRA_EXPORT AppOpenAdView : public platform::View {
public:
    AppOpenAdView();

    std::shared_ptr<platform::ImageView> iconImageView();
    std::shared_ptr<platform::View> containerView();
    std::shared_ptr<platform::Button> continueButton();
    std::shared_ptr<platform::Label> advertisementLabel();
    std::shared_ptr<platform::Label> titleLabel();
    std::shared_ptr<platform::ImageView> adImageView();

    /// Shows the ad's image and title (the title line is hidden when the ad has none).
    void configure(const CustomizedAdObject& ad);

private:
    void buildLayout();

    std::shared_ptr<platform::ImageView> icon_;
    std::shared_ptr<platform::View> container_;
    std::shared_ptr<platform::Button> continue_;
    std::shared_ptr<platform::Label> advertisement_;
    std::shared_ptr<platform::Label> title_;
    std::shared_ptr<platform::ImageView> image_;
    bool built_ = false;
};

}  // namespace tessrakite
