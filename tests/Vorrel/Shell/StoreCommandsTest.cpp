#include "Vorrel/Store/ClipboardRepository.h"
#include "tests/Vorrel/Shell/TestTool.h"

#include <gmock/gmock.h>

using namespace korvane;
using namespace korvane::test;

namespace {

struct StoreCommands : TestTool {
    /// Keeps a text as the running program does, and gives its identifier.
    std::string copied(const std::string &text)
    {
        run({"quicklink", "list"}); // looks where the store is
        AppServices::createPrivateFolder(*desktop->folders.korvane());
        auto database = await(desktop->loop,
            Database::open(
                desktop->loop.executor(), AppServices::storePath(*desktop->folders.korvane()), Database::Access::readWrite));
        const ClipboardRepository repository(database, clock);
        await(desktop->loop, repository.insert(text, std::nullopt, 500));
        const std::string id = await(desktop->loop, repository.search(text)).at(0).id;
        await(desktop->loop, database->close());
        return id;
    }
    std::string identifierOf(const std::string &line) { return line.substr(0, line.find('\t')); }
};

} // namespace

TEST_F(StoreCommands, AQuicklinkIsAddedListedFoundAndRemoved)
{
    EXPECT_EQ(run({"quicklink", "list"}), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(run({"quicklink", "add", "  Tracker ", " HTTPS://bugs.example.org/ "}), 0) << err;
    const std::string id = out.substr(0, out.find('\n'));
    EXPECT_EQ(out, id + "\n") << "what was added";
    EXPECT_EQ(run({"quicklink", "list"}), 0);
    EXPECT_EQ(out, id + "\tTracker\tHTTPS://bugs.example.org/\n");
    EXPECT_EQ(run({"quicklink", "list", "--json"}), 0);
    EXPECT_EQ(JSONValue::parse(out).array()->at(0)["title"], JSONValue("Tracker"));
    EXPECT_EQ(run({"search", "bugs"}), 0);
    EXPECT_THAT(out, testing::HasSubstr("quicklink:" + id));
    EXPECT_EQ(run({"run", "quicklink:" + id}), 0) << err;
    EXPECT_EQ(desktop->workspace.opened, Strings{"HTTPS://bugs.example.org/"});
    EXPECT_EQ(run({"quicklink", "remove", id}), 0);
    EXPECT_EQ(run({"quicklink", "list"}), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(run({"quicklink", "remove", id}), 1);
    EXPECT_EQ(err, "There is no quicklink with the identifier " + id + ".\n");
}

TEST_F(StoreCommands, AQuicklinkNeedsANameAndAnAddressOfThreeSchemes)
{
    EXPECT_EQ(run({"quicklink", "add", "Mail", "mailto:ada@example.org"}), 1);
    EXPECT_EQ(err, "Quicklinks must use http, https or file addresses.\n");
    EXPECT_EQ(run({"quicklink", "add", " ", "https://example.org"}), 1);
    EXPECT_EQ(err, "Give the quicklink a name.\n");
    EXPECT_EQ(run({"quicklink", "list"}), 0);
    EXPECT_EQ(out, "");
}

TEST_F(StoreCommands, CopiedTextsAreListedCopiedBackAndCleared)
{
    const std::string first = copied("tide tables\nsecond line"), second = copied("https://example.org");
    EXPECT_EQ(run({"clipboard", "list"}), 0);
    EXPECT_EQ(out, second + "\turl\thttps://example.org\n" + first + "\ttext\ttide tables second line\n");
    EXPECT_EQ(run({"clipboard", "list", "TIDE", "--json"}), 0);
    EXPECT_EQ(JSONValue::parse(out).array()->size(), 1u);
    EXPECT_EQ(JSONValue::parse(out).array()->at(0)["content"], JSONValue("tide tables\nsecond line"));
    EXPECT_EQ(run({"clipboard", "copy", first}), 0) << err;
    EXPECT_EQ(desktop->pasteboard.text, "tide tables\nsecond line");
    desktop->pasteboard.refuses = true;
    EXPECT_EQ(run({"clipboard", "copy", first}), 1);
    EXPECT_EQ(err, "Could not update the clipboard.\n");
    EXPECT_EQ(run({"clipboard", "copy", "nothing"}), 1);
    EXPECT_EQ(run({"clipboard", "clear"}), 1) << "without consent";
    EXPECT_EQ(run({"clipboard", "clear", "--yes"}), 0) << err;
    EXPECT_EQ(run({"clipboard", "list"}), 0);
    EXPECT_EQ(out, "");
}

TEST_F(StoreCommands, TheDiagnosticsAreThoseOfItsOwnProcessAndSaySo)
{
    EXPECT_EQ(run({"diagnostics"}), 0) << err;
    EXPECT_TRUE(out.starts_with("Korvane Diagnostics\n===================\nGenerated: ")) << out;
    EXPECT_NE(out.find("\n- Indexed files: 0\n- Status: liveUpdatesUnavailable\n- Indexed roots: 0\n"), std::string::npos) << out;
    EXPECT_NE(out.find("\n- Registered: no\n"), std::string::npos);
    EXPECT_EQ(err, "This is the report of korvanectl's own process. That of a running Korvane is exported in its settings.\n");
    EXPECT_EQ(run({"diagnostics", "--json"}), 0);
    EXPECT_TRUE((*JSONValue::parse(out).array())[0].text("report").starts_with("Korvane Diagnostics\n"));
    EXPECT_EQ(run({"diagnostics", "all"}), 2);
}

TEST_F(StoreCommands, WithoutAToolThereAreNoShortcuts)
{
    EXPECT_EQ(run({"shortcuts", "list"}), 0);
    EXPECT_EQ(out, "");
}

TEST_F(StoreCommands, WrongUsageIsTold)
{
    for (const Strings &words : {Strings{"quicklink"}, Strings{"quicklink", "add", "x"}, Strings{"quicklink", "list", "x"},
             Strings{"quicklink", "remove"}, Strings{"clipboard", "copy"}, Strings{"clipboard", "clear", "all"},
             Strings{"clipboard", "paste"}, Strings{"shortcuts", "run"}, Strings{"shortcuts", "list", "x"}}) {
        EXPECT_EQ(run(words), 2) << words.back();
        EXPECT_EQ(out, "");
    }
}
