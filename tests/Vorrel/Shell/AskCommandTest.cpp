#include "Support/FileLock.h"
#include "tests/Vorrel/Shell/TestTool.h"
#include "tests/support/ScriptedAI.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

using namespace korvane;
using namespace korvane::test;

namespace {

/// Asks a model that answers as it is set.
struct AskCommand : TestTool {
    AskCommand()
    {
        makeProvider = [this](std::string name) {
            model.models.push_back(std::move(name));
            return std::make_unique<ScriptedProvider>(model);
        };
    }
    void turnOn() { ASSERT_EQ(run({"settings", "set", "aiEnabled", "true"}), 0) << err; }

    ModelScript model;
};

using SettingsCommand = AskCommand;

} // namespace

TEST_F(AskCommand, IsToldHowToTurnRequestsOn)
{
    EXPECT_EQ(run({"ask", "question"}), 1);
    EXPECT_EQ(err, "Enable AI Requests and save an API key in Settings → AI.\n");
    EXPECT_EQ(out, "");
    EXPECT_TRUE(model.asked.empty());
}

TEST_F(AskCommand, PrintsTheAnswerAndSaysMeanwhileWhatItDoes)
{
    turnOn();
    model.answers(said("Two lines.\nHere.")).answers(said("Again."));
    EXPECT_EQ(run({"ask", "question"}), 0) << err;
    EXPECT_EQ(out, "Two lines.\nHere.\n");
    EXPECT_EQ(err, "Thinking…\n");
    EXPECT_EQ(model.models, Strings{"gpt-4.1-mini"});
    EXPECT_EQ(run({"ask", "question", "--json"}), 0);
    EXPECT_EQ(out, "[{\"answer\":\"Again.\"}]\n");
}

TEST_F(AskCommand, WhatAModelSendsDoesNothingToATerminal)
{
    turnOn();
    model.answers(said("\x1b]0;mine\x07 \u202Etxt"));
    EXPECT_EQ(run({"ask", "question"}), 0);
    EXPECT_EQ(out, "\uFFFD]0;mine\uFFFD \uFFFDtxt\n");
}

TEST_F(AskCommand, TellsTheModelOfTheShortcutsThatThereAreNow)
{
    turnOn();
    const std::string tool = root + "/shortcuts-tool";
    std::ofstream(tool) << "#!/bin/sh\necho Tidy\necho Wake\n";
    ASSERT_EQ(::chmod(tool.c_str(), 0700), 0);
    shortcutsTool = ShortcutsTool{tool, {}};
    for (const char *names : {"[\"Tidy\",\"Wake\"]", "[]"}) {
        model.answers(wishes({wish("1", "shortcuts.list", JSONValue::Object{})})).answers(said("Two."));
        EXPECT_EQ(run({"ask", "which shortcuts?"}), 0) << err;
        EXPECT_EQ(model.asked.back().messages.back().content, names);
        shortcutsTool = ShortcutsTool{root + "/nowhere", {}}; // then none are known
    }
}

TEST_F(AskCommand, AFailureIsOneSentence)
{
    turnOn();
    model.fails(AppError(AppError::Kind::network, "Could not reach the AI provider. Check your connection."));
    EXPECT_EQ(run({"ask", "question"}), 1);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "Thinking…\nCould not reach the AI provider. Check your connection.\n");
}

TEST_F(AskCommand, AnAgentThatIsNotThereIsTold)
{
    turnOn();
    EXPECT_EQ(run({"ask", "question", "--agent", "Nobody"}), 1);
    EXPECT_EQ(err, "There is no Agent with the name Nobody.\n");
    EXPECT_TRUE(model.asked.empty());
}

TEST_F(AskCommand, InterruptingItEndsItsRequest)
{
    turnOn();
    model.answers(said("Late."));
    model.clock = &clock;
    model.time = Milliseconds(60'000);
    std::function<void()> stop;
    onInterrupt = [&](std::function<void()> given) {
        stop = std::move(given);
        if (stop)
            runLater(desktop->loop.executor(), stop);
    };
    EXPECT_EQ(run({"ask", "question"}), 1);
    EXPECT_EQ(out, "");
    EXPECT_THAT(err, testing::EndsWith("The operation was cancelled.\n"));
    EXPECT_FALSE(stop) << "nothing of the request is reached any more";
}

TEST_F(AskCommand, TakesNoEmptyRequestAndNoOptionOfAnotherCommand)
{
    turnOn();
    for (const auto &words : {Strings{"ask", "  "}, Strings{"ask"}, Strings{"ask", "two", "requests"},
             Strings{"calc", "1+1", "--allow", "file.open"}, Strings{"ask", "question", "--category", "all"}}) {
        EXPECT_EQ(run(words), 2) << testing::PrintToString(words);
        EXPECT_EQ(out, "");
    }
    EXPECT_TRUE(model.asked.empty());
}

// Consent for tools

namespace {

/// Services with a tool that changes something, and a user who refuses.
struct Consent : testing::Test, HeadlessDesktop {
    Consent() : writing(std::make_shared<ScriptedTool>("file.write", ToolPermission::destructive))
    {
        auto database = await(loop, Database::open(loop.executor(), ":memory:", Database::Access::readWrite));
        services = std::make_shared<AppServices>(platform(), std::move(database), AppServices::Injected());
        services->tools().registerTool(writing);
        services->tools().registerTool(std::make_shared<ScriptedTool>("file.writeAll", ToolPermission::write));
    }
    ~Consent() override { loop.shutDown(); }
    void call(const std::string &name) { await(loop, services->tools().call(name, JSONValue::Object{})); }

    std::shared_ptr<ScriptedTool> writing;
    std::shared_ptr<AppServices> services;
};

} // namespace

TEST_F(Consent, GivenForOneToolIsGivenForNoOther)
{
    services->allowedTools = {"file.write"};
    call("file.write"), call("file.write");
    EXPECT_EQ(writing->finished, 2);
    EXPECT_TRUE(dialogs.asked().empty());
    dialogs.refuse();
    EXPECT_THROW(call("file.writeAll"), AppError);
    EXPECT_EQ(dialogs.asked().size(), 1u);
}

TEST_F(Consent, WithoutItEverythingThatChangesSomethingIsAskedFor)
{
    dialogs.refuse();
    EXPECT_THROW(call("file.write"), AppError);
    EXPECT_EQ(writing->finished, 0);
}

// Settings

TEST_F(SettingsCommand, AreShownAsJsonValues)
{
    EXPECT_EQ(run({"settings", "get"}), 0) << err;
    EXPECT_EQ(out,
        "aiEnabled\tfalse\nclipboardEnabled\ttrue\nclipboardLimit\t500\nconfirmToolWrites\ttrue\n"
        "hotkey\t{\"keyCode\":49,\"modifiers\":2048}\nmodel\t\"gpt-4.1-mini\"\n");
    EXPECT_EQ(run({"settings", "get", "model"}), 0);
    EXPECT_EQ(out, "\"gpt-4.1-mini\"\n");
    EXPECT_EQ(run({"settings", "get", "clipboardLimit", "--json"}), 0);
    EXPECT_EQ(out, "[{\"clipboardLimit\":500}]\n");
    EXPECT_EQ(run({"settings", "get", "colour"}), 2);
    EXPECT_EQ(run({"settings", "get", "--json"}), 0);
    EXPECT_EQ(AppPreferences::decode(JSONValue::parse(out).array()->front()), AppPreferences());
}

TEST_F(SettingsCommand, EachIsChangedAlone)
{
    const struct {
        const char *key, *value, *shown;
    } cases[] = {
        {"aiEnabled", "true", "true"},
        {"confirmToolWrites", "false", "false"},
        {"clipboardEnabled", "false", "false"},
        {"clipboardLimit", "20", "20"},
        {"clipboardLimit", "0", "1"},
        {"clipboardLimit", "1000000", "10000"},
        {"model", "  other-model ", "\"other-model\""},
        {"model", "\"quoted\"", "\"quoted\""},
        {"model", "5", "\"5\""},
        {"hotkey", R"({"keyCode":37,"modifiers":256})", R"({"keyCode":37,"modifiers":256})"},
    };
    for (const auto &[key, value, shown] : cases) {
        EXPECT_EQ(run({"settings", "set", key, value}), 0) << key << ": " << err;
        EXPECT_EQ(run({"settings", "get", key}), 0);
        EXPECT_EQ(out, std::string(shown) + "\n") << key;
    }
    EXPECT_EQ(run({"settings", "get", "aiEnabled"}), 0);
    EXPECT_EQ(out, "true\n") << "the others stay";
}

TEST_F(SettingsCommand, AValueThatDoesNotFitChangesNothing)
{
    for (const auto &[key, value] :
        {std::pair("aiEnabled", "yes"), std::pair("aiEnabled", "1"), std::pair("clipboardLimit", "many"),
            std::pair("clipboardLimit", "1.5"), std::pair("hotkey", "Alt+Space"), std::pair("hotkey", R"({"keyCode":49})")}) {
        EXPECT_EQ(run({"settings", "set", key, value}), 1) << key << value;
        EXPECT_EQ(err, std::string("This is no value for ") + key + ".\n");
    }
    EXPECT_EQ(run({"settings", "set", "model", " "}), 1);
    EXPECT_EQ(err, "Enter a model identifier.\n");
    EXPECT_EQ(run({"settings", "set", "hotkey", R"({"keyCode":49,"modifiers":0})"}), 1) << "a key without a modifier";
    EXPECT_EQ(run({"settings", "set", "colour", "1"}), 2);
    EXPECT_EQ(run({"settings", "set", "model"}), 2);
    EXPECT_EQ(run({"settings", "get", "--json"}), 0);
    EXPECT_EQ(AppPreferences::decode(JSONValue::parse(out).array()->front()), AppPreferences());
}

TEST_F(SettingsCommand, AreNotChangedUnderARunningKorvane)
{
    EXPECT_EQ(run({"settings", "set", "aiEnabled", "true"}), 0) << err;
    const auto instance = FileLock::tryTake(root + "/data/Korvane/korvane.lock");
    ASSERT_TRUE(instance);
    EXPECT_EQ(run({"settings", "set", "aiEnabled", "false"}), 1);
    EXPECT_EQ(err, "Korvane runs and keeps the settings itself. Quit it first.\n");
    EXPECT_EQ(run({"settings", "get", "aiEnabled"}), 0) << "they are shown";
    EXPECT_EQ(out, "true\n");
}
