#include "Vorrel/Platform/Headless/HeadlessPasteboard.h"
#include "tests/support/TestPalette.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using Mode = PaletteState::Mode;

namespace {

/// A palette over a clipboard onto which others copy, and onto which it copies itself.
struct ClipboardScenario : testing::Test, HeadlessDesktop {
    ClipboardScenario()
    {
        auto database = await(loop, Database::open(loop.executor(), ":memory:", Database::Access::readWrite));
        Platform ports = platform();
        ports.pasteboardWatching = &clipboard;
        services = std::make_shared<AppServices>(std::move(ports), std::move(database), AppServices::Injected());
        coordinator = std::make_unique<ActionCoordinator>(services->platform);
        state = std::make_shared<PaletteState>(*services, *coordinator);
        state->hide = [this] { hidden = true; };
        state->enter(Mode::commands);
        await(loop, state->start());
    }
    ~ClipboardScenario() override { loop.shutDown(); }

    void copy(const std::string &text, Strings marks = {})
    {
        clipboard.copy(text, std::move(marks));
        clock.advance(1s);
    }
    void type(std::string text)
    {
        state->setInputText(std::move(text));
        clock.advance(150ms);
    }
    void run()
    {
        state->execute();
        loop.runUntilIdle();
    }
    void open()
    {
        state->enter(Mode::commands);
        type("clipboard");
        ASSERT_EQ(state->selectedResult()->id, "clipboard");
        run();
        clock.advance(150ms);
    }
    Strings titles() const
    {
        Strings all;
        for (const Row &row : state->results())
            all.push_back(row->title);
        return all;
    }

    HeadlessPasteboardWatching clipboard;
    std::shared_ptr<AppServices> services;
    std::unique_ptr<ActionCoordinator> coordinator;
    std::shared_ptr<PaletteState> state;
    bool hidden = false;
};

} // namespace

TEST_F(ClipboardScenario, WhatWasCopiedIsFoundCopiedBackAndMovesToTheTop)
{
    for (const char *text : {"first note", "https://example.org", "second note"})
        copy(text);
    copy("pass word", {PasteboardWatching::concealedType});
    open();
    EXPECT_EQ(state->mode(), Mode::clipboard);
    EXPECT_FALSE(hidden) << "the row shows its list in the palette";
    EXPECT_EQ(titles(), (Strings{"second note", "https://example.org", "first note"}));

    type("NOTE");
    EXPECT_EQ(titles(), (Strings{"second note", "first note"}));
    state->move(1);
    run();
    EXPECT_EQ(pasteboard.text, "first note");
    EXPECT_TRUE(hidden);

    copy(*pasteboard.text); // what the system tells of it
    open();
    EXPECT_EQ(titles(), (Strings{"first note", "second note", "https://example.org"}));
    state->escape();
    EXPECT_EQ(state->mode(), Mode::commands);
}

TEST_F(ClipboardScenario, WhatIsCopiedWhileTheListIsOpenIsThereAtTheNextQuestion)
{
    copy("one");
    open();
    copy("two");
    EXPECT_EQ(titles(), Strings{"one"});
    type("t");
    EXPECT_EQ(titles(), Strings{"two"});
}

TEST_F(ClipboardScenario, WhereNothingCanBeFollowedTheListSaysWhy)
{
    copy("kept before");
    clipboard.obstacle = "New copies are not kept: this display does not report them.";
    open();
    EXPECT_EQ(titles(), Strings{"kept before"});
    EXPECT_EQ(state->error(), "New copies are not kept: this display does not report them.");
    state->escape();
    EXPECT_FALSE(state->error()) << "it is the list's own affair";
}

TEST_F(ClipboardScenario, ARefusedCopyStaysOpenWithItsSentence)
{
    copy("one");
    open();
    pasteboard.refuses = true;
    run();
    EXPECT_EQ(state->error(), "Could not update the clipboard.");
    EXPECT_FALSE(hidden);
    EXPECT_EQ(state->mode(), Mode::clipboard);
}
