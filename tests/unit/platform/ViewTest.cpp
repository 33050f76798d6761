#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <tessrakite/platform/Image.hpp>
#include <tessrakite/platform/ViewController.hpp>
#include <tessrakite/platform/ViewSnapshot.hpp>
#include <tessrakite/platform/headless/HeadlessPlatform.hpp>

#include "TestEnv.hpp"

namespace tessrakite::platform {
namespace {

using headless::Headless;

std::shared_ptr<View> child(View& parent, Rect frame = {}) {
    auto v = std::make_shared<View>(frame);
    parent.addSubview(v);
    return v;
}

std::shared_ptr<Image> solidImage(int width, int height, const std::vector<std::uint32_t>& rgba) {
    std::shared_ptr<std::uint8_t> pixels(new std::uint8_t[static_cast<std::size_t>(width * height * 4)],
                                         std::default_delete<std::uint8_t[]>());
    for (int i = 0; i < width * height; ++i)
        for (int c = 0; c < 4; ++c)
            pixels.get()[i * 4 + c] = static_cast<std::uint8_t>(rgba[static_cast<std::size_t>(i)] >> (24 - 8 * c));
    return std::make_shared<Image>(width, height, pixels);
}

std::shared_ptr<Image> renderAndDecode(View& view, const std::filesystem::path& file) {
    auto error = renderPNG(view, file);
    EXPECT_FALSE(error) << *error;
    const auto bytes = test::readFile(file);
    return Image::decode(Data(bytes.begin(), bytes.end()));
}

/// 0xRRGGBBAA of one pixel.
std::uint32_t pixel(const Image& image, int x, int y) {
    const std::uint8_t* p = image.rgba() + (static_cast<std::size_t>(y) * static_cast<std::size_t>(image.width()) + static_cast<std::size_t>(x)) * 4;
    return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) | p[3];
}

struct Recorder : ViewController {
    Recorder(std::string name, std::vector<std::string>& log) : name(std::move(name)), log(log) {}
    void viewWillAppear(bool) override { log.push_back(name + ".willAppear"); }
    void viewDidAppear(bool animated) override {
        log.push_back(name + ".didAppear");
        ViewController::viewDidAppear(animated);
    }
    void viewWillDisappear(bool) override { log.push_back(name + ".willDisappear"); }
    void viewDidDisappear(bool animated) override {
        log.push_back(name + ".didDisappear");
        ViewController::viewDidDisappear(animated);
    }
    std::string name;
    std::vector<std::string>& log;
};

class ViewTest : public ::testing::Test {
protected:
    ViewTest() {
        h = headless::makeHeadlessPlatform();
        h.effects->setSink([this](const std::string& name, const nlohmann::ordered_json& args) {
            log.push_back(name + " " + args["controller"].get<std::string>() + " " + args["style"].get<std::string>());
        });
        root = std::make_shared<Recorder>("Home", log);
        h.window->setRootViewController(root);
        log.clear();
    }
    ~ViewTest() override { h.effects->setSink(nullptr); }

    test::ScopedHome home;
    Headless h;
    std::vector<std::string> log;
    std::shared_ptr<Recorder> root;
};

TEST_F(ViewTest, ConstraintsGiveFramesInPortraitAndAgainAfterTurningToLandscape) {
    h.window->windowSafeAreaInsets = {47, 0, 34, 0};
    auto& top = *root->view();
    auto edges = child(top), half = child(top), below = child(top), banner = child(top), centred = child(top),
         closeBox = child(top), inverted = child(top);
    auto fill = child(*banner);
    using C = LayoutConstraint;
    C::activate({edges->leadingAnchor().constraint(top.leadingAnchor(), 10),
                 edges->topAnchor().constraint(top.topAnchor(), 20),
                 edges->trailingAnchor().constraint(top.trailingAnchor(), -30),
                 edges->bottomAnchor().constraint(top.bottomAnchor(), -40),
                 // The content of a portrait interstitial: image on top, text below it.
                 half->topAnchor().constraint(top.topAnchor()), half->leadingAnchor().constraint(top.leadingAnchor()),
                 half->trailingAnchor().constraint(top.trailingAnchor()),
                 half->heightAnchor().constraintWithMultiplier(top.heightAnchor(), 0.5),
                 below->topAnchor().constraint(half->bottomAnchor()),
                 below->leadingAnchor().constraint(top.leadingAnchor()),
                 below->trailingAnchor().constraint(top.trailingAnchor()),
                 below->bottomAnchor().constraint(top.bottomAnchor()),
                 // A banner on the safe area's bottom, centred.
                 banner->centerXAnchor().constraint(top.centerXAnchor()),
                 banner->bottomAnchor().constraint(top.safeAreaLayoutGuide().bottomAnchor()),
                 banner->widthAnchor().constraint(320.0), banner->heightAnchor().constraint(50.0),
                 centred->centerXAnchor().constraint(top.centerXAnchor()),
                 centred->centerYAnchor().constraint(top.centerYAnchor()),
                 centred->widthAnchor().constraintWithMultiplier(top.widthAnchor(), 0.5),
                 centred->heightAnchor().constraint(100.0),
                 closeBox->topAnchor().constraint(top.safeAreaLayoutGuide().topAnchor(), 16),
                 closeBox->leftAnchor().constraint(top.leftAnchor(), 16), closeBox->widthAnchor().constraint(30.0),
                 closeBox->heightAnchor().constraint(30.0),
                 // Written with the superview first.
                 top.bottomAnchor().constraint(inverted->bottomAnchor(), 8),
                 inverted->leadingAnchor().constraint(top.leadingAnchor()), inverted->widthAnchor().constraint(100.0),
                 inverted->heightAnchor().constraint(10.0)});
    C::activate(C::constraints("H:|[fill]|", {{"fill", fill}}));
    C::activate(C::constraints("V:|-5-[fill]-5-|", {{"fill", fill}}));

    struct Case {
        const char* name;
        std::shared_ptr<View> view;
        Rect portrait, landscape;
    };
    const std::vector<Case> cases = {
        {"edges with constants", edges, {10, 20, 350, 784}, {10, 20, 804, 330}},
        {"half the height", half, {0, 0, 390, 422}, {0, 0, 844, 195}},
        {"below a sibling", below, {0, 422, 390, 422}, {0, 195, 844, 195}},
        {"on the safe-area bottom", banner, {35, 760, 320, 50}, {262, 306, 320, 50}},
        {"centred, half the width", centred, {97.5, 372, 195, 100}, {211, 145, 422, 100}},
        {"below the safe-area top", closeBox, {16, 63, 30, 30}, {16, 63, 30, 30}},
        {"superview written first", inverted, {0, 826, 100, 10}, {0, 372, 100, 10}},
        {"visual formats, nested", fill, {0, 5, 320, 40}, {0, 5, 320, 40}},
    };
    h.window->layoutIfNeeded();
    for (const auto& c : cases) EXPECT_EQ(c.view->frame, c.portrait) << c.name;

    h.device->setOrientation(DeviceOrientation::landscapeLeft);
    for (const auto& c : cases) EXPECT_EQ(c.view->frame, c.landscape) << c.name << " in landscape";

    // Lying flat keeps the interface as it was.
    h.device->setOrientation(DeviceOrientation::faceUp);
    EXPECT_EQ(h.window->frame, (Rect{0, 0, 844, 390}));
}

TEST_F(ViewTest, ConstraintsOutsideTheSubsetAreRefusedWithAConsoleLine) {
    test::ConsoleCapture console;
    auto a = child(*root->view());
    auto stranger = std::make_shared<View>();
    LayoutConstraint::activate({a->topAnchor().constraint(stranger->topAnchor()),
                                a->topAnchor().constraint(root->view()->leadingAnchor())});
    EXPECT_TRUE(a->constraints().empty());
    EXPECT_TRUE(LayoutConstraint::constraints("H:[a]-[b]", {{"a", a}}).empty());
    EXPECT_TRUE(LayoutConstraint::constraints("V:|[a]|", {{"a", stranger}}).empty());
    EXPECT_EQ(console.lines().size(), 4u);
}

TEST_F(ViewTest, PresentingAndDismissingRunTheCallbacksInOrderAndReportTheTransitions) {
    std::vector<std::string> hooked;
    ViewController::exchangeAppearanceHooks([&](ViewController& c) { hooked.push_back(static_cast<Recorder&>(c).name); },
                                            [](ViewController&) {});
    auto sheet = std::make_shared<Recorder>("Sheet", log);
    sheet->modalPresentationStyle = ModalPresentationStyle::overFullScreen;
    auto cover = std::make_shared<Recorder>("Cover", log);
    cover->modalPresentationStyle = ModalPresentationStyle::fullScreen;
    int completions = 0;

    root->present(sheet, true, [&] { ++completions; });
    sheet->present(cover, false, [&] { ++completions; });
    EXPECT_EQ(root->presentedViewController(), sheet);
    EXPECT_EQ(cover->presentingViewController(), sheet.get());
    // Over full screen leaves the root's view beneath; full screen takes the sheet's away.
    EXPECT_EQ(h.window->subviews(), (std::vector{root->view(), cover->view()}));

    test::ConsoleCapture console;
    sheet->present(std::make_shared<Recorder>("Third", log), true);
    EXPECT_EQ(console.lines().size(), 1u);

    root->dismiss(true, [&] { ++completions; });
    ViewController::exchangeAppearanceHooks(nullptr, nullptr);
    const auto sheetType = sheet->typeName(), coverType = cover->typeName();
    EXPECT_EQ(log, (std::vector<std::string>{
                       "present " + sheetType + " overFullScreen", "Sheet.willAppear", "Sheet.didAppear",
                       "present " + coverType + " fullScreen", "Cover.willAppear", "Sheet.willDisappear",
                       "Cover.didAppear", "Sheet.didDisappear",
                       "dismiss " + coverType + " fullScreen", "Cover.willDisappear",
                       "dismiss " + sheetType + " overFullScreen", "Sheet.willDisappear", "Cover.didDisappear",
                       "Sheet.didDisappear"}));
    EXPECT_EQ(hooked, (std::vector<std::string>{"Sheet", "Cover"}));
    EXPECT_EQ(completions, 3);
    EXPECT_EQ(root->presentedViewController(), nullptr);
    EXPECT_EQ(h.window->subviews(), (std::vector{root->view()}));
}

TEST_F(ViewTest, SnapshotDrawsColoursBordersRoundedCornersImagesTextAndAlpha) {
    View canvas({0, 0, 200, 200});
    auto card = child(canvas, {0, 0, 100, 100});
    card->backgroundColor = Color{1, 0, 0, 1};
    card->cornerRadius = 30;
    card->borderWidth = 4;
    card->borderColor = Color{0, 0, 1, 1};
    auto picture = std::make_shared<ImageView>(solidImage(2, 2, {0xFF0000FF, 0x00FF00FF, 0x0000FFFF, 0xFFFFFFFF}));
    picture->frame = {100, 0, 100, 50};
    picture->contentMode = ContentMode::scaleAspectFit;
    canvas.addSubview(picture);
    auto label = std::make_shared<Label>();
    label->frame = {0, 100, 200, 100};
    label->text = "Hello";
    label->fontSize = 30;
    auto faded = child(canvas, {100, 150, 100, 50});
    faded->backgroundColor = Color{0, 1, 0, 1};
    faded->alpha = 0.5;
    canvas.addSubview(label);
    auto hidden = child(canvas, {0, 0, 200, 200});
    hidden->backgroundColor = Color::black();
    hidden->isHidden = true;

    auto image = renderAndDecode(canvas, home.path() / "canvas.png");
    ASSERT_TRUE(image);
    ASSERT_EQ(image->width(), 200);
    struct Probe {
        const char* what;
        int x, y;
        std::uint32_t rgba;
    };
    for (const auto& p : std::vector<Probe>{{"rounded corner left clear", 2, 2, 0x00000000},
                                            {"border", 50, 1, 0x0000FFFF},
                                            {"background", 50, 50, 0xFF0000FF},
                                            {"image letterboxed by aspect fit", 110, 25, 0x00000000},
                                            {"image's top-left pixel", 135, 10, 0xFF0000FF},
                                            {"image's bottom-right pixel", 165, 40, 0xFFFFFFFF},
                                            {"half-transparent view", 190, 190, 0x00FF0080}})
        EXPECT_EQ(pixel(*image, p.x, p.y), p.rgba) << p.what;
    int inked = 0;
    for (int y = 100; y < 200; ++y)
        for (int x = 0; x < 100; ++x) inked += (pixel(*image, x, y) & 0xFF) > 0x80;
    EXPECT_GT(inked, 50) << "the label's text is drawn";

    // The window shows the screens it presents on top: over full screen leaves the root
    // visible beneath, full screen does not.
    root->view()->backgroundColor = Color::white();
    auto overlay = std::make_shared<ViewController>();
    overlay->modalPresentationStyle = ModalPresentationStyle::overFullScreen;
    child(*overlay->view(), {0, 0, 50, 50})->backgroundColor = Color{1, 0, 0, 1};
    root->present(overlay, false);
    auto screen = renderAndDecode(*h.window, home.path() / "screen.png");
    ASSERT_TRUE(screen);
    EXPECT_EQ(pixel(*screen, 25, 25), 0xFF0000FFu);
    EXPECT_EQ(pixel(*screen, 200, 400), 0xFFFFFFFFu);
    overlay->dismiss(false);
    overlay->modalPresentationStyle = ModalPresentationStyle::fullScreen;
    root->present(overlay, false);
    screen = renderAndDecode(*h.window, home.path() / "screen.png");
    ASSERT_TRUE(screen);
    EXPECT_EQ(pixel(*screen, 200, 400), 0x000000FFu) << "the window's black shows through";
}

TEST_F(ViewTest, TheTreeAsJSONNamesTypesFramesTextsAndImages) {
    auto& top = *root->view();
    auto label = std::make_shared<Label>();
    label->frame = {1, 2, 3, 4};
    label->text = "Hi";
    label->accessibilityIdentifier = "greeting";
    top.addSubview(label);
    auto picture = std::make_shared<ImageView>(solidImage(2, 1, {0, 0}));
    picture->isHidden = true;
    picture->alpha = 0.5;
    label->addSubview(picture);
    auto json = toJSON(top);
    EXPECT_EQ(json.dump(), R"({"type":"View","frame":{"x":0.0,"y":0.0,"width":390.0,"height":844.0},"hidden":false,)"
                           R"("alpha":1.0,"controller":")" + root->typeName() +
                               R"(","children":[{"type":"Label","frame":{"x":1.0,"y":2.0,"width":3.0,"height":4.0},)"
                               R"("hidden":false,"alpha":1.0,"identifier":"greeting","text":"Hi","children":[)"
                               R"({"type":"ImageView","frame":{"x":0.0,"y":0.0,"width":0.0,"height":0.0},"hidden":true,)"
                               R"("alpha":0.5,"image":{"width":2,"height":1},"children":[]}]}]})");
}

TEST_F(ViewTest, TapsReachRecognisersAndButtonsOnlyWhereATouchCould) {
    std::vector<std::string> fired;
    auto& top = *root->view();
    auto picture = std::make_shared<ImageView>();
    auto content = child(top);
    top.addSubview(picture);
    auto recognizer = std::make_shared<TapGestureRecognizer>([&] { fired.push_back("open"); });
    picture->addGestureRecognizer(recognizer);
    auto close = std::make_shared<Button>();
    close->addAction(ControlEvent::touchUpInside, [&] { fired.push_back("close"); });
    top.addSubview(close);

    EXPECT_FALSE(picture->tap()) << "an image view takes no touches until told to";
    picture->isUserInteractionEnabled = true;
    EXPECT_TRUE(picture->tap());
    content->addGestureRecognizer(recognizer);  // one view at a time: it leaves the picture
    EXPECT_FALSE(picture->tap());
    EXPECT_TRUE(content->tap());
    EXPECT_TRUE(close->tap());
    close->isEnabled = false;
    EXPECT_FALSE(close->tap());
    close->isEnabled = true;
    top.isHidden = true;
    EXPECT_FALSE(close->tap()) << "a hidden parent hides its children from touches";
    EXPECT_EQ(fired, (std::vector<std::string>{"open", "open", "close"}));
}

TEST_F(ViewTest, ATapAtAPointGoesToTheDeepestViewThereThatTakesTouchesThenItsParents) {
    std::string fired;
    auto& top = *root->view();
    auto card = child(top, {20, 20, 200, 200});
    card->addGestureRecognizer(std::make_shared<TapGestureRecognizer>([&] { fired = "card"; }));
    auto title = std::make_shared<Label>();  // takes no touches: the card gets them
    title->frame = {10, 10, 100, 20};
    card->addSubview(title);
    auto close = std::make_shared<Button>(Rect{150, 150, 40, 40});
    close->addAction(ControlEvent::touchUpInside, [&] { fired = "close"; });
    card->addSubview(close);
    auto cover = child(*card, {0, 0, 60, 60});
    cover->addGestureRecognizer(std::make_shared<TapGestureRecognizer>([&] { fired = "cover"; }));
    cover->isHidden = true;

    struct Case {
        Point at;
        std::string fired;
    };
    for (const auto& c : std::vector<Case>{{{40, 35}, "card"},      // on the title
                                           {{25, 25}, "card"},      // under the hidden cover
                                           {{185, 185}, "close"},   // the button: 20 + 150 in from the corner
                                           {{300, 300}, ""}}) {     // beside the card: the screen has no recogniser
        SCOPED_TRACE(testing::PrintToString(std::vector<double>{c.at.x, c.at.y}));
        fired.clear();
        EXPECT_EQ(h.window->tapAt(c.at), !c.fired.empty());
        EXPECT_EQ(fired, c.fired);
    }
    root->present(std::make_shared<ViewController>(), false);
    EXPECT_FALSE(h.window->tapAt({40, 35})) << "a presented screen covers the one below";
}

}  // namespace
}  // namespace tessrakite::platform
