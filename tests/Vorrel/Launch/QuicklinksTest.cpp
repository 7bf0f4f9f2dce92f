#include "Vorrel/Launch/Quicklinks.h"

#include "tests/support/Await.h"
#include "tests/support/HeadlessDesktop.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;

namespace {

Row rowFor(Workspace &workspace, const std::string &title, const std::string &url)
{
    return QuicklinkCommand({"7", title, url}, workspace).result({});
}

} // namespace

TEST(Quicklinks, AddressesOfTheThreeSchemesAreAccepted)
{
    EXPECT_EQ(Quicklinks::validatedURL("https://example.org"), "https://example.org");
    EXPECT_EQ(Quicklinks::validatedURL("http://example.org/a?b"), "http://example.org/a?b");
    EXPECT_EQ(Quicklinks::validatedURL("file:///home/ada"), "file:///home/ada");
}

TEST(Quicklinks, BlanksAroundAndASchemeInCapitalsAreAccepted)
{
    EXPECT_EQ(Quicklinks::validatedURL(" \n HTTPS://example.org\t"), "HTTPS://example.org");
}

TEST(Quicklinks, AnythingElseIsRefused)
{
    for (const char *text : {"mailto:ada@example.org", "javascript:alert(1)", "example.org", "", "  ", "ssh://example.org",
             "https://exa mple.org", "/home/ada", "https"}) {
        SCOPED_TRACE(text);
        try {
            Quicklinks::validatedURL(text);
            ADD_FAILURE() << "accepted";
        } catch (const AppError &error) {
            EXPECT_EQ(error.kind(), AppError::Kind::configuration);
            EXPECT_EQ(error.errorDescription(), "Quicklinks must use http, https or file addresses.");
        }
    }
}

TEST(Quicklinks, TheRowShowsTheHostAndIsFoundByItsLabels)
{
    HeadlessDesktop desktop;
    const Row row = rowFor(desktop.workspace, "My  Issue Tracker", "https://bugs.-example-.org/list?id=1");
    EXPECT_EQ(row->id, "quicklink:7");
    EXPECT_EQ(row->title, "My  Issue Tracker");
    EXPECT_EQ(row->subtitle, "bugs.-example-.org");
    EXPECT_EQ(row->keywords, (Strings{"my", "issue", "tracker", "bugs", "example", "org"}));
    EXPECT_EQ(row->icon, CommandIcon::symbol("link"));
    ASSERT_EQ(row->actions.size(), 1u);
    EXPECT_EQ(row->actions[0].id, "open");
    EXPECT_EQ(row->actions[0].title, "Open Quicklink");
    EXPECT_EQ(row->actions[0].shortcut, "↵");
    EXPECT_EQ(row->actions[0].role, ActionRole::normal);
}

TEST(Quicklinks, AFileAddressHasItsWholeTextAsSubtitle)
{
    HeadlessDesktop desktop;
    EXPECT_EQ(rowFor(desktop.workspace, "Notes", "file:///home/ada/notes.txt")->subtitle, "file:///home/ada/notes.txt");
    EXPECT_EQ(rowFor(desktop.workspace, "Broken", "no address")->subtitle, "no address");
}

TEST(Quicklinks, OpeningHandsTheAddressOnAsItStands)
{
    HeadlessDesktop desktop;
    const Row row = rowFor(desktop.workspace, "Search", " https://example.org/?q={query} ");
    await(desktop.loop, row->actions[0].execute());
    EXPECT_EQ(desktop.workspace.opened, Strings{"https://example.org/?q={query}"}) << "braces are no place for a query";
    desktop.workspace.refuses = true;
    EXPECT_NO_THROW(await(desktop.loop, row->actions[0].execute()));
}

TEST(Quicklinks, AForeignSchemeInTheStoreIsRefusedWhenItIsOpened)
{
    HeadlessDesktop desktop;
    const Row row = rowFor(desktop.workspace, "Trick", "javascript:alert(1)");
    EXPECT_THROW(await(desktop.loop, row->actions[0].execute()), AppError);
    EXPECT_TRUE(desktop.workspace.opened.empty());
}
