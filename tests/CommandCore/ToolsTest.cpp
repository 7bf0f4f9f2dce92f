#include "CommandCore/Tools.h"

#include "tests/support/Await.h"
#include "tests/support/ScriptedAI.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;
using Strings = std::vector<std::string>;

namespace {

struct Tools : testing::Test {
    std::shared_ptr<ScriptedTool> tool(
        const std::string &name, ToolPermission permission = ToolPermission::read, bool asks = false)
    {
        auto made = std::make_shared<ScriptedTool>(name, permission, asks);
        made->onCall = [this, name] { log.push_back("run " + name); };
        registry.registerTool(made);
        return made;
    }
    /// A tool whose schema requires these names.
    std::shared_ptr<ScriptedTool> requiring(const std::string &name, JSONValue required)
    {
        auto made = tool(name, ToolPermission::write);
        made->told.inputSchema = JSONValue::Object{{"required", std::move(required)}};
        return made;
    }
    /// The sentence with which a call ends; "done" when it does not fail.
    std::string call(const std::string &name, JSONValue input = JSONValue::Object{})
    {
        try {
            return *await(loop, registry.call(name, std::move(input))).value.string();
        } catch (const AppError &error) {
            kind = error.kind();
            return error.what();
        }
    }
    Task<void> answer()
    {
        if (approving)
            approving();
        if (refuses)
            throw AppError(AppError::Kind::permission, "The operation was cancelled.");
        co_return;
    }

    MainLoop loop;
    Strings log;
    bool refuses = false;
    std::function<void()> approving;
    std::optional<AppError::Kind> kind;
    ToolRegistry registry{[this](const ToolDefinition &definition, const JSONValue &input) -> Task<void> {
        log.push_back("ask " + definition.name + " " + input.encodedString());
        return answer();
    }};
};

/// The outcome of a call in words, for a task that is cancelled.
Task<void> note(const ToolRegistry &registry, std::string name, JSONValue input, std::string &outcome)
{
    try {
        co_await registry.call(std::move(name), std::move(input));
        outcome = "done";
    } catch (const Cancelled &) {
        outcome = "cancelled";
    } catch (const AppError &error) {
        outcome = error.what();
    }
}

/// The same behind a suspension, at which a cancellation is noted and not thrown.
Task<void> noteLate(const ToolRegistry &registry, std::string name, JSONValue input, std::string &outcome)
{
    try {
        co_await yieldOnce();
    } catch (const Cancelled &) {
    }
    co_await note(registry, std::move(name), std::move(input), outcome);
}

} // namespace

// What is kept and listed

TEST_F(Tools, AreListedByTheirNamesInTheOrderOfBytes)
{
    for (const char *name : {"b.two", "a", "B.one", "b.one"})
        tool(name);
    Strings names;
    for (const ToolDefinition &definition : registry.definitions())
        names.push_back(definition.name);
    EXPECT_EQ(names, (Strings{"B.one", "a", "b.one", "b.two"}));
}

TEST_F(Tools, ASecondToolOfANameIsRefusedAndTheFirstStays)
{
    const auto first = tool("open");
    try {
        tool("open");
        FAIL() << "taken twice";
    } catch (const AppError &error) {
        EXPECT_EQ(error.kind(), AppError::Kind::configuration);
        EXPECT_STREQ(error.what(), "A tool with this name is already registered.");
    }
    call("open");
    EXPECT_EQ(first->inputs.size(), 1u);
    EXPECT_EQ(registry.definitions().size(), 1u);
}

TEST_F(Tools, APrefixWithAStopLeavesTheServerWhoseNameOnlyBeginsAlike)
{
    for (const char *name : {"mcp.ab.read", "mcp.a.write", "mcp.a.read", "file.open"})
        tool(name);
    registry.remove("mcp.a.");
    Strings names;
    for (const ToolDefinition &definition : registry.definitions())
        names.push_back(definition.name);
    EXPECT_EQ(names, (Strings{"file.open", "mcp.ab.read"}));
    registry.remove("");
    EXPECT_TRUE(registry.definitions().empty());
}

// The nine steps of a call: each is seen before the one behind it

TEST_F(Tools, ACancelledCallerIsToldSoBeforeAnythingIsLookedUp)
{
    std::string outcome;
    TaskHandle handle = spawn(loop.executor(), noteLate(registry, "nothing", "no object", outcome));
    loop.runOne();
    handle.cancel();
    loop.runUntilIdle();
    EXPECT_EQ(outcome, "cancelled") << "and not that there is no such tool";
}

TEST_F(Tools, AToolThatIsNotThereIsToldBeforeAnInputThatIsNoObject)
{
    EXPECT_EQ(call("nothing", JSONValue::Array{}), "This tool is not available.");
    EXPECT_EQ(kind, AppError::Kind::toolExecution);
}

TEST_F(Tools, AnInputThatIsNoObjectIsToldBeforeWhatItLacks)
{
    requiring("open", JSONValue::Array{"path"});
    for (const JSONValue &input : {JSONValue(JSONValue::Array{}), JSONValue("path"), JSONValue(), JSONValue(1), JSONValue(true)})
        EXPECT_EQ(call("open", input), "Tool input must be a JSON object.") << input.encodedString();
    EXPECT_EQ(kind, AppError::Kind::toolExecution);
}

TEST_F(Tools, AMissingInputIsToldBeforeAnybodyIsAsked)
{
    requiring("open", JSONValue::Array{"path"});
    EXPECT_EQ(call("open"), "Required tool input is missing.");
    EXPECT_EQ(kind, AppError::Kind::toolExecution);
    EXPECT_EQ(log, Strings{});
}

TEST_F(Tools, TheUserIsAskedBeforeTheToolRunsAndSeesItsInput)
{
    tool("write", ToolPermission::write);
    EXPECT_EQ(call("write", JSONValue::Object{{"text", "x"}}), "done");
    EXPECT_EQ(log, (Strings{R"(ask write {"text":"x"})", "run write"}));
}

TEST_F(Tools, ADenialPassesAsItStandsAndTheToolDoesNotRun)
{
    tool("write", ToolPermission::write);
    refuses = true;
    EXPECT_EQ(call("write"), "The operation was cancelled.");
    EXPECT_EQ(kind, AppError::Kind::permission);
    EXPECT_EQ(log, Strings{"ask write {}"});
}

TEST_F(Tools, ACallThatWasCancelledWhileTheQuestionStoodDoesNotActThoughItWasAllowed)
{
    tool("write", ToolPermission::write);
    std::string outcome;
    TaskHandle handle;
    approving = [&] { handle.cancel(); };
    handle = spawn(loop.executor(), note(registry, "write", JSONValue::Object{}, outcome));
    loop.runUntilIdle();
    EXPECT_EQ(outcome, "cancelled");
    EXPECT_EQ(log, Strings{"ask write {}"});
}

TEST_F(Tools, ACallThatIsCancelledBeforeItActsDoesNotActThoughNobodyHadToBeAsked)
{
    struct Cancelling final : Tool {
        const ToolDefinition &definition() const override
        {
            whenAsked();
            return told;
        }
        Task<ToolResult> execute(JSONValue) const override
        {
            ++runs;
            co_return ToolResult(JSONValue("done"));
        }
        ToolDefinition told{.name = "read", .description = "", .inputSchema = JSONValue::schema({}, {})};
        std::function<void()> whenAsked = [] {};
        mutable int runs = 0;
    };
    const auto reading = std::make_shared<Cancelling>();
    registry.registerTool(reading);
    std::string outcome;
    TaskHandle handle;
    reading->whenAsked = [&] { handle.cancel(); };
    handle = spawn(loop.executor(), note(registry, "read", JSONValue::Object{}, outcome));
    loop.runUntilIdle();
    EXPECT_EQ(outcome, "cancelled");
    EXPECT_EQ(reading->runs, 0);
    EXPECT_EQ(log, Strings{});
}

TEST_F(Tools, ADenialIsToldAlsoWhenTheCallWasCancelledMeanwhile)
{
    tool("write", ToolPermission::write);
    std::string outcome;
    TaskHandle handle;
    refuses = true;
    approving = [&] { handle.cancel(); };
    handle = spawn(loop.executor(), note(registry, "write", JSONValue::Object{}, outcome));
    loop.runUntilIdle();
    EXPECT_EQ(outcome, "The operation was cancelled.");
}

TEST_F(Tools, WhatAToolThrowsPassesAsItStands)
{
    tool("read")->failure = std::make_exception_ptr(AppError(AppError::Kind::network, "No way."));
    EXPECT_EQ(call("read"), "No way.");
    EXPECT_EQ(kind, AppError::Kind::network);
}

// What an input must have

TEST_F(Tools, ASchemaThatRequiresNothingTakesAnEmptyObject)
{
    const JSONValue schemas[] = {JSONValue(), JSONValue("object"), JSONValue::Array{"required"}, JSONValue::Object{},
        JSONValue::Object{{"required", "path"}}, JSONValue::Object{{"required", JSONValue::Array{}}}};
    const auto plain = tool("plain");
    for (const JSONValue &schema : schemas) {
        plain->told.inputSchema = schema;
        EXPECT_EQ(call("plain"), "done") << schema.encodedString();
    }
}

TEST_F(Tools, OnlyANullCountsAsMissing)
{
    requiring("t", JSONValue::Array{"a"});
    EXPECT_EQ(call("t", JSONValue::Object{{"a", nullptr}}), "Required tool input is missing.");
    for (const JSONValue &present : {JSONValue(""), JSONValue(0), JSONValue(false), JSONValue(JSONValue::Array{})})
        EXPECT_EQ(call("t", JSONValue::Object{{"a", present}}), "done") << present.encodedString();
}

TEST_F(Tools, AnEmptyTextPassesTheGateAndIsForTheToolToRefuse)
{
    const JSONValue input = JSONValue::Object{{"a", ""}};
    requiring("t", JSONValue::Array{"a"});
    EXPECT_EQ(call("t", input), "done");
    EXPECT_THROW((void)input.requiredString("a"), AppError);
}

TEST_F(Tools, ARequiredNameThatIsNoTextFailsTheCall)
{
    requiring("t", JSONValue::Array{"a", 1});
    EXPECT_EQ(call("t", JSONValue::Object{{"a", 1}, {"1", 1}}), "Required tool input is missing.");
}

// Who is asked

TEST_F(Tools, AreAskedForByThePolicyAndByTheirOwnWish)
{
    const struct {
        const char *why;
        bool confirmWrites;
        ToolPermission permission;
        bool wish, asked;
    } cases[] = {
        {"writes unconfirmed", false, ToolPermission::write, false, false},
        {"what destroys is always asked for", false, ToolPermission::destructive, false, true},
        {"a reading tool that wants to be asked for", false, ToolPermission::read, true, true},
        {"a writing tool that wants to be asked for", false, ToolPermission::write, true, true},
        {"writes confirmed", true, ToolPermission::write, false, true},
        {"reading is never asked for", true, ToolPermission::read, false, false},
        {"what destroys, with writes confirmed", true, ToolPermission::destructive, false, true},
    };
    const auto one = tool("t");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        log.clear();
        registry.policy.confirmWrites = c.confirmWrites;
        one->told.permission = c.permission;
        one->told.requiresApproval = c.wish;
        call("t");
        EXPECT_EQ(log, c.asked ? (Strings{"ask t {}", "run t"}) : Strings{"run t"});
    }
}

TEST_F(Tools, NoApprovalIsRemembered)
{
    tool("write", ToolPermission::write);
    call("write"), call("write");
    EXPECT_EQ(log, (Strings{"ask write {}", "run write", "ask write {}", "run write"}));
}

TEST_F(Tools, AToolThatIsRemovedWhileItsQuestionStandsStillRuns)
{
    tool("mcp.a.write", ToolPermission::write);
    approving = [this] { registry.remove("mcp.a."); };
    EXPECT_EQ(call("mcp.a.write"), "done");
    EXPECT_EQ(call("mcp.a.write"), "This tool is not available.");
}

// Definitions as JSON

TEST(ToolDefinition, IsReadBackAsItWasWritten)
{
    const ToolDefinition definition{.name = "open",
        .description = "Opens.",
        .inputSchema = JSONValue::schema({{"path", "A path."}}, {"path"}),
        .permission = ToolPermission::destructive,
        .requiresApproval = true};
    Strings keys;
    const JSONValue json = definition.json();
    for (const auto &[key, value] : *json.object())
        keys.push_back(key);
    EXPECT_EQ(keys, (Strings{"description", "inputSchema", "name", "permission", "requiresApproval"}));
    EXPECT_EQ(definition.json().text("permission"), "destructive");
    EXPECT_EQ(ToolDefinition::fromJSON(definition.json()), definition);
}

TEST(ToolDefinition, OfAnUnknownPermissionOrWithoutAKeyIsNone)
{
    const JSONValue json = ToolDefinition{.name = "a", .description = "b", .inputSchema = {}}.json();
    const JSONValue::Object &whole = *json.object();
    for (const auto &[key, value] : whole) {
        JSONValue::Object lacking = whole;
        lacking.erase(key);
        EXPECT_THROW(ToolDefinition::fromJSON(lacking), JSONError) << key;
    }
    JSONValue::Object unknown = whole;
    unknown["permission"] = "admin";
    EXPECT_THROW(ToolDefinition::fromJSON(unknown), JSONError);
    EXPECT_THROW(ToolDefinition::fromJSON(JSONValue::Array{}), JSONError);
}
