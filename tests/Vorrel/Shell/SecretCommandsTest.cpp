#include "TestTool.h"

using namespace korvane;
using namespace korvane::test;

using SecretCommands = TestTool;
using Items = std::map<std::string, std::string>;

TEST_F(SecretCommands, SetKeepsStandardInputWithoutItsLastLineFeed)
{
    for (const char *given : {"sk-marker", "sk-marker\n"}) {
        input = given;
        EXPECT_EQ(run({"secret", "set", "ai.openai"}), 0);
        EXPECT_EQ(secrets.items(), (Items{{"ai.openai", "sk-marker"}}));
        EXPECT_EQ(out + err, "") << "nothing of it is printed";
    }
    input = "two\nlines\n\n";
    EXPECT_EQ(run({"secret", "set", "ai.openai"}), 0);
    EXPECT_EQ(secrets.items(), (Items{{"ai.openai", "two\nlines\n"}}));
}

TEST_F(SecretCommands, SettingNothingRemovesTheSecret)
{
    secrets.keep("ada", "old");
    input = "\n";
    EXPECT_EQ(run({"secret", "set", "ada"}), 0);
    EXPECT_EQ(secrets.items(), Items());
}

TEST_F(SecretCommands, WhatIsNoTextOrTooLongIsNotKept)
{
    input = "\xff\xfe";
    EXPECT_EQ(run({"secret", "set", "ada"}), 1);
    EXPECT_EQ(err, "The secret is no text in UTF-8.\n");
    input.assign(65'537, 'x');
    EXPECT_EQ(run({"secret", "set", "ada"}), 1);
    EXPECT_EQ(err, "The secret is too long.\n");
    EXPECT_EQ(run({"secret", "has", "\xff"}), 2);
    EXPECT_EQ(err, "The account of a secret is text in UTF-8.\nTry: korvanectl --help\n");
    EXPECT_EQ(secrets.requests(), Strings());
}

TEST_F(SecretCommands, HasTellsWhetherThereIsOneAndNeverWhatItIs)
{
    EXPECT_EQ(run({"secret", "has", "ada", "--json"}), 1);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "There is no secret under the account ada.\n");
    secrets.keep("ada", "sk-marker");
    EXPECT_EQ(run({"secret", "has", "ada"}), 0);
    EXPECT_EQ(out, "ada\n");
    EXPECT_EQ(run({"secret", "has", "ada", "--json"}), 0);
    EXPECT_EQ(out, "[{\"account\":\"ada\"}]\n");
    EXPECT_EQ(err, "");
}

TEST_F(SecretCommands, DeleteForgetsOneAndIsDoneWhenThereIsNone)
{
    secrets.keep("ada", "old");
    EXPECT_EQ(run({"secret", "delete", "ada"}), 0);
    EXPECT_EQ(run({"secret", "delete", "ada"}), 0);
    EXPECT_EQ(secrets.items(), Items());
}

TEST_F(SecretCommands, AStoreThatRefusesEndsWithOneAndItsSentence)
{
    secrets.readOutcome = SecretStore::Outcome::locked;
    EXPECT_EQ(run({"secret", "has", "ada"}), 1);
    EXPECT_EQ(err, "Keychain access was denied.\n");
    secrets.addOutcome = SecretStore::Outcome::noService;
    input = "new";
    EXPECT_EQ(run({"secret", "set", "ada"}), 1);
    EXPECT_EQ(err, "The secret could not be saved to Keychain.\n");
    secrets.removeOutcome = SecretStore::Outcome::denied;
    EXPECT_EQ(run({"secret", "delete", "ada"}), 1);
    EXPECT_EQ(err, "The Keychain item could not be removed.\n");
}

TEST_F(SecretCommands, ASecretIsNeverAnArgument)
{
    for (const Strings &wrong : {Strings{"secret"}, {"secret", "set"}, {"secret", "set", "ada", "sk-marker"},
             {"secret", "get", "ada"}, {"secret", "set", ""}}) {
        EXPECT_EQ(run(wrong), 2);
        EXPECT_EQ(out, "");
    }
    EXPECT_EQ(secrets.requests(), Strings());
}
