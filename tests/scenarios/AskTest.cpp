#include "tests/support/TestPalette.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using Mode = PaletteState::Mode;

namespace {

/// A palette with a model that wants to write a file, and the tool that would.
struct AskScenario : testing::Test, TestPalette {
    AskScenario() : writing(std::make_shared<ScriptedTool>("file.write", ToolPermission::write))
    {
        writing->told.description = "Writes a text to a file.";
        services->tools().registerTool(writing);
        services->preferences().preferences = AppPreferences{.aiEnabled = true};
        agents->list = {{.id = "A1", .name = "Clerk", .systemPrompt = "Be brief.", .tools = {"file.write"}}};
        start();
        model.answers(said("I write it down.", {wish("c1", "file.write", JSONValue::Object{{"text", "milk"}})}));
    }
    /// Opens the row of this title and asks.
    void ask(const std::string &row, const std::string &text)
    {
        type(row);
        ASSERT_EQ(selected(), row);
        run();
        ASSERT_EQ(state->mode(), Mode::ai);
        type(text);
        run();
    }
    void answerQuestion(bool allow)
    {
        allow ? dialogs.accept() : dialogs.refuse();
        settle();
    }
    std::string stored()
    {
        const auto rows = await(loop, services->database->rows("SELECT messages FROM conversations"));
        return rows.empty() ? "" : rows.front().at("messages");
    }

    std::shared_ptr<ScriptedTool> writing;
};

} // namespace

TEST_F(AskScenario, ARequestThatIsAllowedIsDoneAnsweredAndKept)
{
    model.answers(said("Done."));
    ask("Ask AI", "Note: milk");
    EXPECT_TRUE(state->busy());
    EXPECT_EQ(state->aiStatus(), "Running file.write…");
    ASSERT_TRUE(dialogs.standing());
    EXPECT_EQ(dialogs.asked().front().title, "AI wants to run file.write");
    EXPECT_EQ(dialogs.asked().front().detail, "Writes a text to a file.\n\n{\"text\":\"milk\"}");
    EXPECT_TRUE(writing->inputs.empty()) << "not before the answer";
    answerQuestion(true);
    EXPECT_EQ(writing->finished, 1);
    EXPECT_EQ(state->aiOutput(), "I write it down.\n\nDone.");
    EXPECT_FALSE(state->busy());
    EXPECT_EQ(error(), "");
    EXPECT_EQ(stored(),
        R"([{"content":"Note: milk","role":"user"},{"content":"I write it down.","role":"assistant"},{"content":"Done.","role":"assistant"}])");
    EXPECT_EQ(state->query(), "Note: milk") << "to be sent again";
}

TEST_F(AskScenario, ARequestThatIsRefusedChangesNothingAndKeepsNothing)
{
    ask("Ask AI", "Note: milk");
    answerQuestion(false);
    EXPECT_TRUE(writing->inputs.empty());
    EXPECT_EQ(state->aiOutput(), "");
    EXPECT_EQ(error(), "The operation was cancelled.");
    EXPECT_FALSE(state->busy());
    EXPECT_EQ(stored(), "");
    EXPECT_EQ(model.asked.size(), 1u) << "the model is not told";

    model.answers(said("Then not."));
    run();
    EXPECT_EQ(error(), "");
    EXPECT_EQ(state->aiOutput(), "Then not.");
}

TEST_F(AskScenario, WithWritesUnconfirmedNobodyIsAsked)
{
    services->tools().policy.confirmWrites = false;
    model.answers(said("Done."));
    ask("Ask AI", "Note: milk");
    EXPECT_TRUE(dialogs.asked().empty());
    EXPECT_EQ(writing->finished, 1);
    EXPECT_FALSE(state->busy());
}

TEST_F(AskScenario, AnAgentIsAskedFromItsRowAndLeftAgain)
{
    model.answers(said("Done."));
    ask("Clerk", "Note: milk");
    EXPECT_EQ(model.asked.front().messages.front().content, "Be brief.");
    answerQuestion(true);
    EXPECT_EQ(state->aiOutput(), "I write it down.\n\nDone.");
    state->escape();
    EXPECT_EQ(state->mode(), Mode::commands);
    EXPECT_FALSE(state->activeAgent());
    EXPECT_EQ(state->aiOutput(), "");
}

TEST_F(AskScenario, ClosingThePaletteOverAQuestionTakesItAwayAndNothingIsDone)
{
    ask("Ask AI", "Note: milk");
    ASSERT_TRUE(dialogs.standing());
    state->cancelWork();
    state->enter(Mode::commands);
    settle();
    EXPECT_FALSE(dialogs.standing());
    EXPECT_TRUE(writing->inputs.empty());
    EXPECT_FALSE(state->busy());
    EXPECT_EQ(error(), "");
    type("Ask AI");
    EXPECT_EQ(selected(), "Ask AI") << "the palette works on";
}

// What the question shows

TEST_F(AskScenario, AQuestionShowsTheFirstSixteenHundredCharactersOfTheInput)
{
    const std::string flag = "🇳🇴"; // one character to the user
    const auto detailFor = [&](std::size_t count) {
        std::string text;
        for (std::size_t i = 0; i < count; ++i)
            text += flag;
        Begun<ToolResult> call(loop, services->tools().call("file.write", JSONValue::Object{{"t", text}}));
        settle();
        dialogs.refuse();
        settle();
        return dialogs.asked().back().detail;
    };
    const std::string ahead = "Writes a text to a file.\n\n{\"t\":\"";
    std::string most;
    for (int i = 0; i < 1600 - 6; ++i) // behind {"t":"
        most += flag;
    EXPECT_EQ(detailFor(1600 - 8), ahead + most.substr(0, (1600 - 8) * flag.size()) + "\"}") << "all of it";
    EXPECT_EQ(detailFor(1600), ahead + most);
    EXPECT_EQ(detailFor(100'000), ahead + most);
}

TEST_F(AskScenario, AQuestionStaysShortWhateverAServerPilesUp)
{
    std::string piled = "a";
    while (piled.size() < 1'000'000)
        piled += "\u0301"; // still one character
    const auto tool = std::make_shared<ScriptedTool>(piled, ToolPermission::destructive);
    tool->told.description = std::string(1'000'000, 'd');
    services->tools().registerTool(tool);
    Begun<ToolResult> call(loop, services->tools().call(piled, JSONValue::Object{{"t", piled}}));
    settle();
    const auto asked = dialogs.asked().back();
    EXPECT_LE(asked.title.size(), 200 * 32 + 32U);
    EXPECT_EQ(asked.detail.find("\n\n{\"t\":\"a"), 2000U) << "the input stays in sight";
    EXPECT_LE(asked.detail.size(), 2000 + 1600 * 32 + 2U);
}

TEST_F(AskScenario, AnInputThatJsonCannotExpressIsAskedForWithoutIt)
{
    Begun<ToolResult> call(
        loop, services->tools().call("file.write", JSONValue::Object{{"t", std::numeric_limits<double>::infinity()}}));
    settle();
    EXPECT_EQ(dialogs.asked().back().detail, "Writes a text to a file.\n\n");
}
