#include "tests/support/TestPalette.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using Key = KeyPress::Key;
using Reason = FileAccessFailure::Reason;

namespace {

/// A coordinator over a preview without a screen, with a system that answers when the test says.
struct Coordinated : HeadlessDesktop {
    ~Coordinated() { loop.shutDown(); }

    Begun<void> toggle(const std::string &path) { return Begun<void>(loop, coordinator->togglePreview(path)); }
    /// A preview that stands.
    void show(const std::string &path)
    {
        await(loop, coordinator->togglePreview(path));
        ASSERT_EQ(preview.shown, path);
        preview.log.clear();
    }
    bool idle() const { return !coordinator->isPresenting() && !coordinator->checkingAccess(); }

    ScriptedProbe probe;
    std::unique_ptr<ActionCoordinator> coordinator = std::make_unique<ActionCoordinator>(platform(), probe.asking());
};

const KeyPress escape{.key = Key::Escape};
const KeyPress commandY{.key = Key::Character, .character = "y", .command = true};

} // namespace

TEST(ActionCoordinator, AFileIsShownOnceTheSystemSaysThatItOpens)
{
    Coordinated test;
    test.probe.holds = true;
    auto toggle = test.toggle("/a.png");
    test.loop.runUntilIdle();
    EXPECT_TRUE(test.coordinator->checkingAccess());
    EXPECT_TRUE(test.coordinator->isPresenting());
    EXPECT_FALSE(test.preview.shown);
    test.probe.answer();
    toggle.result();
    EXPECT_EQ(test.preview.shown, "/a.png");
    EXPECT_FALSE(test.coordinator->checkingAccess());
    EXPECT_TRUE(test.coordinator->isPresenting());
}

TEST(ActionCoordinator, ATildeIsTheHomeFolder)
{
    Coordinated test;
    await(test.loop, test.coordinator->togglePreview("~/a.png"));
    EXPECT_EQ(test.probe.asked, Strings{"/home/ada/a.png"});
    EXPECT_EQ(test.preview.shown, "/home/ada/a.png");
}

TEST(ActionCoordinator, TheSameKeyOpensAndCloses)
{
    Coordinated test;
    test.show("/a.png");
    await(test.loop, test.coordinator->togglePreview("/b.png"));
    EXPECT_EQ(test.preview.log, (Strings{"close", "return"}));
    EXPECT_TRUE(test.idle());
    EXPECT_EQ(test.probe.asked, Strings{"/a.png"});
}

TEST(ActionCoordinator, ASecondPressDuringTheCheckDoesNothing)
{
    Coordinated test;
    test.probe.holds = true;
    auto first = test.toggle("/a.png");
    test.loop.runUntilIdle();
    await(test.loop, test.coordinator->togglePreview("/a.png"));
    EXPECT_FALSE(first.done());
    EXPECT_TRUE(test.coordinator->checkingAccess());
    EXPECT_TRUE(test.coordinator->isPresenting());
    test.probe.answer();
    first.result();
    EXPECT_EQ(test.probe.asked, Strings{"/a.png"});
    EXPECT_EQ(test.preview.log, Strings{"show /a.png"});
}

TEST(ActionCoordinator, EscapeDuringTheCheckOpensNoPanelWhenTheAnswerComes)
{
    Coordinated test;
    test.probe.holds = true;
    auto toggle = test.toggle("/a.png");
    test.loop.runUntilIdle();
    test.coordinator->reset();
    EXPECT_TRUE(test.idle());
    EXPECT_THROW(toggle.result(), Cancelled);
    test.probe.answer();
    test.loop.runUntilIdle();
    EXPECT_TRUE(test.preview.log.empty());
    EXPECT_TRUE(test.idle());
}

TEST(ActionCoordinator, AnAnswerThatComesAfterResetInTheSameTurnOpensNoPanel)
{
    Coordinated test;
    test.probe.holds = true;
    auto toggle = test.toggle("/a.png");
    test.loop.runUntilIdle();
    test.probe.answer();
    test.coordinator->reset();
    EXPECT_THROW(toggle.result(), Cancelled);
    EXPECT_TRUE(test.preview.log.empty());
    EXPECT_TRUE(test.idle());
}

TEST(ActionCoordinator, ARequestThatWasGivenUpDoesNotEndTheNewerOne)
{
    Coordinated test;
    test.probe.holds = true;
    auto first = test.toggle("/a.png");
    test.loop.runUntilIdle();
    auto second = test.toggle("/b.png"); // its turn comes before the first has noticed
    test.coordinator->reset();
    test.probe.answer();
    test.loop.runUntilIdle();
    EXPECT_THROW(first.result(), Cancelled);
    EXPECT_TRUE(test.coordinator->checkingAccess());
    EXPECT_TRUE(test.coordinator->isPresenting());
    test.probe.answer();
    second.result();
    EXPECT_EQ(test.preview.log, Strings{"show /b.png"});
}

TEST(ActionCoordinator, AFileThatDoesNotOpenIsToldWithItsReasonAndNothingStands)
{
    for (const Reason reason : {Reason::permission, Reason::missing, Reason::offline, Reason::unavailable}) {
        Coordinated test;
        test.probe.failure = reason;
        try {
            await(test.loop, test.coordinator->togglePreview("/a.png"));
            ADD_FAILURE() << "nothing was thrown";
        } catch (const FileAccessFailure &failure) {
            EXPECT_EQ(failure.reason(), reason);
        }
        EXPECT_TRUE(test.idle());
        EXPECT_TRUE(test.preview.log.empty());
    }
}

TEST(ActionCoordinator, AFileThatHangsIsGivenUpAfterThreeSecondsAndTheNextIsRefused)
{
    Coordinated test;
    test.probe.holds = true;
    const auto reasonOf = [](Begun<void> toggle) -> std::optional<Reason> {
        try {
            toggle.result();
        } catch (const FileAccessFailure &failure) {
            return failure.reason();
        }
        return std::nullopt;
    };
    auto toggle = test.toggle("/a.png");
    test.clock.advance(3s);
    EXPECT_EQ(reasonOf(std::move(toggle)), Reason::timeout);
    EXPECT_TRUE(test.idle());
    EXPECT_EQ(reasonOf(test.toggle("/a.png")), Reason::busy);
    EXPECT_TRUE(test.idle());
}

TEST(ActionCoordinator, EscapeAndThePreviewKeyCloseThePreviewAndGiveTheKeyboardBackWhileThePaletteMayNotHide)
{
    const KeyPress capitalY{.key = Key::Character, .character = "Y", .command = true};
    for (const KeyPress &key : {escape, commandY, capitalY}) {
        Coordinated test;
        test.show("/a.png");
        bool heldDuringReturn = false;
        test.preview.onReturn = [&] { heldDuringReturn = test.coordinator->isPresenting(); };
        EXPECT_TRUE(test.preview.press(key));
        EXPECT_EQ(test.preview.log, (Strings{"close", "return"}));
        EXPECT_TRUE(heldDuringReturn);
        EXPECT_TRUE(test.idle());
    }
}

TEST(ActionCoordinator, OtherKeysBelongToThePreview)
{
    Coordinated test;
    test.show("/a.png");
    for (const KeyPress &key : {KeyPress{.key = Key::Character, .character = "y"}, KeyPress{.key = Key::Return},
             KeyPress{.key = Key::Character, .character = "c", .command = true},
             KeyPress{.key = Key::Character, .character = "y", .command = true, .shift = true}, KeyPress{}})
        EXPECT_FALSE(test.preview.press(key));
    EXPECT_EQ(test.preview.shown, "/a.png");
    EXPECT_TRUE(test.coordinator->isPresenting());
}

TEST(ActionCoordinator, ThePreviewsOwnCloseButtonGivesTheKeyboardBackToo)
{
    Coordinated test;
    test.show("/a.png");
    test.preview.closeByUser();
    EXPECT_EQ(test.preview.log, (Strings{"closed", "return"}));
    EXPECT_TRUE(test.idle());
    test.show("/b.png");
}

TEST(ActionCoordinator, ResetClosesThePreview)
{
    Coordinated test;
    test.show("/a.png");
    test.coordinator->reset();
    EXPECT_EQ(test.preview.log, (Strings{"close", "return"}));
    EXPECT_TRUE(test.idle());
    test.coordinator->reset();
    EXPECT_EQ(test.preview.log.size(), 2U);
}

TEST(ActionCoordinator, WithoutAWindowThatHasTheKeyboardNothingIsShown)
{
    Coordinated test;
    test.preview.hasKeyWindow = false;
    EXPECT_THROW(await(test.loop, test.coordinator->togglePreview("/a.png")), Cancelled);
    EXPECT_TRUE(test.preview.log.empty());
    EXPECT_TRUE(test.idle());
}

TEST(ActionCoordinator, APreviewThatCannotBeShownIsACancellationAndTheNextIsTriedAgain)
{
    Coordinated test;
    test.preview.refuses = true;
    EXPECT_THROW(await(test.loop, test.coordinator->togglePreview("/a.png")), Cancelled);
    EXPECT_TRUE(test.idle());
    test.preview.refuses = false;
    test.show("/a.png");
}

TEST(ActionCoordinator, AFrontEndWithoutPreviewsOnlyChecks)
{
    Coordinated test;
    Platform platform = test.platform();
    platform.preview = nullptr;
    ActionCoordinator coordinator(platform, test.probe.asking());
    EXPECT_THROW(await(test.loop, coordinator.togglePreview("/a.png")), Cancelled);
    test.probe.failure = Reason::missing;
    EXPECT_THROW(await(test.loop, coordinator.togglePreview("/a.png")), FileAccessFailure);
    EXPECT_FALSE(coordinator.isPresenting());
    coordinator.reset();
}

TEST(ActionCoordinator, WhatWaitsWhenItGoesEndsAsCancelled)
{
    Coordinated test;
    test.probe.holds = true;
    auto toggle = test.toggle("/a.png");
    test.loop.runUntilIdle();
    test.coordinator.reset();
    EXPECT_THROW(toggle.result(), Cancelled);
    test.probe.answer();
    test.loop.runUntilIdle();
    EXPECT_TRUE(test.preview.log.empty());
}

TEST(ActionCoordinator, ItsPreviewGoesWithIt)
{
    Coordinated test;
    test.show("/a.png");
    test.coordinator.reset();
    EXPECT_EQ(test.preview.log, Strings{"close"});
    EXPECT_FALSE(test.preview.press(escape));
}
