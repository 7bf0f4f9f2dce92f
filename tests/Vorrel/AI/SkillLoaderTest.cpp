#include "Vorrel/AI/SkillLoader.h"

#include "CommandCore/Commands.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Strings = std::vector<std::string>;

const std::string notRegular = "Skill must be a regular file.";
const std::string tooLarge = "Skill must be UTF-8 and at most 64 KB.";
const std::string notSkillFile = "Select a SKILL.md file.";
const std::string noFrontmatter = "SKILL.md needs name and description frontmatter.";
const std::string fieldMissing = "SKILL.md requires a name and description.";
const std::string noInstructions = "SKILL.md has no instructions.";

std::string skillText(const std::string &name, const std::string &body = "Do it.")
{
    return "---\nname: " + name + "\ndescription: About " + name + "\n---\n" + body + "\n";
}

/// A skill of exactly so many bytes.
std::string skillOfSize(std::size_t size)
{
    const std::string head = skillText("Large", "");
    return head + std::string(size - head.size(), 'x');
}

/// What `act` is refused with; empty when it is not.
template <class Act> std::string refusal(Act act)
{
    try {
        act();
    } catch (const AppError &error) {
        return error.kind() == AppError::Kind::configuration ? error.errorDescription() : "another kind";
    }
    return "";
}

std::string refusalOf(const std::string &text)
{
    return refusal([&] { SkillLoader::parse(text, "/s/SKILL.md"); });
}

struct SkillLoaderTest : testing::Test {
    SkillLoader::Scan scan(Strings roots) { return await(loop, loader.scan(std::move(roots))); }
    SkillLoader::Scan scan() { return scan({folder / "skills"}); }
    std::vector<Skill> load(Strings paths) { return await(loop, loader.load(std::move(paths))); }
    std::string refusalToLoad(const std::string &path)
    {
        return refusal([&] { load({path}); });
    }
    static Strings names(const SkillLoader::Scan &scan)
    {
        Strings names;
        for (const Skill &skill : scan.skills)
            names.push_back(skill.name);
        return names;
    }

    DiskFolder folder;
    MainLoop loop;
    SkillLoader loader{[this](std::function<void()> work) { runLater(loop.executor(), std::move(work)); }};
};

} // namespace

// A volume that does not answer

TEST_F(SkillLoaderTest, WhoIsCancelledWaitsForNoDiskAndTheWorkEndsAtItsNextStep)
{
    std::vector<std::function<void()>> begun;
    const auto hanging = [&begun](std::function<void()> work) { begun.push_back(std::move(work)); };
    SkillLoader far(hanging);
    const std::string path = folder.file("skills/a/SKILL.md", skillText("a"));
    {
        Begun<std::vector<Skill>> load(loop, far.load({path}));
        Begun<SkillLoader::Scan> look(loop, far.scan({folder / "skills"}));
        loop.runUntilIdle();
        ASSERT_EQ(begun.size(), 2U);
        load.cancel();
        look.cancel();
        EXPECT_THROW(load.result(), Cancelled);
        EXPECT_THROW(look.result(), Cancelled);
    }
    for (const auto &work : begun)
        work(); // the volume answers after all
    loop.runUntilIdle();
}

// Where skills are

TEST(SkillLocations, AreThreeFoldersOfTheHomeInThisOrder)
{
    EXPECT_THAT(SkillLocations::roots({.home = "/home/ada", .data = {}}),
        ElementsAre("/home/ada/.config/korvane/skills", "/home/ada/.claude/skills", "/home/ada/.config/agents/skills"));
}

TEST_F(SkillLoaderTest, WhereNoRootIsThereAreNoSkillsAndNoWarnings)
{
    folder.file("plain");
    folder.link("dangling", folder / "nowhere");
    const auto found = scan({folder / "a", folder / "b/c", folder / "plain/below", folder / "dangling"});
    EXPECT_THAT(found.skills, IsEmpty());
    EXPECT_THAT(found.warnings, IsEmpty());
}

TEST_F(SkillLoaderTest, ASkillInTheRootAndOneInASubfolderAreFoundButNoneTwoLevelsDown)
{
    folder.file("skills/SKILL.md", skillText("Root"));
    folder.file("skills/one/SKILL.md", skillText("One"));
    folder.file("skills/one/deep/SKILL.md", skillText("Deep"));
    folder.file("skills/notes.md", skillText("Notes"));
    const auto found = scan();
    EXPECT_THAT(found.skills,
        ElementsAre(Skill{"Root", "About Root", "Do it.", folder / "skills/SKILL.md"},
            Skill{"One", "About One", "Do it.", folder / "skills/one/SKILL.md"}));
    EXPECT_THAT(found.warnings, IsEmpty());
}

TEST_F(SkillLoaderTest, AHiddenFolderIsPassedOver)
{
    folder.file("skills/.hidden/SKILL.md", skillText("Hidden"));
    folder.file("skills/shown/SKILL.md", skillText("Shown"));
    EXPECT_THAT(names(scan()), ElementsAre("Shown"));
}

TEST_F(SkillLoaderTest, SkillsOfAllRootsAreInTheOrderOfTheirPaths)
{
    for (const char *place : {"b/z", "b/a", "a/m"})
        folder.file(place + "/SKILL.md"s, skillText(place));
    EXPECT_THAT(names(scan({folder / "b", folder / "a"})), ElementsAre("a/m", "b/a", "b/z"));
}

TEST_F(SkillLoaderTest, OfTwoHundredAndOneEntriesTheLastIsNotLookedAtAndOneWarningSaysSo)
{
    for (int i = 0; i < 201; ++i)
        folder.file("skills/" + std::to_string(1000 + i) + "/SKILL.md", skillText(std::to_string(i)));
    folder.file("skills/1000/SKILL.md", "nothing");
    const auto found = scan();
    EXPECT_EQ(found.skills.size(), 199U);
    EXPECT_EQ(found.skills.back().name, "199");
    EXPECT_THAT(found.warnings, ElementsAre("Only the first 200 entries in skills were scanned.", "1000: " + noFrontmatter));
}

TEST_F(SkillLoaderTest, TwoHundredEntriesAreNoReasonToWarnAndHiddenOnesDoNotCount)
{
    for (int i = 0; i < 200; ++i)
        folder.file("skills/" + std::to_string(1000 + i));
    folder.file("skills/.hidden");
    EXPECT_THAT(scan().warnings, IsEmpty());
}

TEST_F(SkillLoaderTest, TheSkillOfTheRootItselfDoesNotCountTwice)
{
    for (int i = 0; i < 199; ++i)
        folder.file("skills/" + std::to_string(1000 + i) + "/SKILL.md", skillText(std::to_string(i)));
    folder.file("skills/SKILL.md", skillText("Root")); // an entry, too
    const auto found = scan();
    EXPECT_EQ(found.skills.size(), 200U);
    EXPECT_THAT(found.warnings, IsEmpty());
}

TEST_F(SkillLoaderTest, TwoRootsThatLeadToOneFolderGiveOneSkillUnderItsOwnPath)
{
    folder.file("real/one/SKILL.md", skillText("One"));
    folder.link("linked", folder / "real");
    folder.link("other/alias", folder / "real/one");
    const auto found = scan({folder / "linked", folder / "real", folder / "other"});
    EXPECT_THAT(found.skills, ElementsAre(Skill{"One", "About One", "Do it.", folder / "real/one/SKILL.md"}));
    EXPECT_THAT(found.warnings, IsEmpty());
}

TEST_F(SkillLoaderTest, AFolderThatCannotBeReadIsWarnedOfAndTheOthersAreScanned)
{
    folder.file("plain", "no folder");
    folder.file("skills/one/SKILL.md", skillText("One"));
    const auto found = scan({folder / "plain", folder / "skills"});
    EXPECT_THAT(names(found), ElementsAre("One"));
    EXPECT_THAT(found.warnings, ElementsAre("Cannot read skill folder: " + folder / "plain"));
}

TEST_F(SkillLoaderTest, ABadSkillIsWarnedOfByItsFolderAndTheScanGoesOn)
{
    folder.file("skills/SKILL.md", "nothing");
    folder.file("skills/a/SKILL.md", "---\nname: A\n---\nBody");
    folder.file("skills/b/SKILL.md", skillText("B"));
    folder.folder("skills/c/SKILL.md");
    folder.file("skills/d/SKILL.md", skillOfSize(64'001));
    folder.file("skills/e/SKILL.md", skillText("E\xFF"));
    folder.link("skills/f/SKILL.md", folder / "skills/b/SKILL.md");
    folder.link("skills/g/SKILL.md", "/dev/zero");
    folder.link("skills/h/SKILL.md", folder / "nowhere"); // not there
    const auto found = scan();
    EXPECT_THAT(names(found), ElementsAre("B"));
    EXPECT_THAT(found.warnings,
        ElementsAre("skills: " + noFrontmatter, "a: " + fieldMissing, "c: " + notRegular, "d: " + tooLarge, "e: " + tooLarge,
            "f: " + notRegular, "g: " + notRegular));
}

TEST_F(SkillLoaderTest, APipeWithoutAWriterHoldsNobodyUp)
{
    folder.folder("skills/pipe");
    ASSERT_EQ(::mkfifo((folder / "skills/pipe/SKILL.md").c_str(), 0600), 0);
    ASSERT_EQ(::mkfifo((folder / "root").c_str(), 0600), 0);
    EXPECT_THAT(scan({folder / "skills", folder / "root"}).warnings,
        ElementsAre("pipe: " + notRegular, "Cannot read skill folder: " + folder / "root"));
    EXPECT_EQ(refusalToLoad(folder / "skills/pipe/SKILL.md"), notRegular);
}

TEST_F(SkillLoaderTest, AFileThatMayNotBeReadIsWarnedOfWithoutTheSystemsWords)
{
    if (::geteuid() == 0)
        GTEST_SKIP() << "nothing is forbidden to root";
    const auto path = folder.file("skills/one/SKILL.md", skillText("One"));
    ::chmod(path.c_str(), 0);
    EXPECT_THAT(
        scan().warnings, ElementsAre("one: The operation could not be completed. Please try again or check permissions."));
}

TEST_F(SkillLoaderTest, NamesThatAreNotUTF8AreShownAndTheirSkillsKeepTheBytes)
{
    folder.file("skills/a\xFF/SKILL.md", skillText("A"));
    folder.file("skills/b\xFF/SKILL.md", "nothing");
    const auto found = scan();
    ASSERT_EQ(found.skills.size(), 1U);
    EXPECT_EQ(found.skills[0].path, folder / "skills/a\xFF/SKILL.md");
    EXPECT_EQ(*found.skills[0].json()["path"].string(), folder / "skills/a\uFFFD/SKILL.md");
    EXPECT_TRUE(found.skills[0].json()["pathBytes"].string());
    EXPECT_THAT(found.warnings, ElementsAre("b\uFFFD: " + noFrontmatter));
}

TEST_F(SkillLoaderTest, TheJSONOfASkillHasItsFourTexts)
{
    const Skill skill{"N", "D", "I", "/p/SKILL.md"};
    EXPECT_EQ(skill.json(),
        JSONValue(JSONValue::Object{{"name", "N"}, {"description", "D"}, {"instructions", "I"}, {"path", "/p/SKILL.md"}}));
    EXPECT_EQ(skill.id(), skill.path);
}

// Loading

TEST_F(SkillLoaderTest, SkillsAreLoadedInTheGivenOrderUnderTheGivenPaths)
{
    folder.file("real/SKILL.md", skillText("Real"));
    folder.file("other/SKILL.md", skillText("Other"));
    folder.link("linked", folder / "real");
    const Strings paths{folder / "other/SKILL.md", folder / "linked/SKILL.md", folder / "real/../real/SKILL.md"};
    const auto skills = load(paths);
    ASSERT_EQ(skills.size(), 3U);
    for (std::size_t i = 0; i < paths.size(); ++i)
        EXPECT_EQ(skills[i].path, paths[i]);
    EXPECT_EQ(skills[0].name, "Other");
    EXPECT_EQ(skills[1].name, "Real");
    EXPECT_THAT(load({}), IsEmpty());
}

TEST_F(SkillLoaderTest, TheFirstFailureEndsTheLoading)
{
    const auto good = folder.file("good/SKILL.md", skillText("Good"));
    const auto bad = folder.file("bad/SKILL.md", "---\n---\n");
    EXPECT_EQ(refusal([&] { load({good, bad, folder / "notes.md"}); }), fieldMissing);
}

TEST_F(SkillLoaderTest, OnlyAFileOfTheOneNameIsLoaded)
{
    folder.file("a/skill.md", skillText("A"));
    folder.file("a/SKILL.md.txt", skillText("A"));
    for (const std::string &path :
        {folder / "a/skill.md", folder / "a/SKILL.md.txt", folder / "a", ""s, "/"s, folder / "a/SKILL.md" + "\0x"s})
        EXPECT_EQ(refusalToLoad(path), notSkillFile) << path;
}

TEST_F(SkillLoaderTest, WhatIsNoRegularFileIsNotLoaded)
{
    const auto good = folder.file("good/SKILL.md", skillText("Good"));
    folder.folder("folder/SKILL.md");
    folder.link("link/SKILL.md", good);
    for (const std::string &path :
        {folder / "folder/SKILL.md", folder / "link/SKILL.md", folder / "missing/SKILL.md", good + "\0/SKILL.md"s, good + "/"})
        EXPECT_EQ(refusalToLoad(path), notRegular) << path;
}

TEST_F(SkillLoaderTest, AFileOfExactly64000BytesLoadsAndOneByteMoreIsTooLarge)
{
    EXPECT_EQ(load({folder.file("a/SKILL.md", skillOfSize(64'000))}).size(), 1U);
    EXPECT_EQ(refusalToLoad(folder.file("b/SKILL.md", skillOfSize(64'001))), tooLarge);
    EXPECT_EQ(refusalToLoad(folder.file("c/SKILL.md", skillOfSize(10'000'000))), tooLarge);
}

TEST_F(SkillLoaderTest, BytesThatAreNotUTF8AreRefusedAndNotRepaired)
{
    for (const char *bytes : {"\xFF", "\xC0\xAF", "\xED\xA0\x80", "cut \xE6\x97"})
        EXPECT_EQ(refusalToLoad(folder.file("a/SKILL.md", skillText("A", bytes))), tooLarge);
}

// The text

TEST(SkillText, EveryFormOfAValueIsRead)
{
    const struct {
        const char *why, *front, *name, *description;
    } cases[] = {
        {"plain", "name: A\ndescription: B", "A", "B"},
        {"without blanks, and with many", "name:A\ndescription:\t  B \t", "A", "B"},
        {"blanks around a key", "\tname : A\n  description\t: B", "A", "B"},
        {"double quotes keep a colon", "name: \"a: b\"\ndescription: B", "a: b", "B"},
        {"single quotes", "name: 'it's'\ndescription: B", "it's", "B"},
        {"no escape is interpreted", R"(name: "a\n\"b\""
description: B)",
            R"(a\n\"b\")", "B"},
        {"a mark alone stays", "name: \"\ndescription: '", "\"", "'"},
        {"different marks stay", "name: \"a'\ndescription: B", "\"a'", "B"},
        {"only one pair of marks goes", "name: '\"a\"'\ndescription: B", "\"a\"", "B"},
        {"a colon in a value", "name: a: b: c\ndescription: B", "a: b: c", "B"},
        {"a folded block", "name: A\ndescription: >\n  first\n  second", "A", "first second"},
        {"every kind of block", "name: A\ndescription: |\n\tfirst  \n    second", "A", "first second"},
        {"without its last line end", "name: A\ndescription: >-\n first", "A", "first"},
        {"the other one", "name: A\ndescription: |-\n first", "A", "first"},
        {"a block ends at a line without a blank in front", "description: >\n first\nname: A\n second", "A", "first"},
        {"an empty line ends a block", "name: A\ndescription: |\n first\n\n second: x", "A", "first"},
        {"a line of blanks does not", "name: A\ndescription: |\n first\n \n second", "A", "first  second"},
        {"a block's lines may look like keys", "name: A\ndescription: |\n name: B\n x", "A", "name: B x"},
        {"a block name keeps its blank", "name: >\n A\ndescription: B", " A", "B"},
        {"a later line replaces an earlier one", "name: A\nname: C\ndescription: B", "C", "B"},
        {"other keys, comments and lists", "# note: x\nlicense: MIT\nname: A\n- item\ntools:\n  - one\ndescription: B", "A", "B"},
        {"a key inside another counts", "name: A\nmetadata:\n  name: C\ndescription: B", "C", "B"},
        {"a key in capitals is another", "Name: C\nname: A\ndescription: B", "A", "B"},
        {"what only begins like a block", "name: A\ndescription: >+\n  first", "A", ">+"},
        {"a comment behind a value is part of it", "name: A # x\ndescription: B", "A # x", "B"},
        {"other languages", "name: 潮汐\ndescription: Übersicht über 潮汐", "潮汐", "Übersicht über 潮汐"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        const auto skill = SkillLoader::parse("---\n"s + c.front + "\n---\nBody", "/p/SKILL.md");
        EXPECT_EQ(skill, (Skill{c.name, c.description, "Body", "/p/SKILL.md"}));
    }
}

TEST(SkillText, LinesAsWindowsEndsThemAreReadLikeOthers)
{
    const std::string unix = "---\nname: A\ndescription: >\n  first\n  second\n---\none\n\ntwo\n";
    std::string windows;
    for (const char c : unix)
        windows += c == '\n' ? "\r\n"s : std::string(1, c);
    EXPECT_EQ(SkillLoader::parse(windows, "p"), SkillLoader::parse(unix, "p"));
}

TEST(SkillText, TheInstructionsAreEverythingBehindTheFrontmatter)
{
    EXPECT_EQ(SkillLoader::parse("---\nname: A\ndescription: B\n---\n\n \t# Title\n\n---\nname: C\n---\nend \r\n\u00A0\n", "p")
                  .instructions,
        "# Title\n\n---\nname: C\n---\nend");
}

TEST(SkillText, WithoutAWholeFrontmatterItIsRefused)
{
    for (const std::string &text : {""s, "\n"s, "---"s, "---\nname: A\ndescription: B\nBody"s, "name: A\n---\n"s,
             "--- \nname: A\ndescription: B\n---\nBody"s, "---\nname: A\ndescription: B\n--- \nBody"s,
             " ---\nname: A\ndescription: B\n---\nBody"s, "\n---\nname: A\ndescription: B\n---\nBody"s,
             "\xEF\xBB\xBF---\nname: A\ndescription: B\n---\nBody"s, "---\nname: A\ndescription: B\n----\nBody"s,
             "---\rname: A\rdescription: B\r---\rBody"s})
        EXPECT_EQ(refusalOf(text), noFrontmatter) << text;
}

TEST(SkillText, WithoutANameOrADescriptionItIsRefused)
{
    for (const char *front : {"", "name: A\n", "description: B\n", "name:\ndescription: B\n", "name: A\ndescription: \"\"\n",
             "name: A\ndescription: ' \t'\n", "name: A\ndescription: >\n", "name: A\ndescription: >\n \n",
             "name: A\nname:\ndescription: B\n", "name: >\ndescription: B\n"})
        EXPECT_EQ(refusalOf("---\n"s + front + "---\nBody"), fieldMissing) << front;
}

TEST(SkillText, WithoutInstructionsItIsRefused)
{
    for (const char *body : {"", "\n", "\n \t\r\n\u2003\n"})
        EXPECT_EQ(refusalOf("---\nname: A\ndescription: B\n---"s + body), noInstructions) << body;
}
