#include "Vorrel/Platform/Linux/ShortcutFolder.h"

#include "Support/MainLoop.h"
#include "Vorrel/Launch/BoundedProcess.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;
using Strings = std::vector<std::string>;
namespace fs = std::filesystem;

namespace {

/// A home folder with shortcuts.
struct Shortcuts : testing::Test {
    std::string shortcut(const std::string &file, const std::string &script = "#!/bin/sh\n", bool executable = true) const
    {
        const std::string path = home.file(".config/korvane/shortcuts/" + file, script);
        fs::permissions(path, executable ? fs::perms::owner_all : fs::perms::owner_read | fs::perms::owner_write);
        return path;
    }
    ShortcutFolder folder() const { return ShortcutFolder::below(home.path); }
    /// What the tool itself does.
    BoundedProcess::Output tool(Strings arguments)
    {
        BoundedProcess process(loop.executor(), clock, {"HOME=" + home.path, "PATH=" + home.path + "/bin:/usr/bin:/bin"});
        return await(loop, process.run(KORVANE_BINARIES "/korvane-shortcuts", std::move(arguments), 20, 100'000));
    }

    MainLoop loop;
    SystemClock clock;
    const DiskFolder home;
};

} // namespace

TEST_F(Shortcuts, AreTheExecutableFilesWithoutTheirExtensionAsAFileManagerOrdersThem)
{
    shortcut("Send Mail.py");
    shortcut("resize 10.sh");
    shortcut("resize 9");
    shortcut("notes.txt", "", false);
    shortcut(".hidden.sh");
    home.folder(".config/korvane/shortcuts/folder.sh");
    fs::create_symlink("/bin/true", home / ".config/korvane/shortcuts/Linked");
    fs::create_symlink("/nowhere", home / ".config/korvane/shortcuts/Dangling");
    EXPECT_EQ(folder().names(), (Strings{"Linked", "resize 9", "resize 10", "Send Mail"}));
}

TEST_F(Shortcuts, WithoutAFolderThereAreNone)
{
    EXPECT_TRUE(folder().names().empty());
    EXPECT_FALSE(folder().file("anything"));
}

TEST_F(Shortcuts, NamesThatCouldBeMistakenAreLeftOut)
{
    for (const char *file : {"-rf", "--help.sh", " blank", "blank .sh", "two\nlines", "tab\tinside", "bell\a", "bad\xff.sh"})
        shortcut(file);
    for (const char *hidden :
        {"\u0085", "\u200B", "\u200C", "\u200D", "\u200E", "\u200F", "\u202A", "\u202E", "\u2066", "\u2069", "\uFEFF"})
        shortcut(std::string("a") + hidden + "b.sh");
    shortcut("good.sh");
    shortcut("Straße 文字 é.sh");
    EXPECT_EQ(folder().names(), (Strings{"good", "Straße 文字 é"}));
    for (const char *name : {"-rf", "--help", " blank", "../shortcuts/good", "good.sh", "/bin/true", "", ".", ".."})
        EXPECT_FALSE(folder().file(name)) << name;
}

TEST_F(Shortcuts, OfTwoFilesWithOneNameTheFirstCounts)
{
    const std::string first = shortcut("same.py");
    shortcut("same.sh");
    EXPECT_EQ(folder().names(), Strings{"same"});
    EXPECT_EQ(folder().file("same"), first);
}

TEST_F(Shortcuts, TheToolListsOneNameALine)
{
    shortcut("b.sh");
    shortcut("a b.sh");
    EXPECT_EQ(tool({"list"}).stdout, "a b\nb\n");
    EXPECT_EQ(tool({"list"}).status, 0);
}

TEST_F(Shortcuts, TheToolRunsOneInTheHomeFolderAndGivesItsStatus)
{
    shortcut("where am i.sh", "#!/bin/sh\npwd; echo $#; exit 7\n");
    const auto output = tool({"run", "where am i"});
    EXPECT_EQ(output.stdout, fs::canonical(home.path).native() + "\n0\n");
    EXPECT_EQ(output.status, 7);
}

TEST_F(Shortcuts, AScriptWithoutAnInterpreterIsTheShells)
{
    shortcut("plain", "echo plain\n");
    EXPECT_EQ(tool({"run", "plain"}).stdout, "plain\n");
}

TEST_F(Shortcuts, AnUnknownNameIsASentenceAndWrongUsageIsTwo)
{
    const auto unknown = tool({"run", "nothing"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_EQ(unknown.stderr, "There is no shortcut \"nothing\".\n");
    EXPECT_EQ(tool({"run", "../../../../bin/true"}).status, 1);
    for (const auto &words :
        {Strings{}, Strings{"run"}, Strings{"list", "all"}, Strings{"remove", "x"}, Strings{"run", "a", "b"}}) {
        const auto output = tool(words);
        EXPECT_EQ(output.status, 2);
        EXPECT_EQ(output.stdout, "");
    }
}

TEST_F(Shortcuts, ToViewOneOpensItsFolder)
{
    const std::string file = shortcut("mine.sh");
    const std::string opener =
        home.file("bin/xdg-open", "#!/bin/sh\nprintf %s \"$1\" > \"$HOME/part\"; mv \"$HOME/part\" \"$HOME/opened\"\n");
    fs::permissions(opener, fs::perms::owner_all);
    EXPECT_EQ(tool({"view", "mine"}).status, 0);
    const double start = clock.uptime();
    while (!fs::exists(home / "opened") && clock.uptime() < start + 20)
        await(loop, clock.sleep(Milliseconds(5)));
    EXPECT_EQ(home.contents("opened"), fs::path(file).parent_path());
}
