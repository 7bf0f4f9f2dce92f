#include "tests/support/TestPalette.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <unistd.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;

namespace {

/// A palette over two real application folders.
struct LaunchScenario : testing::Test {
    LaunchScenario()
    {
        std::string pattern = std::filesystem::temp_directory_path() / "korvane-scenario-XXXXXX";
        root = ::mkdtemp(pattern.data());
        palette.emplace(Strings{root});
        add("Editor", "org.example.editor");
        add("Image Viewer", "org.example.viewer");
        palette->start();
    }
    ~LaunchScenario() override
    {
        palette.reset();
        std::filesystem::remove_all(root);
    }

    std::string pathOf(const std::string &identifier) const { return root + "/" + identifier + ".app"; }
    void add(const std::string &name, const std::string &identifier)
    {
        std::filesystem::create_directory(pathOf(identifier));
        palette->source.describe(pathOf(identifier), {{"CFBundleName", name}, {"CFBundleIdentifier", identifier}});
    }
    void remove(const std::string &identifier) { std::filesystem::remove_all(pathOf(identifier)); }

    std::string root;
    std::optional<TestPalette> palette;
};

using Launch = HeadlessApplicationLauncher::Launch;

/// One shortcut, and what was run.
struct OneShortcut final : ShortcutRunning {
    explicit OneShortcut(Strings &ran) : ran(ran) { }
    Task<std::vector<std::string>> listNames() override { co_return Strings{"Water plants"}; }
    Task<void> run(std::string name) override
    {
        ran.push_back(std::move(name));
        co_return;
    }
    Task<void> view(std::string) override { co_return; }

    Strings &ran;
};

} // namespace

TEST_F(LaunchScenario, TypeFindRun)
{
    palette->type("edi");
    ASSERT_EQ(palette->selected(), "Editor");
    palette->run();
    EXPECT_EQ(palette->launcher.launches, (std::vector<Launch>{{pathOf("org.example.editor"), {}}}));
    EXPECT_EQ(palette->log, (Strings{"hide", "focus"}));
    EXPECT_EQ(palette->usesOf("app:" + pathOf("org.example.editor")), 1);
    palette->state->enter(PaletteState::Mode::commands);
    EXPECT_EQ(palette->titles().front(), "Editor") << "what was used comes first";
}

TEST_F(LaunchScenario, ALineOfArgumentsLaunchesIsRememberedAndOfferedAgain)
{
    palette->type("edi");
    palette->state->beginArguments();
    palette->type("--line 12 'my file.txt'");
    palette->run();
    const Launch expected{pathOf("org.example.editor"), {"--line", "12", "my file.txt"}};
    EXPECT_EQ(palette->launcher.launches, std::vector<Launch>{expected});
    EXPECT_EQ(palette->log, (Strings{"hide", "focus"}));
    EXPECT_EQ(palette->usesOf("app:" + pathOf("org.example.editor")), 1);

    palette->state->enter(PaletteState::Mode::commands);
    palette->type("edi");
    palette->state->beginArguments();
    palette->settle();
    ASSERT_EQ(palette->titles(), Strings{"--line 12 'my file.txt'"});
    palette->run();
    EXPECT_EQ(palette->launcher.launches.size(), 2u);
    const auto recents = await(palette->loop, palette->services->appLaunches.recents(pathOf("org.example.editor"), 8));
    ASSERT_EQ(recents.size(), 1u);
    EXPECT_EQ(recents[0].count, 2) << "the same line is one record";
}

TEST_F(LaunchScenario, AFailedLaunchWithArgumentsIsToldAndRemembersNothing)
{
    palette->launcher.refuses = true;
    palette->type("edi");
    palette->state->beginArguments();
    palette->type("--x");
    palette->run();
    EXPECT_EQ(palette->error(), "The application could not be launched.");
    EXPECT_FALSE(palette->state->busy());
    EXPECT_TRUE(await(palette->loop, palette->services->appLaunches.recents(pathOf("org.example.editor"), 8)).empty());
    EXPECT_EQ(palette->log, Strings{"focus"});
}

TEST_F(LaunchScenario, AFailedLaunchOffersToTryAgain)
{
    palette->launcher.refuses = true;
    palette->type("edi");
    palette->run();
    EXPECT_EQ(palette->error(), "The application could not be launched.");
    EXPECT_TRUE(palette->state->errorRecovery().rerunAction);
    palette->launcher.refuses = false;
    palette->state->retrySearch();
    palette->settle();
    EXPECT_EQ(palette->launcher.launches.size(), 1u);
    EXPECT_EQ(palette->error(), "");
}

TEST_F(LaunchScenario, ARemovedApplicationLeavesTheListAndItsRowFailsWithASentence)
{
    palette->type("edi");
    remove("org.example.editor");
    palette->run();
    EXPECT_EQ(palette->error(), "Choose an installed application bundle.");
    palette->folderWatcher.change(root);
    palette->wait(1s);
    EXPECT_TRUE(palette->titles().empty()) << "the list follows within a second";
}

TEST_F(LaunchScenario, AnInstalledApplicationAppearsWithinASecondWhileTheUserLooks)
{
    palette->type("calen");
    EXPECT_TRUE(palette->titles().empty());
    add("Calendar", "org.example.calendar");
    palette->folderWatcher.change(root);
    palette->wait(1s);
    EXPECT_EQ(palette->titles(), Strings{"Calendar"});
}

TEST_F(LaunchScenario, WithoutAWatcherThePeriodicScanFindsItWithinAMinute)
{
    palette->type("calen");
    add("Calendar", "org.example.calendar");
    palette->wait(59s);
    EXPECT_TRUE(palette->titles().empty());
    palette->wait(1s);
    EXPECT_EQ(palette->titles(), Strings{"Calendar"});
}

TEST_F(LaunchScenario, AShortcutIsFoundAndRun)
{
    Strings ran;
    const auto service =
        std::make_shared<ShortcutsService>(palette->loop.executor(), palette->clock, std::make_unique<OneShortcut>(ran));
    await(palette->loop, service->refreshNow());
    palette->shortcuts->family = service->commands();
    palette->shortcuts->onUpdate();
    palette->type("water");
    ASSERT_EQ(palette->selected(), "Water plants");
    palette->run();
    EXPECT_EQ(ran, Strings{"Water plants"});
    EXPECT_EQ(palette->log, (Strings{"hide", "focus"}));
    EXPECT_EQ(palette->usesOf("shortcut:Water plants"), 1);
}

TEST_F(LaunchScenario, AQuicklinkIsFoundAndOpened)
{
    await(palette->loop, palette->services->quicklinks.save({"7", "Harbour office", "https://harbour.example/desk"}));
    palette->state->refreshQuicklinks();
    palette->settle();
    palette->type("harbour");
    ASSERT_EQ(palette->selected(), "Harbour office");
    palette->run();
    EXPECT_EQ(palette->workspace.opened, Strings{"https://harbour.example/desk"});
    EXPECT_EQ(palette->log, (Strings{"hide", "focus"}));
    EXPECT_EQ(palette->usesOf("quicklink:7"), 1);
}
