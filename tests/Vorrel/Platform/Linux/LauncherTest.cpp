#include "Vorrel/Platform/Linux/Launcher.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <map>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

namespace {

/// Looks every few milliseconds whether something has become true; gives up after some seconds.
bool eventually(const std::function<bool()> &holds)
{
    const auto deadline = std::chrono::steady_clock::now() + 8s;
    while (!holds()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        ::poll(nullptr, 0, 5);
    }
    return true;
}

Strings lines(const std::string &text)
{
    Strings all;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        all.push_back(line);
    return all;
}

struct LauncherThreads : testing::Test {
    DiskFolder disk;
    MainLoop loop;
    ThreadPool pool{2};
    Strings environment{
        "PATH=" + disk / "bin" + ":/usr/bin:/bin", "HOME=" + disk.path, "OWN=a b", "XDG_DATA_HOME=" + disk / "data"};
    std::string token;

    void TearDown() override { pool.join(); }

    DesktopLauncher launcher()
    {
        return DesktopLauncher(
            {.pool = pool.executor(), .environment = environment, .activationToken = [this] { return token; }});
    }
    /// An entry whose program writes down what it was given.
    std::string entry(const std::string &exec, const std::string &more = "")
    {
        return disk.file("tool.desktop", "[Desktop Entry]\nType=Application\nName=Tool\nIcon=pen\nExec=" + exec + "\n" + more);
    }
    void launch(const std::string &path, Strings arguments = {})
    {
        auto starter = launcher();
        await(loop, starter.launch(path, std::move(arguments)));
    }
    /// What the program wrote to "out", once it has finished it.
    Strings written()
    {
        EXPECT_TRUE(eventually([this] { return std::filesystem::exists(disk / "out.done"); })) << "the program did not run";
        return lines(disk.contents("out"));
    }
    /// A program that writes down something and then says so.
    std::string recorder(const std::string &command)
    {
        return disk.script("bin/record", "cd '" + disk.path + "' || exit 1\n" + command + " > out\n: > out.done");
    }
};

} // namespace

TEST_F(LauncherThreads, ALaunchedProgramGetsItsWordsAsTheyAre)
{
    recorder("for one in \"$@\"; do echo \"[$one]\"; done");
    launch(entry("record \"a b\" #c %i %c %U -z"), {"--new", "x  y", "$HOME", ""});
    EXPECT_EQ(written(), (Strings{"[a b]", "[#c]", "[--icon]", "[pen]", "[Tool]", "[--new]", "[x  y]", "[$HOME]", "[]", "[-z]"}));
}

TEST_F(LauncherThreads, ItsEnvironmentIsTheOneThisProgramWasStartedWith)
{
    recorder("env");
    ::setenv("KORVANE_ADDED_LATER", "1", 1);
    launch(entry("record"));
    auto seen = written();
    ::unsetenv("KORVANE_ADDED_LATER");
    std::erase_if(seen, [](const auto &line) {
        return line.starts_with("PWD=") || line.starts_with("_=") || line.starts_with("OLDPWD=") || line.starts_with("SHLVL=");
    });
    EXPECT_THAT(seen, testing::UnorderedElementsAreArray(environment)) << "but for what the shell itself adds";
}

TEST_F(LauncherThreads, AnActivationTokenIsPassedOnAndAnOldOneIsNot)
{
    environment.push_back("XDG_ACTIVATION_TOKEN=spent");
    environment.push_back("DESKTOP_STARTUP_ID=spent");
    disk.script("bin/record",
        "cd '" + disk.path + "'\nenv | grep -E 'XDG_ACTIVATION_TOKEN|DESKTOP_STARTUP_ID' | sort > out\n: > out.done");
    launch(entry("record"));
    EXPECT_EQ(written(), Strings{});
    std::filesystem::remove(disk / "out.done");
    token = "fresh_TIME7";
    launch(entry("record"));
    EXPECT_EQ(written(), (Strings{"DESKTOP_STARTUP_ID=fresh_TIME7", "XDG_ACTIVATION_TOKEN=fresh_TIME7"}));
}

TEST_F(LauncherThreads, NoDescriptorOfThisProgramReachesIt)
{
    // Two that are not marked to be closed, one of them with a high number.
    const int low = ::open("/etc/passwd", O_RDONLY);
    const int high = ::fcntl(low, F_DUPFD, 700);
    ASSERT_GE(high, 700);
    // A program that keeps nothing open itself, as a shell does; while it is loaded it has its libraries.
    const pid_t program = spawnDetachedProcess({{"sleep", "600"}, environment, {}});
    using Held = std::map<std::string, std::string>;
    const Held streams{{"0", "/dev/null"}, {"1", "/dev/null"}, {"2", "/dev/null"}};
    Held held;
    eventually([&] {
        held.clear();
        std::error_code gone;
        for (const auto &one : std::filesystem::directory_iterator("/proc/" + std::to_string(program) + "/fd"))
            held[one.path().filename()] = std::filesystem::read_symlink(one.path(), gone);
        return held == streams;
    });
    ::close(low);
    ::close(high);
    ::kill(program, SIGKILL);
    EXPECT_EQ(held, streams);
}

TEST_F(LauncherThreads, ItHasASessionOfItsOwnAndSignalsAsByDefault)
{
    struct sigaction ignore {
    }, before{};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &ignore, &before);
    // A signal that the C library keeps to itself may have come ignored from a parent.
    constexpr int internalSignal = 32, maskSize = 8;
    struct {
        std::uintptr_t handler = 1; // ignored
        std::array<std::uintptr_t, 7> rest{};
    } ignored;
    std::array<std::uintptr_t, 8> internalBefore{};
    ASSERT_EQ(::syscall(SYS_rt_sigaction, internalSignal, &ignored, internalBefore.data(), maskSize), 0);
    disk.script("bin/record",
        "cd '" + disk.path
            + "'\ncat /proc/$$/status | grep -E '^(SigIgn|SigBlk)' | awk '{print $2}' > out\n"
              "awk '{print $6}' /proc/$$/stat >> out\n: > out.done");
    launch(entry("record"));
    const auto seen = written();
    ::sigaction(SIGPIPE, &before, nullptr);
    ::syscall(SYS_rt_sigaction, internalSignal, internalBefore.data(), nullptr, maskSize);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0], "0000000000000000");
    EXPECT_EQ(seen[1], "0000000000000000");
    EXPECT_NE(seen[2], std::to_string(::getsid(0)));
}

TEST_F(LauncherThreads, ItStartsInItsFolderOrElseAtHome)
{
    disk.script("bin/record", "pwd > '" + disk / "out" + "'\n: > '" + disk / "out.done" + "'");
    launch(entry("record"));
    EXPECT_EQ(written(), Strings{disk.path});
    std::filesystem::remove(disk / "out.done");
    const auto folder = disk.folder("work");
    launch(entry("record", "Path=" + folder + "\n"));
    EXPECT_EQ(written(), Strings{folder});
    EXPECT_ANY_THROW(launch(entry("record", "Path=/no/such/folder\n")));
}

TEST_F(LauncherThreads, AFailedStartIsReported)
{
    EXPECT_ANY_THROW(launch(entry("no-such-program-anywhere"))) << "no program";
    EXPECT_ANY_THROW(launch(entry(disk.file("plain", "no program")))) << "not executable";
    EXPECT_ANY_THROW(launch(disk / "missing.desktop")) << "no entry";
    EXPECT_ANY_THROW(launch(disk.file("broken.desktop", "garbage"))) << "a broken entry";
    EXPECT_ANY_THROW(launch(entry("record \"open"))) << "a broken command line";
    const auto binary = disk.file("bin/bad", std::string("#!/no/such/interpreter\n"));
    std::filesystem::permissions(binary, std::filesystem::perms::owner_all);
    EXPECT_ANY_THROW(launch(entry("bad"))) << "found, but it cannot begin";
    disk.script("bin/record", "exit 0");
    EXPECT_ANY_THROW(launch(entry("record"), {std::string("a\0b", 3)})) << "an argument with a NUL";
    EXPECT_ANY_THROW(launch(entry("record"), {std::string(4 << 20, 'x')})) << "an argument beyond the system's limit";
}

TEST_F(LauncherThreads, AScriptWithoutAnInterpreterIsRunByTheShell)
{
    const auto script = disk.file("bin/record", "echo \"$1\" > '" + disk / "out" + "'\n: > '" + disk / "out.done" + "'\n");
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    launch(entry("record hello"));
    EXPECT_EQ(written(), Strings{"hello"});
}

TEST_F(LauncherThreads, ATerminalIsChosenByTheUserThenByTheSystem)
{
    const std::string write =
        "for one in \"$0\" \"$@\"; do echo \"$one\"; done > '" + disk / "out" + "'\n: > '" + disk / "out.done" + "'";
    disk.script("bin/record", "exit 0");
    environment[0] = "PATH=" + disk / "bin";
    EXPECT_ANY_THROW(launch(entry("record", "Terminal=true\n"))) << "without a terminal";
    disk.script("bin/xterm", write);
    launch(entry("record \"a b\"", "Terminal=true\n"));
    EXPECT_EQ(written(), (Strings{disk / "bin/xterm", "-e", "record", "a b"}));
    std::filesystem::remove(disk / "out.done");
    disk.script("bin/x-terminal-emulator", write);
    launch(entry("record", "Terminal=true\n"));
    EXPECT_EQ(written(), (Strings{disk / "bin/x-terminal-emulator", "-e", "record"}));
    std::filesystem::remove(disk / "out.done");
    environment.push_back("TERMINAL=gnome-terminal");
    disk.script("bin/gnome-terminal", write);
    launch(entry("record", "Terminal=true\n"));
    EXPECT_EQ(written(), (Strings{disk / "bin/gnome-terminal", "--", "record"}));
}

TEST_F(LauncherThreads, AnOwnActionRunsItsOwnCommand)
{
    recorder("for one in \"$@\"; do echo \"$one\"; done");
    const auto path = entry("record main", "Actions=new;\n[Desktop Action new]\nName=New\nExec=record action %c\n");
    auto starter = launcher();
    await(loop, starter.launchAction(path, "new"));
    EXPECT_EQ(written(), (Strings{"action", "New"}));
    EXPECT_ANY_THROW(await(loop, starter.launchAction(path, "other")));
}

TEST_F(LauncherThreads, AFileToOpenTakesItsPlace)
{
    recorder("for one in \"$@\"; do echo \"$one\"; done");
    auto starter = launcher();
    await(loop, starter.launchWithTarget(entry("record %u -a"), {"/a b", "file:///a%20b"}));
    EXPECT_EQ(written(), (Strings{"file:///a%20b", "-a"}));
}

TEST_F(LauncherThreads, WithoutABusAnApplicationThatTheBusStartsRunsItsCommand)
{
    recorder("echo started");
    const auto path = entry("record", "DBusActivatable=true\n");
    std::filesystem::rename(path, disk / "org.example.Tool.desktop");
    launch(disk / "org.example.Tool.desktop");
    EXPECT_EQ(written(), Strings{"started"});
    EXPECT_ANY_THROW(
        launch(disk.file("org.example.Other.desktop", "[Desktop Entry]\nType=Application\nName=O\nDBusActivatable=true\n")));
}

TEST_F(LauncherThreads, ALaunchedProgramLivesOnWhenItsLauncherIsKilled)
{
    disk.script("bin/record", "echo $$ > '" + disk / "out" + "'\n: > '" + disk / "out.done" + "'\nexec sleep 600");
    // The launcher is a process of its own, with nothing of this one's threads.
    const std::string program = disk / "bin/record";
    const ChildProcess::Options options{{program}, environment, disk.path};
    const pid_t starter = ::fork();
    if (starter == 0) {
        spawnDetachedProcess(options);
        for (;;)
            ::pause();
    }
    const auto seen = written();
    ASSERT_EQ(seen.size(), 1u);
    const pid_t launched = std::stoi(seen[0]);
    ::kill(starter, SIGKILL);
    ::waitpid(starter, nullptr, 0);
    EXPECT_EQ(::kill(launched, 0), 0) << "alive after its launcher";
    std::string status;
    EXPECT_TRUE(eventually([&] {
        std::ifstream in("/proc/" + seen[0] + "/comm");
        return std::getline(in, status) && status == "sleep";
    }));
    EXPECT_NE(::getsid(launched), ::getsid(0));
    ::kill(launched, SIGKILL);
}

TEST_F(LauncherThreads, SpawningReturnsTheProcessOfTheProgram)
{
    disk.script("bin/record", "echo $$ > '" + disk / "out" + "'\n: > '" + disk / "out.done" + "'");
    // A sanitizer may have a child of its own.
    const auto children = [] {
        std::ifstream in("/proc/self/task/" + std::to_string(::getpid()) + "/children");
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    const auto before = children();
    const pid_t program = spawnDetachedProcess({{"record"}, environment, {}});
    EXPECT_EQ(children(), before) << "no child is left to wait for";
    EXPECT_EQ(written(), Strings{std::to_string(program)});
    EXPECT_THROW(spawnDetachedProcess({{}, environment, {}}), std::system_error);
}

TEST(LauncherTest, ProgramsAreFoundInAbsoluteFoldersOnly)
{
    const DiskFolder disk;
    const auto tool = disk.script("bin/tool", "exit 0");
    disk.file("bin/data");
    disk.folder("bin/folder");
    EXPECT_EQ(findProgram("tool", "/none:" + disk / "bin"), tool);
    EXPECT_EQ(findProgram(tool, ""), tool);
    EXPECT_EQ(findProgram("data", disk / "bin"), std::nullopt);
    EXPECT_EQ(findProgram("folder", disk / "bin"), std::nullopt);
    EXPECT_EQ(findProgram("", disk / "bin"), std::nullopt);
    EXPECT_TRUE(findProgram("sh", "")) << "the usual folders without a path";
    const auto here = std::filesystem::current_path();
    std::filesystem::current_path(disk / "bin");
    EXPECT_EQ(findProgram("tool", ":.:bin"), std::nullopt);
    std::filesystem::current_path(here);
}

TEST(LauncherTest, TheNameOfAUnitKeepsToItsRules)
{
    EXPECT_EQ(applicationScopeName("org.gnome.Maps", "1A2B"), "app-korvane-org.gnome.Maps-1A2B.scope");
    EXPECT_EQ(applicationScopeName("a-b c/ü", "1"), "app-korvane-a\\x2db\\x20c\\x2f\\xc3\\xbc-1.scope");
    EXPECT_LT(applicationScopeName(std::string(5000, '-'), "12345678").size(), 256u);
}
