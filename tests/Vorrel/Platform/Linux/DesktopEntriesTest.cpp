#include "Vorrel/Platform/Linux/DesktopEntries.h"
#include "Support/MainLoop.h"
#include "Vorrel/Launch/ApplicationService.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"

#include <gtest/gtest.h>

#include <random>
#include <sys/stat.h>

using namespace korvane;
using namespace korvane::test;
using Strings = std::vector<std::string>;
using OwnActions = std::vector<ApplicationOwnAction>;

namespace {

std::string entry(const std::string &lines) { return "[Desktop Entry]\nType=Application\n" + lines; }

const std::string plain = "Name=Tool\nExec=tool\n";

/// How an entry is listed: its name, "(masked)" for one that hides earlier ones, "(nothing)" for none.
std::string listing(const std::string &bytes, const DesktopEnvironment &environment)
{
    const auto read = DesktopEntry::parse(bytes, environment);
    if (!read)
        return "(nothing)";
    return read->masks || !read->shown ? "(masked)" : read->name;
}

DesktopEnvironment german()
{
    return {.dataHome = {}, .dataDirs = {}, .currentDesktop = {"ubuntu", "GNOME"}, .languages = {"de_AT.UTF-8"}, .path = "/bin"};
}

DesktopEnvironment speaking(Strings languages)
{
    auto environment = german();
    environment.languages = std::move(languages);
    return environment;
}

DesktopEnvironment on(Strings desktop)
{
    auto environment = german();
    environment.currentDesktop = std::move(desktop);
    return environment;
}

const std::string translated =
    "Name=Files\nName[de]=Dateien\nName[de_AT]=Dateien Wien\nName[sr@latin]=Datoteke\nName[sr]=Датотеке\n"
    "Name[fr]=Fichiers\nExec=files\n";

} // namespace

TEST(DesktopEntryTest, IsListedByTheRules)
{
    const struct {
        const char *why;
        std::string bytes;
        DesktopEnvironment environment;
        std::string listed;
    } cases[] = {
        {"the least that an application needs", entry(plain), german(), "Tool"},
        {"comments, blank lines and blanks round the sign do not matter",
            "# a comment\n\n[Desktop Entry]\nType = Application\n# another\nName = Tool\nExec = tool\n", german(), "Tool"},
        {"line ends of another system", "[Desktop Entry]\r\nType=Application\r\nName=Tool\r\nExec=tool\r\n", german(), "Tool"},
        {"no line end after the last line", entry("Name=Tool\nExec=tool"), german(), "Tool"},
        {"keys of others are passed over", entry(plain + "X-Vendor-Key=1\nVersion=9.9\n"), german(), "Tool"},

        {"a link is no application", "[Desktop Entry]\nType=Link\nName=Tool\nURL=http://x\n", german(), "(nothing)"},
        {"a folder is no application", "[Desktop Entry]\nType=Directory\nName=Tool\nExec=tool\n", german(), "(nothing)"},
        {"an entry must have a type", "[Desktop Entry]\nName=Tool\nExec=tool\n", german(), "(nothing)"},
        {"types are compared exactly", "[Desktop Entry]\nType=application\nName=Tool\nExec=tool\n", german(), "(nothing)"},
        {"an entry must have a name, and none is made up", entry("Exec=tool\n"), german(), "(nothing)"},
        {"an empty name is none", entry("Name=\nExec=tool\n"), german(), "(nothing)"},
        {"a name of blanks is none", entry("Name=\\s\\s\nExec=tool\n"), german(), "(nothing)"},
        {"an entry must say what to run", entry("Name=Tool\n"), german(), "(nothing)"},
        {"unless the bus starts it", entry("Name=Tool\nDBusActivatable=true\n"), german(), "Tool"},
        {"and only then", entry("Name=Tool\nDBusActivatable=false\n"), german(), "(nothing)"},
        {"a command line that must not be processed", entry("Name=Tool\nExec=tool \"a\n"), german(), "(nothing)"},
        {"the group of an entry must be there", "[Other]\nType=Application\nName=Tool\nExec=tool\n", german(), "(nothing)"},
        {"a group of another name is not looked into",
            "[Other]\nHidden=true\n[Desktop Entry]\nType=Application\nName=Tool\nExec=tool\n", german(), "Tool"},
        {"lines before the first group", "Name=X\n" + entry(plain), german(), "(nothing)"},
        {"a line that is no key", entry(plain + "nonsense\n"), german(), "(nothing)"},
        {"an empty file says nothing when it is parsed", "", german(), "(nothing)"},
        {"bytes that are no text at all", std::string("\0\xff\xfe[\x01", 5), german(), "(nothing)"},
        {"a name that is no UTF-8 is repaired, not lost", entry("Name=T\xfcr\nExec=tool\n"), german(), "T\uFFFDr"},
        {"escapes in a name", entry("Name=A\\sB\\\\C\nExec=tool\n"), german(), "A B\\C"},

        {"the exact locale", entry(translated), german(), "Dateien Wien"},
        {"the language without its country", entry(translated), speaking({"de_DE.UTF-8"}), "Dateien"},
        {"a modifier", entry(translated), speaking({"sr_RS.UTF-8@latin"}), "Datoteke"},
        {"an unknown modifier falls back to the language", entry(translated), speaking({"sr_RS@other"}), "Датотеке"},
        {"an unknown language gets the plain name", entry(translated), speaking({"pt_BR"}), "Files"},
        {"the second language before the plain name", entry(translated), speaking({"pt_BR", "fr"}), "Fichiers"},
        {"the C locale gets the plain name", entry(translated), speaking({"C.UTF-8"}), "Files"},
        {"no language gets the plain name", entry(translated), speaking({}), "Files"},
        {"an odd locale does no harm", entry(translated), speaking({"", "@", "_", ".", "de]=x["}), "Files"},
        {"a translation that is no UTF-8 is passed over", entry("Name=Tool\nName[de]=T\xfcr\nExec=tool\n"), german(), "Tool"},
        {"an empty translation is passed over", entry("Name=Tool\nName[de]=\nExec=tool\n"), german(), "Tool"},
        {"a translation alone is a name here", entry("Name[de]=Werkzeug\nExec=tool\n"), german(), "Werkzeug"},

        {"not to be displayed", entry(plain + "NoDisplay=true\n"), german(), "(masked)"},
        {"to be displayed", entry(plain + "NoDisplay=false\n"), german(), "Tool"},
        {"deleted by the user", entry(plain + "Hidden=true\n"), german(), "(masked)"},
        {"an entry that only hides needs nothing else", "[Desktop Entry]\nHidden=true\n", german(), "(masked)"},
        {"nor one that only is not to be displayed", "[Desktop Entry]\nNoDisplay=true\n", german(), "(masked)"},
        {"a flag with another word is not set", entry(plain + "Hidden=yes\n"), german(), "Tool"},

        {"only on this desktop", entry(plain + "OnlyShowIn=KDE;GNOME;\n"), german(), "Tool"},
        {"only on another desktop", entry(plain + "OnlyShowIn=KDE;\n"), german(), "(masked)"},
        {"only on no desktop at all", entry(plain + "OnlyShowIn=\n"), german(), "(masked)"},
        {"the list needs no sign at its end", entry(plain + "OnlyShowIn=GNOME\n"), german(), "Tool"},
        {"desktops are compared exactly", entry(plain + "OnlyShowIn=gnome;\n"), german(), "(masked)"},
        {"not on this desktop", entry(plain + "NotShowIn=GNOME;\n"), german(), "(masked)"},
        {"not on another desktop", entry(plain + "NotShowIn=KDE;\n"), german(), "Tool"},
        {"the most specific name decides for showing", entry(plain + "OnlyShowIn=ubuntu;\nNotShowIn=GNOME;\n"), german(), "Tool"},
        {"the most specific name decides against it", entry(plain + "OnlyShowIn=GNOME;\nNotShowIn=ubuntu;\n"), german(),
            "(masked)"},
        {"on an unknown desktop what belongs to one is not shown", entry(plain + "OnlyShowIn=GNOME;\n"), on({}), "(masked)"},
        {"on an unknown desktop the rest is", entry(plain + "NotShowIn=GNOME;\n"), on({}), "Tool"},

        {"the program to try is there, by name", entry(plain + "TryExec=sh\n"), german(), "Tool"},
        {"the program to try is there, by path", entry(plain + "TryExec=/bin/sh\n"), german(), "Tool"},
        {"the program to try is missing", entry(plain + "TryExec=no-such-program-anywhere\n"), german(), "(masked)"},
        {"the path to try is missing", entry(plain + "TryExec=/no/such/program\n"), german(), "(masked)"},
        {"what cannot be run is no program", entry(plain + "TryExec=/etc/passwd\n"), german(), "(masked)"},
        {"a folder is no program", entry(plain + "TryExec=/bin\n"), german(), "(masked)"},
        {"nothing to try", entry(plain + "TryExec=\n"), german(), "Tool"},
        {"the program to run is not looked for", entry("Name=Tool\nExec=no-such-program-anywhere\n"), german(), "Tool"},

        {"of a key given twice the last counts", entry("Name=A\nName=B\nExec=tool\n"), german(), "B"},
        {"a terminal does not matter for the list", entry(plain + "Terminal=true\n"), german(), "Tool"},
    };
    static_assert(std::size(cases) >= 40);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(listing(c.bytes, c.environment), c.listed);
    }
}

TEST(DesktopEntryTest, TellsHowTheApplicationIsStarted)
{
    const auto read = DesktopEntry::parse(
        entry("Name=Tool\nExec=tool \\\\\\\\x\\s\"a\\\"b\"\nPath=/srv\nTerminal=true\nIcon=pen\nDBusActivatable=true\n"),
        german());
    ASSERT_TRUE(read);
    EXPECT_EQ(read->exec, R"(tool \\x "a\"b")") << "general escapes are undone, others left to the command line";
    EXPECT_EQ(read->workingDirectory, "/srv");
    EXPECT_EQ(read->icon, "pen");
    EXPECT_TRUE(read->terminal);
    EXPECT_TRUE(read->dbusActivatable);
}

TEST(DesktopEntryTest, BrokenActionsAreLeftOut)
{
    const struct {
        const char *why;
        std::string lines;
        Strings actions;
    } cases[] = {
        {"in the order of the list", "Actions=b;a;\n[Desktop Action a]\nName=A\nExec=a\n[Desktop Action b]\nName=B\nExec=b\n",
            {"b=B", "a=A"}},
        {"the title in the user's language", "Actions=a\n[Desktop Action a]\nName=New\nName[de]=Neu\nExec=a\n", {"a=Neu"}},
        {"one that is not in the list", "[Desktop Action a]\nName=A\nExec=a\n", {}},
        {"one without a group", "Actions=a;b\n[Desktop Action b]\nName=B\nExec=b\n", {"b=B"}},
        {"one without a name is not made up", "Actions=a\n[Desktop Action a]\nExec=a\n", {}},
        {"one without a command", "Actions=a\n[Desktop Action a]\nName=A\n", {}},
        {"one whose command must not be processed", "Actions=a\n[Desktop Action a]\nName=A\nExec=a %z\n", {}},
        {"one without a command that the bus starts", "DBusActivatable=true\nActions=a\n[Desktop Action a]\nName=A\n", {"a=A"}},
        {"one that is listed twice", "Actions=a;a;\n[Desktop Action a]\nName=A\nExec=a\n", {"a=A"}},
        {"empty names in the list", "Actions=;;a;\n[Desktop Action ]\nName=X\nExec=x\n[Desktop Action a]\nName=A\nExec=a\n",
            {"a=A"}},
        {"the list escapes its separator", "Actions=a\\;b;\n[Desktop Action a;b]\nName=A\nExec=a\n", {"a;b=A"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        const auto read = DesktopEntry::parse(entry(plain + c.lines), german());
        ASSERT_TRUE(read);
        Strings actions;
        for (const auto &action : read->actions)
            actions.push_back(action.id + "=" + action.name);
        EXPECT_EQ(actions, c.actions);
    }
}

TEST(DesktopEntryTest, RandomBytesAreNeverMoreThanNoApplication)
{
    std::mt19937 random(20240527);
    const std::string valid = entry(translated + "Actions=a;\nOnlyShowIn=GNOME;\n[Desktop Action a]\nName=A\nExec=a\n");
    for (int round = 0; round < 2000; ++round) {
        std::string bytes = round % 2 ? valid : std::string(random() % 300, '\0');
        for (auto &byte : bytes)
            if (round % 2 == 0 || random() % 40 == 0)
                byte = static_cast<char>(random());
        const auto read = DesktopEntry::parse(bytes, german());
        EXPECT_TRUE(!read || read->masks || !read->name.empty());
    }
}

// The folders

namespace {

struct DesktopEntriesTest : testing::Test {
    DiskFolder disk;
    MainLoop loop;
    DesktopEnvironment environment{.dataHome = disk / "home",
        .dataDirs = {disk / "local", disk / "usr"},
        .currentDesktop = {},
        .languages = {},
        .path = "/bin"};

    std::string put(const std::string &name, const std::string &lines) { return disk.file(name, entry(lines)); }
    Strings listed()
    {
        const DesktopEntries source(environment);
        ApplicationIndexer indexer(loop.executor(), source);
        Strings all;
        for (const auto &record : await(loop, indexer.scan()))
            if (record.path.starts_with(disk.path)) // what the machine has exported besides is not ours
                all.push_back(record.bundleIdentifier + "=" + record.name);
        return all;
    }
};

} // namespace

TEST_F(DesktopEntriesTest, RootsGoFromTheLeastToTheMostPreferred)
{
    environment = {.dataHome = "/home/ada/.local/share",
        .dataDirs = {"/usr/local/share", "/usr/share"},
        .currentDesktop = {},
        .languages = {},
        .path = {}};
    EXPECT_EQ(DesktopEntries(environment).roots(),
        (Strings{"/usr/share/applications", "/usr/local/share/applications", "/var/lib/snapd/desktop/applications",
            "/var/lib/flatpak/exports/share/applications", "/home/ada/.local/share/flatpak/exports/share/applications",
            "/home/ada/.local/share/applications"}));
}

TEST_F(DesktopEntriesTest, ExportsThatTheSessionKnowsKeepTheirPlaceAndNoFolderIsARootTwice)
{
    environment = {.dataHome = "/h",
        .dataDirs = {"/var/lib/snapd/desktop", "/usr/share", "/h", "/usr/share"},
        .currentDesktop = {},
        .languages = {},
        .path = {}};
    EXPECT_EQ(DesktopEntries(environment).roots(),
        (Strings{"/usr/share/applications", "/var/lib/snapd/desktop/applications", "/var/lib/flatpak/exports/share/applications",
            "/h/flatpak/exports/share/applications", "/h/applications"}));
}

TEST_F(DesktopEntriesTest, TheEnvironmentHasDefaultsForWhatIsUnsetEmptyOrRelative)
{
    const auto from = [](std::map<std::string, std::string, std::less<>> variables) {
        return DesktopEnvironment::from([variables](std::string_view name) -> std::optional<std::string> {
            const auto found = variables.find(name);
            return found == variables.end() ? std::nullopt : std::optional(found->second);
        });
    };
    const auto unset = from({{"HOME", "/home/ada"}});
    EXPECT_EQ(unset.dataHome, "/home/ada/.local/share");
    EXPECT_EQ(unset.dataDirs, (Strings{"/usr/local/share", "/usr/share"}));
    EXPECT_EQ(unset.languages, Strings{});
    EXPECT_EQ(from({{"HOME", "/h"}, {"XDG_DATA_HOME", "relative"}, {"XDG_DATA_DIRS", ""}}).dataHome, "/h/.local/share");
    const auto set = from({{"HOME", "/h"}, {"XDG_DATA_HOME", "/d/"}, {"XDG_DATA_DIRS", "relative:/a//::/b"},
        {"XDG_CURRENT_DESKTOP", "ubuntu:GNOME"}, {"LANGUAGE", "de:fr"}, {"LANG", "it_IT"}, {"PATH", "/bin"}});
    EXPECT_EQ(set.dataHome, "/d");
    EXPECT_EQ(set.dataDirs, (Strings{"/a", "/b"}));
    EXPECT_EQ(set.currentDesktop, (Strings{"ubuntu", "GNOME"}));
    EXPECT_EQ(set.languages, (Strings{"de", "fr"}));
    EXPECT_EQ(set.path, "/bin");
}

TEST_F(DesktopEntriesTest, TheIdentifierIsThePathBelowTheRootJoinedByDashes)
{
    put("usr/applications/org.tool.desktop", plain);
    put("usr/applications/kde/sub/konsole.desktop", "Name=Konsole\nExec=k\n");
    EXPECT_EQ(listed(), (Strings{"kde-sub-konsole=Konsole", "org.tool=Tool"}));
}

TEST_F(DesktopEntriesTest, OneIdentifierInTwoShapesIsOneApplication)
{
    put("usr/applications/kde/konsole.desktop", "Name=Old\nExec=k\n");
    put("home/applications/kde-konsole.desktop", "Name=New\nExec=k\n");
    EXPECT_EQ(listed(), Strings{"kde-konsole=New"});
}

TEST_F(DesktopEntriesTest, TheUsersEntryBeatsTheMachines)
{
    put("usr/applications/tool.desktop", "Name=Distribution\nExec=t\n");
    put("local/applications/tool.desktop", "Name=Administrator\nExec=t\n");
    EXPECT_EQ(listed(), Strings{"tool=Administrator"});
    put("home/applications/tool.desktop", "Name=Mine\nExec=t\n");
    EXPECT_EQ(listed(), Strings{"tool=Mine"});
}

TEST_F(DesktopEntriesTest, TheUserMayHideTheMachinesEntry)
{
    const struct {
        const char *why, *bytes;
    } cases[] = {
        {"deleted", "[Desktop Entry]\nHidden=true\n"},
        {"not displayed", "[Desktop Entry]\nType=Application\nName=T\nExec=t\nNoDisplay=true\n"},
        {"for another desktop", "[Desktop Entry]\nType=Application\nName=T\nExec=t\nOnlyShowIn=KDE;\n"},
        {"for a program that is not there", "[Desktop Entry]\nType=Application\nName=T\nExec=t\nTryExec=/none\n"},
        {"emptied", ""},
    };
    put("usr/applications/tool.desktop", plain);
    for (const auto &c : cases) {
        disk.file("home/applications/tool.desktop", c.bytes);
        EXPECT_EQ(listed(), Strings{}) << c.why;
    }
    std::filesystem::remove(disk / "home/applications/tool.desktop");
    disk.link("home/applications/tool.desktop", "/dev/null");
    EXPECT_EQ(listed(), Strings{}) << "linked to nothing";
}

TEST_F(DesktopEntriesTest, ABrokenEntryOfTheUsersDoesNotTakeTheMachinesAway)
{
    put("usr/applications/tool.desktop", plain);
    disk.file("home/applications/tool.desktop", "[Desktop Entry\ngarbage\xff");
    EXPECT_EQ(listed(), Strings{"tool=Tool"});
}

TEST_F(DesktopEntriesTest, WhatIsNoReadableFileIsPassedOver)
{
    put("usr/applications/tool.desktop", plain);
    disk.folder("usr/applications/folder.desktop");
    put("usr/applications/folder.desktop/inner.desktop", plain);
    disk.link("usr/applications/dangling.desktop", disk / "nowhere");
    disk.link("usr/applications/self.desktop", "self.desktop");
    disk.link("usr/applications/loop", disk / "usr/applications");
    ASSERT_EQ(::mkfifo((disk / "usr/applications/pipe.desktop").c_str(), 0600), 0);
    put("usr/applications/shouting.DESKTOP", plain);
    put("usr/applications/.hidden.desktop", plain);
    put("usr/applications/large.desktop", plain + "Comment=" + std::string(2 << 20, 'x') + "\n");
    EXPECT_EQ(listed(), Strings{"tool=Tool"});
}

TEST_F(DesktopEntriesTest, ALinkToAnEntryIsAnEntry)
{
    const auto real = put("opt/tool.desktop", plain);
    disk.link("usr/applications/tool.desktop", real);
    EXPECT_EQ(listed(), Strings{"tool=Tool"});
}

TEST_F(DesktopEntriesTest, ANameThatIsNoTextKeepsItsBytes)
{
    const auto path = put("usr/applications/t\xff.desktop", plain);
    const DesktopEntries source(environment);
    ApplicationIndexer indexer(loop.executor(), source);
    const auto records = await(loop, indexer.scan());
    const auto found = std::find_if(records.begin(), records.end(), [&](const auto &record) { return record.path == path; });
    ASSERT_NE(found, records.end());
    EXPECT_EQ(found->bundleIdentifier, "t\xff");
}

TEST_F(DesktopEntriesTest, OwnActionsComeInTheEntrysOrder)
{
    const auto path = put("usr/applications/tool.desktop",
        plain + "Actions=b;a;\n[Desktop Action a]\nName=A\nExec=a\n[Desktop Action b]\nName=B\nExec=b\n");
    EXPECT_EQ(DesktopEntries(environment).actions(path), (OwnActions{{"b", "B"}, {"a", "A"}}));
    EXPECT_EQ(DesktopEntries(environment).actions(disk / "none.desktop"), OwnActions{});
}

TEST_F(DesktopEntriesTest, AFolderThatCannotBeReadIsPassedOver)
{
    if (::geteuid() == 0)
        GTEST_SKIP() << "no folder is unreadable for root";
    put("usr/applications/tool.desktop", plain);
    put("usr/applications/closed/other.desktop", plain);
    std::filesystem::permissions(disk / "usr/applications/closed", std::filesystem::perms::none);
    EXPECT_EQ(listed(), Strings{"tool=Tool"});
    std::filesystem::permissions(disk / "usr/applications/closed", std::filesystem::perms::owner_all);
}
