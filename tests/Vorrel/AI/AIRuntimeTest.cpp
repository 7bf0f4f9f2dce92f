#include "Vorrel/AI/AIRuntime.h"

#include "Vorrel/Platform/Headless/HeadlessSystem.h"
#include "tests/support/Await.h"
#include "tests/support/ScriptedAI.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using Role = Message::Role;
using Strings = std::vector<std::string>;
using Messages = std::vector<Message>;

namespace {

constexpr std::size_t mostInstructions = 200'000, mostResult = 256'000;

/// A model, tools and a user who answers, all of them one after the other in virtual time.
struct World {
    std::shared_ptr<ScriptedTool> tool(const std::string &name, ToolPermission permission = ToolPermission::read)
    {
        auto made = std::make_shared<ScriptedTool>(name, permission);
        made->onCall = [this, name] { log.push_back("run " + name); };
        registry.registerTool(made);
        return made;
    }
    AIRuntime::Status status()
    {
        return [this](std::string text) {
            log.push_back(text);
            if (onStatus)
                onStatus(text);
        };
    }
    Task<Conversation> running(std::optional<Agent> agent = {}, std::vector<Skill> skills = {})
    {
        return runtime.run("question", provider, std::move(agent), std::move(skills), status());
    }
    Conversation run(std::optional<Agent> agent = {}, std::vector<Skill> skills = {})
    {
        return await(loop, running(std::move(agent), std::move(skills)));
    }
    /// The error of a run that fails.
    AppError failure(std::optional<Agent> agent = {}, std::vector<Skill> skills = {})
    {
        try {
            run(std::move(agent), std::move(skills));
        } catch (const AppError &error) {
            return error;
        }
        throw std::logic_error("the run has not failed");
    }
    std::size_t asked() const { return script.asked.size(); }

    MainLoop loop;
    ManualClock clock{loop};
    Strings log; ///< Statuses, questions and calls, in order.
    std::function<void(const std::string &)> onStatus;
    ModelScript script;
    ScriptedProvider provider{script};
    HeadlessDialogs dialogs;
    ToolRegistry registry{[this](const ToolDefinition &definition, const JSONValue &) -> Task<void> {
        log.push_back("ask " + definition.name);
        return asking(dialogs);
    }};
    AIRuntime runtime{registry};

    static Task<void> asking(Dialogs &dialogs)
    {
        if (!co_await dialogs.confirm("title", "detail"))
            throw AppError(AppError::Kind::permission, "The operation was cancelled.");
    }
};

struct AIRun : testing::Test, World { };

Message user(std::string text) { return {.role = Role::user, .content = std::move(text)}; }
Message instructions(std::string text) { return {.role = Role::system, .content = std::move(text)}; }
Message assistant(std::string text) { return {.role = Role::assistant, .content = std::move(text)}; }
Message result(std::string id, std::string json)
{
    return {.role = Role::tool, .content = std::move(json), .toolCallID = std::move(id)};
}

Agent agent(Strings tools = {}, Strings skills = {})
{
    return {.id = "A", .name = "Archivist", .systemPrompt = "Be brief.", .tools = std::move(tools), .skills = std::move(skills)};
}
Skill skill(std::string path, std::string name = "Sort", std::string words = "By date.")
{
    return {.name = std::move(name), .description = "secret", .instructions = std::move(words), .path = std::move(path)};
}

AppError configuration(const char *text) { return {AppError::Kind::configuration, text}; }
AppError toolExecution(const char *text) { return {AppError::Kind::toolExecution, text}; }
const AppError unresolved = configuration("Agent skills could not be resolved.");
const AppError tooLarge = configuration("Agent instructions are too large.");
const AppError unavailable = configuration("An Agent tool is unavailable. Connect its server or update the Agent.");
const AppError tooMany = toolExecution("The model requested too many operations at once.");
const AppError repeated = toolExecution("The model repeated an operation identifier.");
const AppError notEnabled = {AppError::Kind::permission, "This tool is not enabled for the current Agent."};
const AppError tooMuchOutput = toolExecution("Tool output is too large to send to the model.");
const AppError tooManySteps = toolExecution("The AI reached its eight-step limit. Please narrow the request.");

std::vector<ToolCall> wishesFor(const std::string &tool, int count, const std::string &prefix = "c")
{
    std::vector<ToolCall> calls;
    for (int i = 1; i <= count; ++i)
        calls.push_back(wish(prefix + std::to_string(i), tool));
    return calls;
}

} // namespace

// What a run says

TEST_F(AIRun, ATextWithoutCallsEndsIt)
{
    script.answers(said("Hello."));
    EXPECT_EQ(run().messages, (Messages{user("question"), assistant("Hello.")}));
    EXPECT_EQ(log, Strings{"Thinking…"});
    EXPECT_EQ(script.asked[0].messages, Messages{user("question")});
    EXPECT_FALSE(script.asked[0].continuation);
}

TEST_F(AIRun, WithAnAgentItsInstructionsStandFirst)
{
    script.answers(said("Hello."));
    EXPECT_EQ(run(agent()).messages, (Messages{instructions("Be brief."), user("question"), assistant("Hello.")}));
    EXPECT_EQ(script.asked[0].messages, (Messages{instructions("Be brief."), user("question")}));
}

TEST_F(AIRun, AnEmptyAnswerWithoutCallsSucceedsWithoutAMessage)
{
    script.answers(said(""));
    EXPECT_EQ(run().messages, Messages{user("question")});
}

TEST_F(AIRun, ARoundWithAToolPassesOnlyItsResultAndTheContinuationAsItCame)
{
    tool("find")->result = JSONValue::Object{{"path", "/a"}};
    const std::string bytes("B1\0\xff", 4);
    ModelResponse first = wishes({wish("c1", "find", JSONValue::Object{{"q", "a"}})});
    first.continuation = bytes;
    script.answers(first).answers(said("There."));
    const auto messages = run(agent({"find"})).messages;
    const Message found = result("c1", R"({"path":"\/a"})");
    EXPECT_EQ(messages, (Messages{instructions("Be brief."), user("question"), found, assistant("There.")}));
    ASSERT_EQ(asked(), 2u);
    EXPECT_EQ(script.asked[1].messages, Messages{found});
    EXPECT_EQ(script.asked[1].continuation, bytes);
    EXPECT_EQ(script.asked[1].tools, script.asked[0].tools);
    EXPECT_EQ(log, (Strings{"Thinking…", "Running find…", "run find", "Thinking…"}));
}

TEST_F(AIRun, AContinuationThatIsNotGivenAgainIsGone)
{
    tool("find");
    ModelResponse first = wishes({wish("1", "find")});
    first.continuation = "B1";
    script.answers(first).answers(wishes({wish("2", "find")})).answers(said("."));
    run();
    EXPECT_EQ(script.asked[1].continuation, "B1");
    EXPECT_EQ(script.asked[2].continuation, std::nullopt);
}

TEST_F(AIRun, ATextBesideCallsIsKeptBeforeTheirResults)
{
    tool("find");
    script.answers(said("I look.", {wish("1", "find")})).answers(said("There."));
    EXPECT_EQ(run().messages, (Messages{user("question"), assistant("I look."), result("1", "\"done\""), assistant("There.")}));
}

TEST_F(AIRun, CallsRunOneAfterTheOtherInTheirOrder)
{
    tool("a")->clock = &clock, tool("b")->clock = &clock;
    script.answers(wishes({wish("1", "b"), wish("2", "a"), wish("3", "b")})).answers(said("."));
    Begun<Conversation> begun(loop, running());
    loop.runUntilIdle();
    EXPECT_EQ(log, (Strings{"Thinking…", "Running b…", "run b"})) << "the second waits for the first";
    clock.advance(10ms);
    EXPECT_TRUE(begun.done());
    EXPECT_EQ(log, (Strings{"Thinking…", "Running b…", "run b", "Running a…", "run a", "Running b…", "run b", "Thinking…"}));
}

TEST_F(AIRun, TheStatusStandsBeforeTheQuestion)
{
    tool("write", ToolPermission::write);
    dialogs.accept();
    script.answers(wishes({wish("1", "write")})).answers(said("."));
    run();
    EXPECT_EQ(log, (Strings{"Thinking…", "Running write…", "ask write", "run write", "Thinking…"}));
}

// Agents

TEST_F(AIRun, WithoutAnAgentSkillsAreIgnoredAndEveryToolIsOffered)
{
    tool("b"), tool("a");
    script.answers(said("."));
    EXPECT_EQ(run({}, {skill("/s")}).messages[0], user("question"));
    ASSERT_EQ(script.asked[0].tools.size(), 2u);
    EXPECT_EQ(script.asked[0].tools[0].name, "a");
}

TEST_F(AIRun, AnAgentsToolsAreOfferedInTheOrderOfTheRegistry)
{
    tool("a"), tool("b"), tool("c");
    script.answers(said("."));
    run(agent({"c", "a", "c"}));
    ASSERT_EQ(script.asked[0].tools.size(), 2u);
    EXPECT_EQ(script.asked[0].tools[0].name, "a");
    EXPECT_EQ(script.asked[0].tools[1].name, "c");
}

TEST_F(AIRun, AnAgentWithoutToolsOffersNoneAndACallThatTheModelInventsFails)
{
    tool("find");
    script.answers(wishes({wish("1", "find")}));
    EXPECT_EQ(failure(agent()), notEnabled);
    EXPECT_TRUE(script.asked[0].tools.empty());
    EXPECT_EQ(log, Strings{"Thinking…"}) << "no status tells of a tool that does not run";
}

TEST_F(AIRun, AToolThatIsNotConnectedFailsBeforeAnythingIsAsked)
{
    tool("find");
    EXPECT_EQ(failure(agent({"find", "mcp.far.read"})), unavailable);
    EXPECT_EQ(log, Strings{});
    EXPECT_EQ(asked(), 0u);
}

TEST_F(AIRun, AToolThatIsRegisteredLaterIsRefused)
{
    tool("first")->onCall = [this] { tool("later"); };
    script.answers(wishes({wish("1", "first"), wish("2", "later")}));
    EXPECT_EQ(failure(), notEnabled);
}

TEST_F(AIRun, SkillsStandBehindThePromptInTheirOrder)
{
    script.answers(said("."));
    const auto messages =
        run(agent({}, {"/a", "/b", "/a"}), {skill("/b", "Sort", "By date."), skill("/a", "Name", "In\nfull.")}).messages;
    EXPECT_EQ(messages[0].content, "Be brief.\n\nSelected skill instructions:\nSkill: Sort\nBy date.\n\nSkill: Name\nIn\nfull.");
}

TEST_F(AIRun, OneSkillTooManyFailsAsMuchAsOneTooFew)
{
    EXPECT_EQ(failure(agent({}, {"/a"}), {}), unresolved);
    EXPECT_EQ(failure(agent({}, {"/a"}), {skill("/a"), skill("/b")}), unresolved);
    EXPECT_EQ(failure(agent({}, {"/a"}), {skill("/b")}), unresolved);
    EXPECT_EQ(failure(agent(), {skill("/a")}), unresolved);
    EXPECT_EQ(log, Strings{});
}

TEST_F(AIRun, WhatIsWrongWithAnAgentIsToldInOneOrder)
{
    Agent wrong = agent({"absent"}, {"/a"});
    wrong.systemPrompt.assign(mostInstructions + 1, 'x');
    EXPECT_EQ(failure(wrong, {}), unresolved) << "the skills first";
    EXPECT_EQ(failure(wrong, {skill("/a")}), tooLarge) << "then the length";
    wrong.systemPrompt = "Be brief.";
    EXPECT_EQ(failure(wrong, {skill("/a")}), unavailable) << "the tools last";
}

// Limits

TEST_F(AIRun, InstructionsMayHaveTwoHundredThousandBytes)
{
    const std::string ahead = "Be brief.\n\nSelected skill instructions:\nSkill: Sort\n";
    script.answers(said("."));
    const auto sized = [&](std::size_t size) {
        return std::vector<Skill>{skill("/a", "Sort", std::string(size - ahead.size() - 2, 'x') + "é")};
    };
    EXPECT_EQ(run(agent({}, {"/a"}), sized(mostInstructions)).messages[0].content.size(), mostInstructions);
    EXPECT_EQ(failure(agent({}, {"/a"}), sized(mostInstructions + 1)), tooLarge);
}

TEST_F(AIRun, EightCallsInOneAnswerAreTaken)
{
    const auto find = tool("find");
    script.answers(wishes(wishesFor("find", 8))).answers(said("."));
    run();
    EXPECT_EQ(find->finished, 8);
    EXPECT_EQ(script.asked[1].messages.size(), 8u);
}

TEST_F(AIRun, NineCallsInOneAnswerFailBeforeTheFirstRuns)
{
    const auto find = tool("find");
    script.answers(said("I look.", wishesFor("find", 9)));
    EXPECT_EQ(failure(), tooMany);
    EXPECT_TRUE(find->inputs.empty());
    EXPECT_EQ(log, Strings{"Thinking…"});
}

TEST_F(AIRun, AResultMayHaveTwoHundredAndFiftySixThousandBytesAsJson)
{
    const auto find = tool("find");
    find->result = std::string(mostResult - 4, 'x') + "é"; // and two quotation marks
    script.answers(wishes({wish("1", "find")})).answers(said("."));
    EXPECT_EQ(run().messages[1].content.size(), mostResult);
    find->result = std::string(mostResult - 3, 'x') + "é";
    script.answers(wishes({wish("1", "find")}));
    EXPECT_EQ(failure(), tooMuchOutput);
    EXPECT_EQ(find->finished, 2) << "it has run";
    EXPECT_EQ(asked(), 3u) << "and nothing of it is sent";
}

TEST_F(AIRun, AnIdentifierOfAnEarlierStepFailsAfterTheFirstHasRun)
{
    const auto find = tool("find");
    script.answers(wishes({wish("1", "find")})).answers(wishes({wish("2", "find"), wish("1", "find")}));
    EXPECT_EQ(failure(), repeated);
    EXPECT_EQ(find->finished, 2);
}

TEST_F(AIRun, AnIdentifierTwiceInOneAnswerFailsAtTheSecond)
{
    const auto find = tool("find");
    script.answers(wishes({wish("1", "find"), wish("1", "absent")}));
    EXPECT_EQ(failure(), repeated) << "before the name is looked at";
    EXPECT_EQ(find->finished, 1);
}

TEST_F(AIRun, EightStepsMayEndWithAnAnswer)
{
    tool("find");
    for (int step = 0; step < 7; ++step)
        script.answers(wishes({wish(std::to_string(step), "find")}));
    script.answers(said("There."));
    EXPECT_EQ(run().messages.back(), assistant("There."));
    EXPECT_EQ(asked(), 8u);
}

TEST_F(AIRun, AfterEightStepsWithCallsTheLastHaveRunAndThenItFails)
{
    const auto find = tool("find");
    for (int step = 0; step < 8; ++step)
        script.answers(wishes({wish(std::to_string(step), "find")}));
    EXPECT_EQ(failure(), tooManySteps);
    EXPECT_EQ(asked(), 8u);
    EXPECT_EQ(find->finished, 8);
}

TEST_F(AIRun, AResultThatJsonCannotExpressEndsIt)
{
    tool("find")->result = std::numeric_limits<double>::infinity();
    script.answers(wishes({wish("1", "find")}));
    EXPECT_THROW(run(), JSONError);
    EXPECT_EQ(asked(), 1u);
}

// Failures

TEST_F(AIRun, WhatTheProviderThrowsPassesAsItStands)
{
    script.fails(AppError(AppError::Kind::network, "No way."));
    EXPECT_EQ(failure(), AppError(AppError::Kind::network, "No way."));
}

TEST_F(AIRun, AToolThatFailsEndsItAndTheModelIsNotTold)
{
    tool("find")->failure = std::make_exception_ptr(AppError(AppError::Kind::toolExecution, "Broken."));
    const auto other = tool("other");
    script.answers(wishes({wish("1", "find"), wish("2", "other")}));
    EXPECT_EQ(failure(), AppError(AppError::Kind::toolExecution, "Broken."));
    EXPECT_EQ(asked(), 1u);
    EXPECT_TRUE(other->inputs.empty());
}

TEST_F(AIRun, ADenialEndsItAndTheModelIsNotTold)
{
    const auto write = tool("write", ToolPermission::write);
    dialogs.refuse();
    script.answers(wishes({wish("1", "write")}));
    EXPECT_EQ(failure(), AppError(AppError::Kind::permission, "The operation was cancelled."));
    EXPECT_EQ(asked(), 1u);
    EXPECT_TRUE(write->inputs.empty());
}

TEST_F(AIRun, CancellingDuringAToolsQuestionEndsItAndNothingMoreIsAsked)
{
    const auto write = tool("write", ToolPermission::write);
    script.answers(wishes({wish("1", "write")}));
    Begun<Conversation> begun(loop, running());
    loop.runUntilIdle();
    ASSERT_TRUE(dialogs.standing());
    begun.cancel();
    loop.runUntilIdle();
    EXPECT_THROW(begun.result(), Cancelled);
    EXPECT_FALSE(dialogs.standing());
    EXPECT_TRUE(write->inputs.empty());
    EXPECT_EQ(asked(), 1u);
}

// Cancellation at every point in turn

namespace {

/// A run that waits everywhere it can: for three answers, two questions and four calls.
struct WaitingWorld : World {
    WaitingWorld() : read(tool("read")), write(tool("write", ToolPermission::write))
    {
        script.clock = read->clock = write->clock = &clock;
        script.answers(said("First.", {wish("1", "read"), wish("2", "write")}))
            .answers(wishes({wish("3", "write"), wish("4", "read")}))
            .answers(said("Last."));
    }
    /// The next piece of work, or what the world outside does when there is none. False when nothing can happen any more.
    bool step()
    {
        if (loop.runOne())
            return true;
        if (dialogs.standing()) {
            dialogs.accept();
            return true;
        }
        if (clock.sleepers() == 0)
            return false;
        clock.advance(1ms);
        return true;
    }
    void settle()
    {
        while (step()) { }
    }
    int begun() const { return int(read->inputs.size() + write->inputs.size()); }
    int finished() const { return read->finished + write->finished; }

    std::shared_ptr<ScriptedTool> read, write;
};

} // namespace

TEST(AIRunCancelled, AtAnyPointItEndsAtOnceAndNothingMoreBegins)
{
    int points = 0;
    {
        WaitingWorld whole;
        Begun<Conversation> run(whole.loop, whole.running());
        for (; !run.done(); ++points)
            ASSERT_TRUE(whole.step());
        EXPECT_EQ(run.result().messages.size(), 7u);
    }
    ASSERT_GT(points, 9) << "three answers, two questions, four calls";
    for (int point = 0; point < points; ++point) {
        SCOPED_TRACE(point);
        WaitingWorld world;
        Begun<Conversation> run(world.loop, world.running());
        for (int i = 0; i < point; ++i)
            world.step();
        ASSERT_FALSE(run.done());
        const std::size_t asked = world.asked();
        const int begun = world.begun();
        const std::size_t questions = world.dialogs.asked().size();
        run.cancel();
        world.settle();
        EXPECT_THROW(run.result(), Cancelled);
        EXPECT_EQ(world.asked(), asked);
        EXPECT_EQ(world.begun(), begun);
        EXPECT_LE(world.begun() - world.finished(), 1) << "the call that it was in, no other";
        EXPECT_EQ(world.dialogs.asked().size(), questions);
        EXPECT_FALSE(world.dialogs.standing());
        EXPECT_EQ(world.clock.sleepers(), 0u) << "nothing is left running";
    }
}
