#include "tests/support/TestPalette.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using Mode = PaletteState::Mode;
using Category = DiagnosticsService::Category;

namespace {

constexpr const char *turnedOff = "Enable AI Requests and save an API key in Settings → AI.";
constexpr const char *noWay = "Could not reach the AI provider. Check your connection.";

AppError network() { return {AppError::Kind::network, noWay}; }

/// A palette in the mode `ai`, with requests turned on.
struct AskingPalette : TestPalette {
    AskingPalette()
    {
        turnOn(true);
        state->enter(Mode::ai);
    }
    void turnOn(bool enabled)
    {
        AppPreferences preferences;
        preferences.model = "plain-model";
        preferences.aiEnabled = enabled;
        services->preferences().preferences = preferences;
    }
    std::shared_ptr<ScriptedTool> tool(const std::string &name, ToolPermission permission = ToolPermission::read)
    {
        auto made = std::make_shared<ScriptedTool>(name, permission);
        services->tools().registerTool(made);
        return made;
    }
    void choose(Agent agent)
    {
        state->enter(Mode::ai);
        state->_activeAgent = std::move(agent);
    }
    void ask(const std::string &text = "question")
    {
        type(text);
        run();
    }
    std::vector<SQLRow> conversations()
    {
        return await(loop, services->database->rows("SELECT id,messages,updated_at FROM conversations ORDER BY rowid"));
    }
    std::string output() const { return state->aiOutput(); }
    std::string status() const { return state->aiStatus(); }
    bool busy() const { return state->busy(); }
};

struct AskAI : testing::Test, AskingPalette { };

Agent archivist(Strings tools = {}, Strings skills = {})
{
    return {.id = "A",
        .name = "Archivist",
        .systemPrompt = "Be brief.",
        .model = "agent-model",
        .tools = std::move(tools),
        .skills = std::move(skills)};
}

} // namespace

// The introduction

TEST_F(AskAI, TheIntroductionHasThreeParagraphsWithAnExample)
{
    EXPECT_EQ(state->aiIntroduction(),
        "Describe an action, then press Return.\n\nTry: 帮我打开 Safari\n\nTool operations appear for approval when required.");
}

TEST_F(AskAI, TheIntroductionOfAnAgentSaysHowManyToolsItMayUse)
{
    choose(archivist());
    EXPECT_EQ(state->aiIntroduction(), "Enter a request for Archivist, then press Return.\n\nThis Agent has no access to tools.");
    choose(archivist({"a", "b"}));
    EXPECT_EQ(state->aiIntroduction(),
        "Enter a request for Archivist, then press Return.\n\nThis Agent can use 2 selected tools. Permission approvals still "
        "apply.");
}

// Beginning

TEST_F(AskAI, ReturnWithBlankTextDoesNothingAlsoWhenRequestsAreTurnedOff)
{
    for (const bool enabled : {true, false}) {
        turnOn(enabled);
        for (const char *blank : {"", "  ", "\n\t "}) {
            ask(blank);
            EXPECT_FALSE(busy());
            EXPECT_EQ(error(), "");
        }
    }
    EXPECT_TRUE(model.asked.empty());
}

TEST_F(AskAI, TurnedOffItSaysSoAndTheFieldAndTheAnswerStay)
{
    model.answers(said("Answer."));
    ask();
    turnOn(false);
    ask("another");
    EXPECT_EQ(error(), turnedOff);
    EXPECT_EQ(state->query(), "another");
    EXPECT_EQ(output(), "Answer.");
    EXPECT_FALSE(busy());
    EXPECT_EQ(model.asked.size(), 1u);
    EXPECT_TRUE(services->diagnostics.errorEvents().empty());
}

TEST_F(AskAI, TheModelGetsTheTextAsItWasTyped)
{
    model.answers(said("."));
    ask("  question \n");
    EXPECT_EQ(model.asked.at(0).messages.at(0).content, "  question \n");
    EXPECT_EQ(state->query(), "  question \n") << "to be changed and sent again";
    EXPECT_EQ(model.models, Strings{"plain-model"});
}

TEST_F(AskAI, WhatWentBeforeIsClearedWhenARunBegins)
{
    model.answers(said("Answer.")).fails(network());
    model.clock = &clock;
    ask(), wait(1ms);
    ask(), wait(1ms);
    EXPECT_EQ(output(), "");
    ASSERT_EQ(error(), noWay);
    model.answers(said("Again."));
    ask();
    EXPECT_TRUE(busy());
    EXPECT_EQ(error(), "");
    EXPECT_EQ(state->errorRecovery(), PaletteState::FailureRecovery());
}

TEST_F(AskAI, WhileOneRequestRunsAnotherDoesNotBegin)
{
    model.clock = &clock;
    model.answers(said("Answer."));
    ask();
    EXPECT_TRUE(busy());
    type("another");
    EXPECT_EQ(state->query(), "question") << "the field takes nothing";
    run();
    EXPECT_EQ(model.asked.size(), 1u);
    wait(1ms);
    EXPECT_FALSE(busy());
    EXPECT_EQ(output(), "Answer.");
}

// Running

TEST_F(AskAI, TheStatusSaysWhatTheRunDoesAndIsEmptyAfterwards)
{
    model.clock = &clock;
    const auto find = tool("find");
    find->clock = &clock;
    model.answers(wishes({wish("1", "find")})).answers(said("There."));
    Strings statuses;
    const Subscription seen = state->_aiStatus.observe([&] { statuses.push_back(status()); });
    ask();
    EXPECT_EQ(status(), "Thinking…");
    for (int i = 0; i < 3; ++i)
        wait(1ms);
    EXPECT_EQ(statuses, (Strings{"Thinking…", "Running find…", "Thinking…", ""}));
    EXPECT_FALSE(busy());
}

TEST_F(AskAI, AStatusThatHasNotChangedNotifiesNobody)
{
    tool("find");
    model.answers(wishes({wish("1", "find"), wish("2", "find")})).answers(said("There."));
    Strings statuses;
    const Subscription seen = state->_aiStatus.observe([&] { statuses.push_back(status()); });
    ask();
    EXPECT_EQ(statuses, (Strings{"Thinking…", "Running find…", "Thinking…", ""}));
}

TEST_F(AskAI, SeveralTextsOfTheModelAreParagraphs)
{
    tool("find");
    model.answers(said("I look.", {wish("1", "find")})).answers(said("There it is.\nAt home."));
    ask();
    EXPECT_EQ(output(), "I look.\n\nThere it is.\nAt home.");
}

TEST_F(AskAI, EachRunIsAloneAndKnowsNothingOfThoseBefore)
{
    model.answers(said("One.")).answers(said("Two."));
    ask("first");
    ask("second");
    EXPECT_EQ(model.asked.at(1).messages, (std::vector<Message>{{.role = Message::Role::user, .content = "second"}}));
    EXPECT_EQ(model.asked.at(1).continuation, std::nullopt);
    EXPECT_EQ(output(), "Two.");
}

TEST_F(AskAI, AnAgentHasItsOwnModelPromptToolsAndSkills)
{
    tool("find"), tool("open");
    model.answers(said("."));
    choose(archivist({"find"}, {"/s"}));
    ask();
    EXPECT_EQ(model.models, Strings{"agent-model"});
    EXPECT_EQ(agents->skillFiles.asked, std::vector<Strings>{{"/s"}});
    EXPECT_EQ(model.asked.at(0).messages.at(0).content, "Be brief.\n\nSelected skill instructions:\nSkill: Skill of /s\nDo.");
    EXPECT_EQ(model.asked.at(0).tools.size(), 1u);
}

TEST_F(AskAI, WithoutAnAgentNoSkillIsRead)
{
    model.answers(said("."));
    ask();
    EXPECT_TRUE(agents->skillFiles.asked.empty());
}

// What is kept

TEST_F(AskAI, AStoredExchangeHasNoInstructionsAndNothingThatAToolHasRead)
{
    clock.setWall(1'750'000'000.5);
    tool("find")->result = "private";
    model.answers(said("I look.", {wish("1", "find")})).answers(said("There."));
    choose(archivist({"find"}));
    ask("Where?");
    const auto rows = conversations();
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].at("messages"),
        R"([{"content":"Where?","role":"user"},{"content":"I look.","role":"assistant"},{"content":"There.","role":"assistant"}])");
    EXPECT_EQ(std::stod(rows[0].at("updated_at")), 1'750'000'000.5);
    EXPECT_EQ(rows[0].at("id").size(), 36u);
}

TEST_F(AskAI, EachRunIsStoredUnderAnIdentifierOfItsOwn)
{
    model.answers(said("One.")).answers(said("Two."));
    ask(), ask();
    const auto rows = conversations();
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_NE(rows[0].at("id"), rows[1].at("id"));
}

TEST_F(AskAI, AnAnswerThatCannotBeStoredIsShownWithTheFailure)
{
    await(loop,
        services->database->execute("CREATE TRIGGER full BEFORE INSERT ON conversations BEGIN SELECT RAISE(ABORT, 'full'); END"));
    model.answers(said("Answer."));
    ask();
    EXPECT_EQ(output(), "Answer.");
    EXPECT_EQ(error(), "Could not save local data.");
    EXPECT_FALSE(busy());
}

// Failures

TEST_F(AskAI, AFailureIsShownWithoutAnOfferToTryAgainAndCounted)
{
    model.fails(network());
    ask();
    EXPECT_EQ(error(), noWay);
    EXPECT_EQ(state->errorRecovery(), PaletteState::FailureRecovery());
    EXPECT_EQ(output(), "");
    EXPECT_FALSE(busy());
    EXPECT_EQ(status(), "");
    ASSERT_EQ(services->diagnostics.errorEvents().size(), 1u);
    EXPECT_EQ(services->diagnostics.errorEvents()[0].category, Category::ai);
    EXPECT_TRUE(conversations().empty());
}

TEST_F(AskAI, AForeignFailureIsNotShownInItsOwnWords)
{
    model.fails(std::make_exception_ptr(std::runtime_error("socket 7")));
    ask();
    EXPECT_NE(error(), "");
    EXPECT_THAT(error(), testing::Not(testing::HasSubstr("socket")));
}

TEST_F(AskAI, ASkillThatIsGoneFromTheDiskIsToldInASentenceWithoutItsPath)
{
    agents->skillFiles.failure = std::make_exception_ptr(AppError(AppError::Kind::configuration, "No /home/ada/s."));
    choose(archivist({}, {"/home/ada/s"}));
    ask();
    EXPECT_EQ(error(), "A selected skill is missing or invalid. Scan Skills and update the Agent.");
    EXPECT_TRUE(model.asked.empty());
    EXPECT_TRUE(model.models.empty());
}

TEST_F(AskAI, ADenialIsAFailureAndTheModelIsNotAskedAgain)
{
    tool("write", ToolPermission::write);
    dialogs.refuse();
    model.answers(wishes({wish("1", "write")}));
    ask();
    EXPECT_EQ(error(), "The operation was cancelled.");
    EXPECT_EQ(model.asked.size(), 1u);
    EXPECT_TRUE(conversations().empty());
}

// Ending it

TEST_F(AskAI, EscapeEndsARunWithoutAWordAndASecondOneLeavesTheMode)
{
    model.clock = &clock;
    model.answers(said("Answer."));
    ask();
    state->escape();
    settle();
    EXPECT_FALSE(busy());
    EXPECT_EQ(status(), "");
    EXPECT_EQ(error(), "");
    EXPECT_EQ(output(), "");
    EXPECT_EQ(state->mode(), Mode::ai);
    EXPECT_EQ(state->query(), "question");
    EXPECT_TRUE(services->diagnostics.errorEvents().empty());
    wait(1s);
    EXPECT_TRUE(conversations().empty());
    state->escape();
    EXPECT_EQ(state->mode(), Mode::commands);
}

namespace {

/// A provider that answers its cancellation with a failure.
struct AskRudely : AskAI {
    struct Rude final : ModelProvider {
        explicit Rude(AskRudely &test) : test(test) { }
        Task<ModelResponse> chat(std::vector<Message>, std::vector<ToolDefinition>, std::optional<std::string>) override
        {
            try {
                co_await test.clock.sleep(1s);
            } catch (const Cancelled &) {
            }
            ++test.failures;
            throw network();
        }
        AskRudely &test;
    };
    AskRudely()
    {
        auto database = await(loop, Database::open(loop.executor(), ":memory:", Database::Access::readWrite));
        AppServices::Injected injected;
        injected.makeProvider = [this](std::string) { return std::make_unique<Rude>(*this); };
        rude = std::make_unique<AppServices>(platform(), std::move(database), std::move(injected));
        rude->preferences().preferences = AppPreferences{.aiEnabled = true};
        asking = std::make_shared<PaletteState>(*rude, *coordinator);
        asking->enter(Mode::ai);
        asking->setInputText("question");
        asking->execute();
        settle();
    }

    std::unique_ptr<AppServices> rude;
    std::shared_ptr<PaletteState> asking;
    int failures = 0;
};

} // namespace

TEST_F(AskRudely, EscapeHasNoWordAlsoWhereWhatWasInterruptedCallsItAFailure)
{
    asking->escape();
    settle();
    EXPECT_EQ(failures, 1);
    EXPECT_FALSE(asking->busy());
    EXPECT_EQ(asking->error(), std::nullopt);
}

TEST_F(AskRudely, AFailureThatComesAfterHidingIsNotShownInTheNextSession)
{
    asking->cancelWork();
    asking->enter(Mode::ai);
    settle();
    wait(1s);
    EXPECT_EQ(failures, 1);
    EXPECT_FALSE(asking->busy());
    EXPECT_EQ(asking->error(), std::nullopt);
    EXPECT_EQ(asking->aiStatus(), "");
}

TEST_F(AskAI, EscapeWhileAQuestionStandsTakesItAway)
{
    const auto write = tool("write", ToolPermission::write);
    model.answers(wishes({wish("1", "write")}));
    ask();
    ASSERT_TRUE(dialogs.standing());
    state->escape();
    settle();
    EXPECT_FALSE(dialogs.standing());
    EXPECT_TRUE(write->inputs.empty());
    EXPECT_FALSE(busy());
    EXPECT_EQ(error(), "");
}

TEST_F(AskAI, HidingEndsARunAndALaterFailureIsNotShownInTheNextSession)
{
    model.clock = &clock;
    model.fails(network());
    ask();
    state->cancelWork();
    state->enter(Mode::commands);
    wait(1s);
    EXPECT_FALSE(busy());
    EXPECT_EQ(error(), "");
    EXPECT_EQ(status(), "");
    EXPECT_TRUE(services->diagnostics.errorEvents().empty());
}

TEST_F(AskAI, AFailureOfAnEarlierSessionIsNotShown)
{
    model.clock = &clock;
    model.fails(network());
    ask();
    state->_mode = Mode::commands; // as seen by a new session
    const int before = state->sessionGeneration();
    state->cancelWork();
    EXPECT_EQ(state->sessionGeneration(), before + 1);
    wait(1s);
    EXPECT_EQ(error(), "");
}

TEST_F(AskAI, EnteringAnotherModeEndsARun)
{
    model.clock = &clock;
    model.answers(said("Answer."));
    ask();
    state->enter(Mode::files);
    settle();
    EXPECT_FALSE(busy());
    wait(1s);
    EXPECT_EQ(output(), "");
    EXPECT_TRUE(conversations().empty());
}

TEST_F(AskAI, WhatAToolDidBeforeARunWasEndedStays)
{
    const auto read = tool("read");
    model.answers(wishes({wish("1", "read")})).fails(network());
    ask();
    EXPECT_EQ(read->finished, 1);
    EXPECT_EQ(error(), noWay);
}

TEST_F(AskAI, APaletteThatGoesAwayEndsItsRun)
{
    model.clock = &clock;
    model.answers(said("Answer."));
    ask();
    state.reset();
    wait(1s);
    EXPECT_TRUE(conversations().empty());
    EXPECT_EQ(clock.sleepers(), 0u);
}

TEST(AskAICancelled, AtAnyPointItIsQuietAndNothingIsHalfKept)
{
    const auto begin = [](AskingPalette &palette) {
        palette.model.clock = &palette.clock;
        palette.agents->skillFiles.clock = &palette.clock;
        palette.tool("write", ToolPermission::write)->clock = &palette.clock;
        palette.dialogs.accept();
        palette.model.answers(said("I write.", {wish("1", "write")})).answers(said("Done."));
        palette.choose(archivist({"write"}, {"/s"}));
        palette.state->setInputText("question");
        palette.state->execute();
    };
    const auto step = [](AskingPalette &palette) {
        if (!palette.loop.runOne())
            palette.clock.advance(1ms);
    };
    int points = 0;
    {
        AskingPalette whole;
        begin(whole);
        for (; whole.busy(); ++points)
            step(whole);
        EXPECT_EQ(whole.output(), "I write.\n\nDone.");
        EXPECT_EQ(whole.conversations().size(), 1u);
    }
    ASSERT_GT(points, 4) << "skills, two answers, a tool";
    for (int point = 0; point < points; ++point) {
        SCOPED_TRACE(point);
        AskingPalette palette;
        begin(palette);
        for (int i = 0; i < point; ++i)
            step(palette);
        ASSERT_TRUE(palette.busy());
        const std::string shown = palette.output();
        palette.state->escape();
        palette.settle();
        palette.wait(1s);
        EXPECT_FALSE(palette.busy());
        EXPECT_EQ(palette.status(), "");
        EXPECT_EQ(palette.error(), "");
        EXPECT_EQ(palette.output(), shown) << "as it was";
        EXPECT_LE(palette.conversations().size(), shown.empty() ? 0u : 1u);
        EXPECT_EQ(palette.clock.sleepers(), 0u);
    }
}
