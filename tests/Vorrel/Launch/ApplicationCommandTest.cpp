#include "Vorrel/Launch/ApplicationService.h"
#include "Vorrel/Platform/Headless/HeadlessApplications.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;
using Strings = std::vector<std::string>;
using Launch = HeadlessApplicationLauncher::Launch;

namespace {

struct ApplicationCommandTest : testing::Test {
    MainLoop loop;
    ManualClock clock{loop};
    DiskFolder disk;
    std::string path = disk.folder("Mail.app");
    HeadlessApplicationSource source{{disk.path}};
    HeadlessApplicationLauncher launcher;
    HeadlessWorkspace workspace;
    std::shared_ptr<ApplicationService> service = std::make_shared<ApplicationService>(
        ApplicationService::Ports{loop.executor(), clock, std::make_shared<ApplicationIndexer>(loop.executor(), source), source,
            launcher, workspace, {disk.path, std::nullopt}});

    Row row(std::string identifier, std::vector<ApplicationOwnAction> own = {})
    {
        return ApplicationCommand({"Mail", std::move(identifier), path, std::move(own)}, service).result({});
    }
    static Strings ids(const Row &row)
    {
        Strings ids;
        for (const auto &action : row->actions)
            ids.push_back(action.id);
        return ids;
    }
    void run(const Row &row, std::size_t action) { await(loop, row->actions.at(action).execute()); }
};

} // namespace

TEST_F(ApplicationCommandTest, TheRowTellsOfTheApplication)
{
    const auto mail = row("org.mail");
    EXPECT_EQ(mail->id, "app:" + path);
    EXPECT_EQ(mail->title, "Mail");
    EXPECT_EQ(mail->subtitle, "org.mail · " + path);
    EXPECT_EQ(mail->keywords, (Strings{"org.mail", "Mail", "", "application", "应用", "打开"}));
    EXPECT_EQ(mail->icon, CommandIcon::file(path));
    EXPECT_EQ(mail->kind, ResultKind::application);
    EXPECT_FALSE(mail->keepsOpen);
    EXPECT_FALSE(mail->preview);
}

TEST_F(ApplicationCommandTest, OneIdentifierIsFoundAsVSCode)
{
    EXPECT_EQ(row("com.microsoft.VSCode")->keywords[2], "vscode");
    EXPECT_EQ(row("com.vscodium.vscodium")->keywords[2], "");
}

TEST_F(ApplicationCommandTest, AnUnknownApplicationHasExactlyThreeActions)
{
    const auto mail = row("org.mail");
    ASSERT_EQ(ids(mail), (Strings{"open", "reveal", "arguments"}));
    const auto &open = mail->actions[0], &reveal = mail->actions[1], &arguments = mail->actions[2];
    EXPECT_EQ(open.title, "Open Application");
    EXPECT_EQ(open.shortcut, "↵");
    EXPECT_EQ(open.key, std::nullopt);
    EXPECT_EQ(open.flow, ActionFlow::direct());
    EXPECT_EQ(reveal.title, "Show in Finder");
    EXPECT_EQ(reveal.shortcut, std::nullopt);
    EXPECT_EQ(reveal.key, ActionKey::reveal);
    EXPECT_EQ(arguments.title, "Advanced Arguments…");
    EXPECT_EQ(arguments.shortcut, "⇥");
    EXPECT_EQ(arguments.dismissal, ActionDismissal::keepOpen);
    EXPECT_EQ(arguments.flow, ActionFlow::argumentInput());
    for (const auto &action : mail->actions)
        EXPECT_EQ(action.role, ActionRole::normal);
    EXPECT_EQ(open.dismissal, ActionDismissal::inherited);
    EXPECT_EQ(reveal.dismissal, ActionDismissal::inherited);
}

TEST_F(ApplicationCommandTest, OpeningLaunchesWithoutArguments)
{
    run(row("org.mail"), 0);
    EXPECT_EQ(launcher.launches, (std::vector<Launch>{{path, {}}}));
}

TEST_F(ApplicationCommandTest, RevealingShowsTheApplicationInTheFileManager)
{
    run(row("org.mail"), 1);
    EXPECT_EQ(workspace.revealed, Strings{path});
}

TEST_F(ApplicationCommandTest, CatalogueActionsStandBetweenOpenAndRevealAndLaunchWithTheirArguments)
{
    const auto brave = row("com.brave.Browser");
    ASSERT_EQ(ids(brave), (Strings{"open", "new-window", "private", "reveal", "arguments"}));
    EXPECT_EQ(brave->actions[2].title, "New Private Window");
    EXPECT_EQ(brave->actions[2].flow, ActionFlow::direct());
    run(brave, 2);
    EXPECT_EQ(launcher.launches, (std::vector<Launch>{{path, {"--incognito", "--new-window"}}}));
}

TEST_F(ApplicationCommandTest, FolderAndDiffAskForTheirInputFirst)
{
    const auto code = row("com.microsoft.VSCode");
    ASSERT_EQ(ids(code), (Strings{"open", "new-window", "folder", "diff", "reveal", "arguments"}));
    EXPECT_EQ(code->actions[1].flow, ActionFlow::direct());
    EXPECT_EQ(code->actions[2].flow, ActionFlow::applicationInput(path, {"--new-window"}, true));
    EXPECT_EQ(code->actions[3].flow, ActionFlow::applicationInput(path, {"--diff"}, false));
}

TEST_F(ApplicationCommandTest, OwnActionsOfAnUnknownApplicationStandBetweenOpenAndReveal)
{
    const auto mail = row("org.mail", {{"compose", "Neue Nachricht"}, {"open", "Öffnen"}});
    ASSERT_EQ(ids(mail), (Strings{"open", "action:compose", "action:open", "reveal", "arguments"}));
    EXPECT_EQ(mail->actions[1].title, "Neue Nachricht");
    EXPECT_EQ(mail->actions[1].flow, ActionFlow::direct());
    run(mail, 1);
    EXPECT_EQ(launcher.launches, (std::vector<Launch>{{path, {}, "compose"}}));
}

TEST_F(ApplicationCommandTest, TheCatalogueGoesBeforeOwnActions)
{
    EXPECT_EQ(
        ids(row("codium", {{"new-empty-window", "New Empty Window"}})), (Strings{"open", "new-window", "reveal", "arguments"}));
}

TEST_F(ApplicationCommandTest, ARowThatOutlivesTheServiceFailsWithASentence)
{
    const auto mail = row("org.mail");
    service.reset();
    EXPECT_THROW(run(mail, 0), AppError);
    EXPECT_THROW(run(mail, 1), AppError);
    EXPECT_TRUE(launcher.launches.empty());
}
