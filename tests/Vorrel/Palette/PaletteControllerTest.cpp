#include "tests/support/TestPalette.h"

#include "Vorrel/Palette/PaletteController.h"
#include "Vorrel/Platform/Headless/HeadlessPaletteWindow.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using testing::ElementsAre;
using Mode = PaletteState::Mode;

namespace {

/// A controller over a window without a screen. The palette of the base only lends its services.
struct TestController : TestPalette {
    TestController() :
        controller(std::make_unique<PaletteController>(*services, [this](PaletteController &) {
            auto made = std::make_unique<HeadlessPaletteWindow>();
            window = made.get();
            return made;
        }))
    {
        settle();
    }
    ~TestController() { loop.shutDown(); }
    PaletteState &palette() { return controller->state(); }
    bool press(std::string character, bool shift = false)
    {
        return controller->handleKey(
            {.key = KeyPress::Key::Character, .character = std::move(character), .command = true, .shift = shift});
    }

    HeadlessPaletteWindow *window = nullptr;
    std::unique_ptr<PaletteController> controller;
};

} // namespace

TEST(PaletteController, ShowingStartsAFreshSessionWithTheKeyboardInTheField)
{
    TestController test;
    test.palette().setInputText("left over");
    test.controller->toggle();
    EXPECT_TRUE(test.controller->presented());
    EXPECT_TRUE(test.window->visible());
    EXPECT_EQ(test.palette().query(), "");
    EXPECT_EQ(test.palette().mode(), Mode::commands);
    EXPECT_EQ(test.window->focused, 1);
    ASSERT_EQ(test.window->fades.size(), 1u);
    EXPECT_EQ(test.window->fades[0].target, 1);
    EXPECT_EQ(test.window->fades[0].duration, 160ms);
    EXPECT_EQ(test.shortcuts->refreshes, std::vector<bool>{false});
}

TEST(PaletteController, HidingFadesAndThenOrdersTheWindowOut)
{
    TestController test;
    test.controller->toggle();
    test.window->endFade();
    test.controller->toggle();
    EXPECT_FALSE(test.controller->presented());
    EXPECT_TRUE(test.window->visible()) << "until the fade has ended";
    EXPECT_EQ(test.window->fades[1].target, 0);
    EXPECT_EQ(test.window->fades[1].duration, 100ms);
    test.window->endFade();
    EXPECT_FALSE(test.window->visible());
}

TEST(PaletteController, ShowingWhileAHideFadeRunsKeepsTheWindow)
{
    TestController test;
    test.controller->toggle();
    test.window->endFade();
    test.controller->toggle();
    test.controller->toggle();
    test.window->endFade();
    EXPECT_TRUE(test.window->visible());
    EXPECT_TRUE(test.controller->presented());
}

TEST(PaletteController, WithReducedMotionShowAndHideTakeNoTimeAndStillOrderOut)
{
    TestController test;
    test.window->reduced = true;
    test.controller->toggle();
    test.controller->toggle();
    EXPECT_EQ(test.window->fades[0].duration, 0ms);
    EXPECT_EQ(test.window->fades[1].duration, 0ms);
    test.window->endFade();
    test.window->endFade();
    EXPECT_FALSE(test.window->visible());
}

TEST(PaletteController, ShowingPlacesTheTransparentWindowThenRaisesItThenFocusesAndFades)
{
    TestController test;
    test.controller->toggle();
    EXPECT_THAT(test.window->log, ElementsAre("move", "transparent", "front", "focus", "fade in"));
    test.window->log.clear();
    test.controller->toggle();
    EXPECT_THAT(test.window->log, ElementsAre("fade out"));
    test.window->endFade();
    test.window->endFade();
    EXPECT_THAT(test.window->log, ElementsAre("fade out", "out"));
}

TEST(PaletteController, AWindowThatIsStillVisibleIsNotMadeTransparentAtTheNextShow)
{
    TestController test;
    test.controller->toggle();
    test.controller->toggle();
    test.window->log.clear();
    test.controller->toggle();
    EXPECT_THAT(test.window->log, ElementsAre("move", "front", "focus", "fade in"));
}

TEST(PaletteController, ACompletionThatComesAfterTheControllerHasGoneIsHarmless)
{
    TestController test;
    auto kept = test.controller->state().shared_from_this(); // as a task that still runs keeps it
    test.controller->toggle();
    test.controller->toggle();
    const auto completed = test.window->fades.back().completed;
    kept->focusInput();
    test.controller.reset();
    completed();
    test.settle();
    EXPECT_EQ(kept.use_count(), 1);
}

TEST(PaletteController, HidingEndsTheSessionsWorkAndHidingTwiceDoesNothingMore)
{
    TestController test;
    test.controller->toggle();
    const int session = test.palette().sessionGeneration();
    test.controller->hide();
    EXPECT_EQ(test.palette().sessionGeneration(), session + 1);
    test.controller->hide();
    EXPECT_EQ(test.palette().sessionGeneration(), session + 1);
    EXPECT_EQ(test.window->fades.size(), 2u);
}

TEST(PaletteController, TheFieldGetsTheFocusAfterAChangeOnlyWhileTheWindowHasTheKeyboard)
{
    TestController test;
    test.controller->toggle();
    const int before = test.window->focused;
    test.palette().focusInput();
    EXPECT_EQ(test.window->focused, before) << "not before the views have settled";
    test.settle();
    EXPECT_EQ(test.window->focused, before + 1);
    test.window->keyboard = false;
    test.palette().focusInput();
    test.settle();
    EXPECT_EQ(test.window->focused, before + 1);
}

TEST(PaletteController, UnderADialogTogglingOnlyBringsItForward)
{
    TestController test;
    test.controller->toggle();
    test.window->sheet = true;
    test.controller->toggle();
    EXPECT_TRUE(test.controller->presented());
    EXPECT_EQ(test.window->sheetRaised, 1);
}

TEST(PaletteController, ThePaletteStandsOnTheScreenWithTheMouseEightPercentAboveItsCentre)
{
    TestController test;
    test.window->allScreens = {{{0, 0, 1600, 1000}, {0, 30, 1600, 970}}, {{1600, 0, 1600, 1000}, {1600, 0, 1600, 1000}}};
    test.window->mouseAt = {2000, 500};
    test.controller->toggle();
    EXPECT_EQ(test.window->at, (ScreenRect{1600 + 450, 245 - 80, 700, 510}));
    test.controller->toggle();
    test.window->mouseAt = {-5, -5};
    test.controller->toggle();
    EXPECT_EQ(test.window->at.x, 450) << "the main screen, when the mouse is on none";
}

TEST(PaletteController, WithoutAnyScreenTheWindowStaysWhereItIs)
{
    TestController test;
    test.window->allScreens.clear();
    test.window->at = {11, 22, 700, 510};
    test.controller->toggle();
    EXPECT_EQ(test.window->at, (ScreenRect{11, 22, 700, 510}));
    EXPECT_TRUE(test.controller->presented());
}

TEST(PaletteController, AShownPaletteWhoseScreenGoesMovesToOneThatIsLeft)
{
    TestController test;
    const PaletteWindow::Screen left{{0, 0, 1600, 1000}, {0, 0, 1600, 1000}}, right{{1600, 0, 1600, 1000}, {1600, 0, 1600, 1000}};
    test.window->allScreens = {left, right};
    test.window->mouseAt = {2000, 500};
    test.controller->toggle();
    test.window->moveTo(1700, 100); // by the user
    test.controller->screensChanged();
    EXPECT_EQ(test.window->at.x, 1700) << "a screen still shows it";
    test.window->allScreens = {left};
    test.controller->screensChanged();
    EXPECT_EQ(test.window->at, (ScreenRect{450, 245 - 80, 700, 510}));
}

TEST(PaletteController, AHiddenPaletteLeavesChangesOfTheScreensToTheNextShow)
{
    TestController test;
    test.window->allScreens = {{{5000, 0, 1600, 1000}, {5000, 0, 1600, 1000}}};
    test.controller->screensChanged();
    EXPECT_THAT(test.window->log, ElementsAre());
    test.controller->toggle();
    EXPECT_EQ(test.window->at.x, 5450);
}

TEST(PaletteController, AWindowThatIsNotVisibleHasNoKeyboardToLose)
{
    TestController test;
    test.controller->toggle();
    test.window->isVisible = false;
    test.window->loseKeyboard();
    EXPECT_TRUE(test.controller->presented());
}

TEST(PaletteController, LosingTheKeyboardHidesItUnlessAWindowOfAFlowStands)
{
    TestController test;
    test.controller->toggle();
    test.controller->coordinator()._isPresenting = true;
    test.window->loseKeyboard();
    EXPECT_TRUE(test.controller->presented());
    test.controller->coordinator()._isPresenting = false;
    test.window->sheet = true;
    test.window->loseKeyboard();
    EXPECT_TRUE(test.controller->presented());
    test.window->sheet = false;
    test.window->loseKeyboard();
    EXPECT_FALSE(test.controller->presented());
}

TEST(PaletteController, OnlyAClickOutsideHides)
{
    TestController test;
    test.controller->toggle();
    const ScreenRect at = test.window->at;
    test.controller->mousePressed(at.x + 1, at.y + 1, false);
    EXPECT_TRUE(test.controller->presented()) << "inside the frame";
    test.controller->mousePressed(at.x - 50, at.y, true);
    EXPECT_TRUE(test.controller->presented()) << "in a window of the palette";
    test.controller->mousePressed(at.x - 1, at.y, false);
    EXPECT_FALSE(test.controller->presented());
}

TEST(PaletteController, AClickOutsideLeavesItWhileADialogOrAWindowOfAFlowStands)
{
    TestController test;
    test.controller->toggle();
    test.window->sheet = true;
    test.controller->mousePressed(0, 0, false);
    EXPECT_TRUE(test.controller->presented());
    test.window->sheet = false;
    test.controller->coordinator()._isPresenting = true;
    test.controller->mousePressed(0, 0, false);
    EXPECT_TRUE(test.controller->presented());
    test.controller->coordinator()._isPresenting = false;
    test.controller->mousePressed(0, 0, false);
    EXPECT_FALSE(test.controller->presented());
    test.controller->mousePressed(0, 0, false);
    EXPECT_EQ(test.window->fades.size(), 2u) << "a hidden palette has nothing to hide";
}

TEST(PaletteController, AClickOnTheStatusItemClosesAnOpenPaletteAlthoughItsPressHasDoneSoAlready)
{
    TestController test;
    test.controller->toggle();
    test.controller->mousePressed(0, 0, false);
    test.wait(299ms);
    test.controller->toggleByClick();
    EXPECT_FALSE(test.controller->presented()) << "what the same click does elsewhere";
    test.wait(1ms);
    test.controller->toggleByClick();
    EXPECT_TRUE(test.controller->presented()) << "the next click";
    test.controller->toggleByClick();
    EXPECT_FALSE(test.controller->presented()) << "no press was seen";
    test.controller->toggleByClick();
    EXPECT_TRUE(test.controller->presented()) << "a hide by anything else is no press";
    test.controller->mousePressed(0, 0, false);
    test.controller->toggle();
    EXPECT_TRUE(test.controller->presented()) << "the global key is no click";
}

TEST(PaletteController, TheDigitsOneToFourSelectATabAndFiveGoesToTheField)
{
    TestController test;
    test.controller->toggle();
    EXPECT_TRUE(test.press("4"));
    EXPECT_EQ(test.palette().category(), SearchCategory::shortcuts);
    EXPECT_TRUE(test.press("2"));
    EXPECT_EQ(test.palette().category(), SearchCategory::applications);
    EXPECT_TRUE(test.press("1"));
    EXPECT_EQ(test.palette().category(), SearchCategory::all);
    EXPECT_FALSE(test.press("5"));
    EXPECT_FALSE(test.press("0"));
    EXPECT_EQ(test.palette().category(), SearchCategory::all);
}

TEST(PaletteController, KeysReachTheirOperations)
{
    TestController test;
    test.palette().registry.registerCommand(std::make_shared<StaticCommand>(
        CommandResultFields{.id = "row", .title = "Row", .previewText = "text", .actions = {{.id = "open", .title = "Open"}}}));
    test.controller->toggle();
    test.palette().setInputText("row");
    EXPECT_TRUE(test.press("k"));
    EXPECT_TRUE(test.palette().showsActions());
    EXPECT_TRUE(test.press("k"));
    EXPECT_TRUE(test.press("y"));
    EXPECT_TRUE(test.palette().showsPreview());
    EXPECT_TRUE(test.press("c", true));
    EXPECT_TRUE(test.press("C", true)) << "as a keyboard with Shift gives it";
    EXPECT_FALSE(test.press("c")) << "the field copies";
    EXPECT_FALSE(test.press("k", true)) << "the letters without Shift alone";
    EXPECT_FALSE(test.press("y", true));
    EXPECT_FALSE(test.palette().showsActions());
    EXPECT_FALSE(test.press("v"));
    EXPECT_TRUE(test.controller->handleKey({.key = KeyPress::Key::Return, .command = true}));
    EXPECT_FALSE(test.controller->handleKey({.key = KeyPress::Key::Return}));
    EXPECT_TRUE(test.controller->handleKey({.key = KeyPress::Key::Escape}));
    EXPECT_FALSE(test.palette().showsPreview());
    EXPECT_TRUE(test.controller->handleKey({.key = KeyPress::Key::Escape, .command = true}));
    EXPECT_FALSE(test.controller->presented());
}

TEST(PaletteController, KeysUnderADialogAreLeftAlone)
{
    TestController test;
    test.controller->toggle();
    test.window->sheet = true;
    EXPECT_FALSE(test.press("k"));
    EXPECT_FALSE(test.controller->handleKey({.key = KeyPress::Key::Escape}));
}

TEST(PaletteController, OpeningRefreshesTheApplicationsOnlyWhenTheListIsOlderThanFifteenSeconds)
{
    TestController test;
    const double last = test.services->applications->lastRefresh();
    test.wait(15s);
    test.controller->toggle();
    test.settle();
    EXPECT_EQ(test.services->applications->lastRefresh(), last);
    test.controller->toggle();
    test.wait(1ms);
    test.controller->toggle();
    test.settle();
    EXPECT_EQ(test.services->applications->lastRefresh(), test.clock.now());
}

TEST(PaletteController, AWallClockSetBackDoesNotStopTheRefreshAtOpening)
{
    TestController test;
    const double last = test.services->applications->lastRefresh();
    test.clock.setWall(test.clock.now() - 86400);
    test.controller->toggle();
    test.settle();
    EXPECT_EQ(test.services->applications->lastRefresh(), test.clock.now());
    EXPECT_LT(test.services->applications->lastRefresh(), last);
}

TEST(PaletteController, StoppingTwiceIsHarmlessAndNothingShowsAfterwards)
{
    TestController test;
    test.controller->toggle();
    test.controller->stop();
    test.controller->stop();
    test.controller->toggle();
    EXPECT_FALSE(test.controller->presented());
}
