#include "Vorrel/Shell/CommandLineTool.h"
#include "tests/support/DiskFolder.h"
#include "tests/support/TestPalette.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;

namespace {

/// The tool and the palette of one person, over one store on the disk.
struct AgentScenario : testing::Test, HeadlessDesktop {
    AgentScenario()
    {
        folders.home = folder.path;
        folders.data = folder / "data";
    }
    ~AgentScenario() override { loop.shutDown(); }

    int runTool(std::vector<std::string> words)
    {
        CommandLineTool tool({.loop = loop,
            .platform = platform(),
            .out = [](std::string_view) {},
            .err = [this](std::string_view text) { errors += text; },
            .consent = [](bool) {}});
        return tool.run(words);
    }
    void openPalette()
    {
        services = await(loop, AppServices::create(platform()));
        coordinator = std::make_unique<ActionCoordinator>(platform());
        state = std::make_shared<PaletteState>(*services, *coordinator);
        state->enter(PaletteState::Mode::commands);
        await(loop, state->start());
    }
    void type(std::string text)
    {
        state->setInputText(std::move(text));
        loop.runUntilIdle();
    }

    DiskFolder folder;
    std::string errors;
    std::shared_ptr<AppServices> services;
    std::unique_ptr<ActionCoordinator> coordinator;
    std::shared_ptr<PaletteState> state;
};

} // namespace

TEST_F(AgentScenario, AnAgentSavedOnTheCommandLineIsARowOfThePaletteThatOpensIt)
{
    const Agent pilot{.id = "0A", .name = "Harbour pilot", .model = "m-1"};
    ASSERT_EQ(runTool({"agents", "save", folder.file("pilot.json", pilot.json().encodedString())}), 0) << errors;
    openPalette();
    type("harbour");
    const Row row = state->selectedResult();
    ASSERT_TRUE(row);
    EXPECT_EQ(row->id, "agent:0A");
    EXPECT_EQ(row->title, "Harbour pilot");
    EXPECT_EQ(row->subtitle, "Agent · m-1");
    state->execute();
    loop.runUntilIdle();
    ASSERT_TRUE(state->activeAgent());
    EXPECT_EQ(*state->activeAgent(), pilot);
}

TEST_F(AgentScenario, AnAgentSavedInTheProgramIsARowAtOnce)
{
    openPalette();
    Agent draft = services->agents().draft;
    draft.name = "Tide reader";
    services->agents().draft = draft;
    services->agents().save();
    loop.runUntilIdle();
    type("tide reader");
    ASSERT_TRUE(state->selectedResult());
    EXPECT_EQ(state->selectedResult()->id, "agent:" + draft.id);
}
