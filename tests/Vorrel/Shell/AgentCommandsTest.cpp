#include "Support/FileLock.h"
#include "tests/Vorrel/Shell/TestTool.h"

#include <gmock/gmock.h>

using namespace korvane;
using namespace korvane::test;
using testing::HasSubstr;

namespace {

struct AgentCommands : TestTool {
    std::string file(const std::string &name, const std::string &bytes) const
    {
        const std::string path = root + "/" + name;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }
    const Agent pilot{.id = "0A",
        .name = "Harbour\tpilot",
        .icon = "anchor",
        .systemPrompt = "Steer.",
        .model = "m-1",
        .tools = {"system.lock"},
        .skills = {}};
};

} // namespace

TEST_F(AgentCommands, AnAgentIsSavedFromAFileListedAndFoundAsARow)
{
    EXPECT_EQ(run({"agents", "list"}), 0) << err;
    EXPECT_EQ(out, "");
    const auto path = file("pilot.json", pilot.json().encodedString());
    EXPECT_EQ(run({"agents", "save", path}), 0) << err;
    EXPECT_EQ(out, "0A\n");
    EXPECT_EQ(run({"agents", "list"}), 0);
    EXPECT_EQ(out, "0A\tHarbour pilot\tm-1\n");
    EXPECT_EQ(run({"agents", "list", "--json"}), 0);
    EXPECT_EQ(JSONValue::parse(out), JSONValue(JSONValue::Array{pilot.json()}));
    EXPECT_EQ(run({"search", "harbour", "--json"}), 0);
    EXPECT_EQ(JSONValue::parse(out).array()->at(0)["id"], JSONValue("agent:0A"));
}

TEST_F(AgentCommands, AnAgentSavedAgainIsTheSameAgent)
{
    Agent changed = pilot;
    changed.name = "Pilot";
    file("home/a.json", pilot.json().encodedString());
    file("home/b.json", changed.json().encodedString());
    EXPECT_EQ(run({"agents", "save", "a.json"}), 0) << err << "a relative path is one of the working folder";
    EXPECT_EQ(run({"agents", "save", "b.json"}), 0) << err;
    EXPECT_EQ(run({"agents", "list"}), 0);
    EXPECT_EQ(out, "0A\tPilot\tm-1\n");
}

TEST_F(AgentCommands, WhatIsNoUsableAgentIsRefusedAndNothingIsSaved)
{
    Agent nameless = pilot;
    nameless.name = " ";
    auto incomplete = *pilot.json().object();
    incomplete.erase("icon");
    const struct {
        std::string path, sentence;
    } cases[] = {
        {file("a.json", nameless.json().encodedString()), "Enter a name, model, and prompt under 100 KB.\n"},
        {file("b.json", JSONValue(incomplete).encodedString()), "The file " + root + "/b.json describes no Agent.\n"},
        {file("c.json", "no JSON"), "The file " + root + "/c.json describes no Agent.\n"},
        {file("d.json", ""), "The file " + root + "/d.json describes no Agent.\n"},
        {root + "/missing.json", "The file " + root + "/missing.json could not be read.\n"},
        {root, "The file " + root + " could not be read.\n"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(run({"agents", "save", c.path}), 1);
        EXPECT_EQ(err, c.sentence);
        EXPECT_EQ(out, "");
    }
    EXPECT_EQ(run({"agents", "list"}), 0);
    EXPECT_EQ(out, "");
}

TEST_F(AgentCommands, SkillsAreScannedWithTheirWarnings)
{
    EXPECT_EQ(run({"skills", "scan", "--json"}), 0) << err;
    EXPECT_EQ(out, "[]\n");
    const auto path = file(".claude/skills/tides/SKILL.md", "---\nname: Tides\ndescription: Reads tables\n---\nRead.");
    file(".config/agents/skills/broken/SKILL.md", "nothing");
    EXPECT_EQ(run({"skills", "scan"}), 0);
    EXPECT_EQ(out, "Tides\t" + path + "\tReads tables\n");
    EXPECT_EQ(err, "broken: SKILL.md needs name and description frontmatter.\n");
    EXPECT_EQ(run({"skills", "scan", "--json"}), 0);
    EXPECT_EQ(err, "broken: SKILL.md needs name and description frontmatter.\n");
    EXPECT_EQ(JSONValue::parse(out), JSONValue(JSONValue::Array{Skill{"Tides", "Reads tables", "Read.", path}.json()}));
}

TEST_F(AgentCommands, WhatSomebodyElseWroteDoesNothingToATerminal)
{
    file(".claude/skills/tides/SKILL.md", "---\nname: \x1b]0;mine\x07\ndescription: \u202Etxt\x1b[2J\n---\nRead.");
    EXPECT_EQ(run({"skills", "scan"}), 0);
    EXPECT_THAT(out, testing::StartsWith("\uFFFD]0;mine\uFFFD\t"));
    EXPECT_THAT(out, testing::EndsWith("\t\uFFFDtxt\uFFFD[2J\n"));
}

TEST_F(AgentCommands, AreNotChangedUnderARunningKorvane)
{
    std::filesystem::create_directories(root + "/data/Korvane");
    const auto instance = FileLock::tryTake(root + "/data/Korvane/korvane.lock");
    EXPECT_EQ(run({"agents", "save", file("a.json", pilot.json().encodedString())}), 1);
    EXPECT_EQ(err, "Korvane runs and keeps the Agents itself. Quit it first.\n");
    EXPECT_EQ(run({"agents", "list"}), 0);
    EXPECT_EQ(out, "");
}

TEST_F(AgentCommands, WrongUsageIsTold)
{
    for (const Strings &words : {Strings{"agents"}, Strings{"agents", "list", "x"}, Strings{"agents", "save"},
             Strings{"agents", "remove", "x"}, Strings{"skills"}, Strings{"skills", "list"}, Strings{"skills", "scan", "x"}}) {
        EXPECT_EQ(run(words), 2) << words.back();
        EXPECT_EQ(out, "");
        EXPECT_THAT(err, HasSubstr("Try: korvanectl --help"));
    }
}
