#include <tessrakite/ads/AppOpenAdController.hpp>

#include <string>
#include <string_view>

#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/core/TessraRequest.hpp>
#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/Platform.hpp>

#include "AdSupport.hpp"

namespace tessrakite {

namespace {

std::string withL2(std::string text, const std::string& l2) {
    static constexpr std::string_view kPlaceholder = "${l2}";
    for (auto at = text.find(kPlaceholder); at != std::string::npos; at = text.find(kPlaceholder, at + l2.size()))
        text.replace(at, kPlaceholder.size(), l2);
    return text;
}

}  // namespace

AppOpenAdController::AppOpenAdController() : appOpenAdView(std::make_shared<AppOpenAdView>()) {
    modalPresentationStyle = platform::ModalPresentationStyle::fullScreen;
}

void AppOpenAdController::loadView() {
    setView(appOpenAdView);
    // The view belongs to this controller, so the actions may hold it plainly.
    appOpenAdView->continueButton()->addAction(platform::ControlEvent::touchUpInside, [this] { didTapContinue(); });
    for (platform::View* part : {static_cast<platform::View*>(appOpenAdView->adImageView().get()),
                                 static_cast<platform::View*>(appOpenAdView->titleLabel().get())}) {
        part->isUserInteractionEnabled = true;
        part->addGestureRecognizer(std::make_shared<platform::TapGestureRecognizer>([this] { didTapOpenAd(); }));
    }
    if (customizedAdObject) appOpenAdView->configure(*customizedAdObject);
}

void AppOpenAdController::viewWillAppear(bool animated) {
    ViewController::viewWillAppear(animated);
    if (willPresentAd) willPresentAd();
}

void AppOpenAdController::viewDidAppear(bool animated) {
    ViewController::viewDidAppear(animated);
    // The creative is now seen: the view tracker, as a banner's shown image fires it.
    if (customizedAdObject && customizedAdObject->mavoObject)
        ads_detail::fireTracker(*customizedAdObject->mavoObject, ads_detail::AdEvent::view);
}

void AppOpenAdController::didTapOpenAd() {
    const MavoObject* ad = customizedAdObject && customizedAdObject->mavoObject ? &*customizedAdObject->mavoObject
                                                                                  : nullptr;
    if (ad && ads_detail::trackerFor(*ad, ads_detail::AdEvent::click)) {
        ads_detail::fireTracker(*ad, ads_detail::AdEvent::click);
    } else {
        Console::print("No click tracker");
    }
    // The landing page opens at once rather than after the tracker: a slow or failed
    // tracker must not swallow the user's tap.
    const Md* md = ad ? ads_detail::firstMd(*ad) : nullptr;
    if (!md || !md->url) return;
    const auto landing = Url::parse(withL2(*md->url, md->l2.value_or("")));
    if (!landing) {
        Console::print("AppOpenAd: the landing page is not a URL: " + *md->url);
        return;
    }
    if (auto application = platform::currentPlatform()->application) application->open(*landing, nullptr);
}

void AppOpenAdController::didTapContinue() {
    // didDismissAd may release this controller: it is called with a copy, as the last step.
    auto done = didDismissAd;
    dismiss(true, [done] {
        if (done) done();
    });
}

}  // namespace tessrakite
