#include "Vorrel/Platform/Linux/LinuxServerLaunching.h"
#include "Support/MainLoop.h"
#include "tests/Vorrel/Store/ReportingProcess.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"
#include "tests/support/MarkedProcesses.h"
#include "tests/support/Soon.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <system_error>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;

namespace {

using Strings = std::vector<std::string>;

constexpr const char *host = KORVANE_BINARIES "/korvane-mcp-host";

/// Real servers, started as the program starts them.
struct Servers : testing::Test {
    Servers()
    {
        // Another thread may have taken the signal away before; a server must not need that.
        std::signal(SIGPIPE, SIG_DFL);
    }
    ~Servers() override
    {
        EXPECT_TRUE(soon(loop, [this] { return marked.alive().empty(); })) << "nothing outlives a test";
        loop.shutDown();
    }

    ServerLaunching::Program shell(const std::string &script) const
    {
        return {.path = "/bin/sh", .arguments = {"-c", script}, .environment = {"PATH=/usr/bin:/bin", marked.variable()}};
    }
    std::shared_ptr<ServerProcess> launch(ServerLaunching::Program program)
    {
        return await(loop, launching.launch(std::make_shared<const ServerLaunching::Program>(std::move(program))));
    }
    std::shared_ptr<ServerProcess> launch(const std::string &script) { return launch(shell(script)); }

    /// What it has printed when that is at least as long as `size`, or it has ended.
    std::string output(ServerProcess &server, std::size_t size)
    {
        std::string all;
        for (std::string piece = await(loop, server.read()); !piece.empty(); piece = await(loop, server.read()))
            if ((all += piece).size() >= size)
                break;
        return all;
    }
    std::string line(ServerProcess &server)
    {
        std::string all;
        do
            all += output(server, 1);
        while (!all.empty() && !all.ends_with('\n'));
        return all.substr(0, all.find('\n'));
    }
    bool endsSoon(const ServerProcess &server)
    {
        return soon(loop, [&] { return !server.isRunning(); }) && marked.alive().empty();
    }
    int errorOf(const ServerLaunching::Program &program)
    {
        try {
            launch(program);
        } catch (const std::system_error &error) {
            return error.code().value();
        }
        return 0;
    }
    std::function<void()> noFailure = [] { ADD_FAILURE() << "it could be written"; };

    MarkedProcesses marked;
    DiskFolder disk;
    MainLoop loop;
    LinuxServerLaunching launching{host};
};

using LinuxServersThreads = Servers;
using LinuxServers = Servers;

} // namespace

TEST_F(LinuxServersThreads, WhatIsWrittenArrivesInOrderAndWhatIsPrintedComesBack)
{
    const auto server = launch("exec cat");
    EXPECT_TRUE(server->isRunning());
    std::string all;
    for (int i = 0; i < 1000; ++i) {
        const std::string piece = std::to_string(i) + "\n";
        server->write(piece, noFailure);
        all += piece;
    }
    EXPECT_EQ(output(*server, all.size()), all);
    EXPECT_EQ(server->unwritten(), 0u);
    server->closeInput();
    EXPECT_EQ(await(loop, server->read()), "") << "the end of its output";
    EXPECT_EQ(await(loop, server->read()), "") << "and for good";
    EXPECT_TRUE(endsSoon(*server));
}

TEST_F(LinuxServersThreads, MoreThanAPipeHoldsIsWrittenWhileTheServerReads)
{
    const auto server = launch("exec cat");
    const std::string big(3'000'000, 'x');
    server->write(big, noFailure);
    server->write("end\n", noFailure);
    server->closeInput();
    EXPECT_EQ(output(*server, big.size() + 4), big + "end\n");
    EXPECT_TRUE(endsSoon(*server));
}

TEST_F(LinuxServersThreads, AServerThatNeverReadsHoldsUpNobody)
{
    const auto deaf = launch("exec sleep 1000"), other = launch("exec cat");
    std::atomic<int> failures = 0;
    const double before = SystemClock().uptime();
    for (int i = 0; i < 8; ++i)
        deaf->write(std::string(1'000'000, 'x'), [&] { ++failures; });
    deaf->closeInput();
    EXPECT_LT(SystemClock().uptime() - before, 1.0);
    EXPECT_GT(deaf->unwritten(), 7'000'000u);
    other->write("still here\n", noFailure);
    EXPECT_EQ(line(*other), "still here");
    EXPECT_EQ(failures, 0);
    deaf->kill();
    EXPECT_EQ(await(loop, deaf->read()), "");
    EXPECT_TRUE(soon(loop, [&] { return failures == 8; })) << "each is told that it was not written";
    EXPECT_EQ(deaf->unwritten(), 0u);
    EXPECT_TRUE(soon(loop, [&] { return !deaf->isRunning(); }));
    other->kill();
    EXPECT_TRUE(endsSoon(*other));
}

TEST_F(LinuxServersThreads, WhenAServerWasKilledNothingIsHeldOfThoseWhoWaited)
{
    for (int i = 0; i < 20; ++i) {
        const auto deaf = launch("exec sleep 1000");
        const auto caller = std::make_shared<std::atomic<int>>(0);
        for (int part = 0; part < 3; ++part)
            deaf->write(std::string(100'000, 'x'), [caller] { ++*caller; });
        Begun<std::string> reading(loop, deaf->read());
        loop.runUntilIdle();
        deaf->kill();
        EXPECT_EQ(*caller, 3);
        EXPECT_EQ(caller.use_count(), 1) << "nor later by a thread that ends when it likes";
        loop.runUntilIdle();
        EXPECT_TRUE(reading.done());
    }
}

TEST_F(LinuxServersThreads, AServerThatFloodsWaitsUntilItIsRead)
{
    const auto server = launch("yes | head -c 50000000; echo done >" + disk.path + "/done; exec sleep 1000");
    EXPECT_NE(output(*server, 1), "");
    EXPECT_FALSE(soon(
        loop, [this] { return disk.contents("done") != ""; }, 300ms))
        << "nothing is kept beyond the pipe";
    EXPECT_GE(output(*server, 40'000'000).size(), 40'000'000u);
    server->kill();
    EXPECT_TRUE(endsSoon(*server));
}

TEST_F(LinuxServersThreads, AWriteToADeadServerIsAFailureAndNoSignal)
{
    const auto server = launch("exit 3");
    EXPECT_TRUE(endsSoon(*server));
    std::atomic<int> failures = 0;
    server->write("anybody?\n", [&] { ++failures; });
    EXPECT_TRUE(soon(loop, [&] { return failures == 1; }));
    server->write("anybody?\n", [&] { ++failures; });
    EXPECT_TRUE(soon(loop, [&] { return failures == 2; }));
    EXPECT_EQ(await(loop, server->read()), "");
    sigset_t pending;
    ::sigpending(&pending);
    EXPECT_FALSE(::sigismember(&pending, SIGPIPE));
}

TEST_F(LinuxServersThreads, AServerThatClosesItsOutputMayLiveOn)
{
    const auto server = launch("exec >&-; exec sleep 1000");
    EXPECT_EQ(await(loop, server->read()), "");
    EXPECT_TRUE(server->isRunning());
    server->terminate();
    EXPECT_TRUE(endsSoon(*server));
}

TEST_F(LinuxServersThreads, AReadThatIsCancelledLosesNothing)
{
    const auto server = launch("exec cat");
    Begun<std::string> waiting(loop, server->read());
    loop.runUntilIdle();
    waiting.cancel();
    EXPECT_THROW(waiting.result(), Cancelled);
    server->write("line\n", noFailure);
    EXPECT_EQ(line(*server), "line");
    server->kill();
    EXPECT_TRUE(endsSoon(*server));
}

TEST_F(LinuxServersThreads, DestructionEndsAWaitingReadAndTheServer)
{
    auto server = launch("trap '' TERM; cat >/dev/null; exec sleep 1000");
    Begun<std::string> waiting(loop, server->read());
    loop.runUntilIdle();
    server.reset();
    EXPECT_EQ(waiting.result(), "");
    EXPECT_TRUE(soon(loop, [&] { return marked.alive().empty(); }));
}

TEST_F(LinuxServersThreads, ItGetsExactlyTheEnvironmentAndTheStreamsThatItIsGiven)
{
    const int leaked = ::open("/dev/null", O_RDONLY); // as a careless library would leave it
    ::setenv("KORVANE_TEST_SECRET", "not for servers", 1);
    const auto before = launch("exec sleep 1000");
    const auto printed = [&](const std::string &path, Strings arguments) {
        const auto server = launch({path, std::move(arguments), {"B=2", "A=1=1", marked.variable()}});
        return output(*server, std::size_t(-1));
    };
    EXPECT_EQ(printed("/usr/bin/env", {}), "B=2\nA=1=1\n" + marked.variable() + "\n");
    EXPECT_EQ(printed("/bin/echo", {"a b", "", "$HOME"}), "a b  $HOME\n");
    // What follows the three streams are folders that the program has opened itself.
    EXPECT_THAT(printed("/usr/bin/find", {"/proc/self/fd", "-type", "l", "-printf", "%f %l\\n"}),
        testing::MatchesRegex("0 pipe:[^\n]*\n1 pipe:[^\n]*\n2 /dev/null\n(3 /[^\n]*\n)?(4 /proc/[^\n]*\n)?(5 /proc/[^\n]*\n)?"));
    EXPECT_EQ(printed("/bin/grep", {"-E", "Sig(Blk|Ign)", "/proc/self/status"}),
        "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
    EXPECT_EQ(printed("/bin/pwd", {}), std::filesystem::current_path().string() + "\n") << "the folder stays the program's";
    ::close(leaked);
    before->kill();
    EXPECT_TRUE(endsSoon(*before));
}

TEST_F(LinuxServersThreads, AProgramThatCannotBeStartedIsTheSystemsError)
{
    disk.file("plain", "text");
    disk.file("noInterpreter", "#!/no/such/interpreter\n");
    disk.file("nothingKnown", "neither a script nor a program\n");
    for (const char *name : {"noInterpreter", "nothingKnown"})
        std::filesystem::permissions(disk.path + "/" + name, std::filesystem::perms::owner_all);
    const auto before = openDescriptors();
    EXPECT_EQ(errorOf({"/no/such/program", {}, {}}), ENOENT);
    EXPECT_EQ(errorOf({disk.path + "/plain", {}, {}}), EACCES);
    EXPECT_EQ(errorOf({disk.path, {}, {}}), EACCES);
    EXPECT_EQ(errorOf({disk.path + "/noInterpreter", {}, {}}), ENOENT);
    EXPECT_EQ(errorOf({disk.path + "/nothingKnown", {}, {}}), ENOEXEC);
    EXPECT_EQ(errorOf({"/bin/true", {std::string(3'000'000, 'x')}, {}}), E2BIG);
    EXPECT_EQ(errorOf({"/bin/true", {std::string("a\0b", 3)}, {}}), EINVAL);
    LinuxServerLaunching nowhere("/no/such/host");
    EXPECT_THROW(await(loop, nowhere.launch(std::make_shared<const ServerLaunching::Program>(shell("true")))), std::system_error);
    EXPECT_EQ(openDescriptors(), before);

    const auto isExecutable = [this](const std::string &path) { return await(loop, launching.isExecutable(path)); };
    EXPECT_TRUE(isExecutable("/bin/sh"));
    EXPECT_FALSE(isExecutable("sh")) << "no absolute path";
    EXPECT_FALSE(isExecutable(disk.path + "/plain"));
    EXPECT_FALSE(isExecutable(disk.path)) << "a folder";
    EXPECT_FALSE(isExecutable("/no/such/program"));
}

TEST_F(LinuxServersThreads, TerminateAsksEverythingWhereverItWent)
{
    const std::string note = "trap 'echo $0 >>" + disk.path + "/asked; exit' TERM; while :; do sleep 0.01; done";
    // A wrapper that stays, a child, one in a session of its own, and one whose parents have gone.
    disk.file("note", note);
    const std::string start = "sh " + disk.path + "/note";
    const auto server = launch("sh -c 'exec -a x true' 2>/dev/null; cp " + disk.path + "/note " + disk.path + "/b; cp "
        + disk.path + "/note " + disk.path + "/c; " + start + " & setsid sh " + disk.path + "/b & (setsid sh -c 'sh " + disk.path
        + "/c & exit' &); sleep 0.3; echo ready; wait");
    EXPECT_EQ(line(*server), "ready");
    EXPECT_GE(marked.alive().size(), 4u);
    server->terminate();
    EXPECT_TRUE(endsSoon(*server));
    const std::string asked = disk.contents("asked");
    for (const char *name : {"/note\n", "/b\n", "/c\n"})
        EXPECT_THAT(asked, testing::HasSubstr(disk.path + name));
}

TEST_F(LinuxServersThreads, RunningMeansAnyOfIt)
{
    const auto server = launch("(setsid sleep 1000 >/dev/null </dev/null &); echo $$");
    const pid_t shell = pid_t(std::stoi(line(*server)));
    EXPECT_TRUE(soon(loop, [&] { return !isAlive(shell); }));
    EXPECT_EQ(await(loop, server->read()), "") << "its output has ended";
    EXPECT_TRUE(server->isRunning()) << "what it left behind runs";
    EXPECT_TRUE(soon(loop, [this] { return marked.alive().size() == 1; }));
    server->kill();
    EXPECT_TRUE(endsSoon(*server));
}

TEST_F(LinuxServersThreads, AServerThatIgnoresEverythingIsKilledWithItsChildren)
{
    const auto server = launch("trap '' TERM HUP INT; (trap '' TERM; while :; do sleep 1; done) & setsid sh -c "
                               "\"trap '' TERM; while :; do sleep 1; done\" & echo ready; while :; do sleep 1; done");
    EXPECT_EQ(line(*server), "ready");
    server->closeInput();
    server->terminate();
    EXPECT_TRUE(server->isRunning());
    server->kill();
    EXPECT_TRUE(endsSoon(*server));
}

TEST_F(LinuxServersThreads, AStoppedServerIsWokenToEndAndKilledAllTheSame)
{
    const auto asked = launch("kill -STOP $$; exec sleep 1000"), killed = launch("kill -STOP $$; exec sleep 1000");
    EXPECT_TRUE(soon(loop, [&] { return marked.alive().size() == 2; }));
    asked->terminate();
    EXPECT_TRUE(soon(loop, [&] { return !asked->isRunning(); }));
    killed->kill();
    EXPECT_TRUE(endsSoon(*killed));
}

TEST_F(LinuxServersThreads, AChainThatForksWithoutEndIsCaught)
{
    // Each link starts the next one and goes, ignoring what it is asked: there is always one, never for long.
    disk.file("link", "trap '' TERM\n[ $1 = 0 ] && exit\nsetsid sh $0 $(($1 - 1)) &\n");
    const auto server = launch("sh " + disk.path + "/link 100000 & echo ready; exec cat >/dev/null");
    EXPECT_EQ(line(*server), "ready");
    server->kill();
    EXPECT_TRUE(endsSoon(*server));
}

TEST_F(LinuxServersThreads, AServerThatWasKilledIsNoticedByTheEndOfItsOutput)
{
    const auto server = launch("echo $$; exec sleep 1000");
    const pid_t id = pid_t(std::stoi(line(*server)));
    ::kill(id, SIGKILL);
    EXPECT_EQ(await(loop, server->read()), "");
    EXPECT_TRUE(endsSoon(*server));
}

TEST_F(LinuxServersThreads, AServerCannotEndItsHostByAccident)
{
    const auto server = launch("trap '' TERM; kill -TERM 0; echo $$ $PPID $(ps -o sid= -p $$); exec cat");
    int id = 0, hostId = 0, session = 0;
    ASSERT_EQ(std::sscanf(line(*server).c_str(), "%d %d %d", &id, &hostId, &session), 3);
    EXPECT_EQ(session, id) << "a session of its own, which no signal to the group leaves";
    EXPECT_TRUE(isAlive(hostId));
    ::kill(hostId, SIGTERM); // as a system that goes down does
    EXPECT_TRUE(endsSoon(*server));
    EXPECT_TRUE(soon(loop, [&] { return !isAlive(hostId); }));
}

TEST_F(LinuxServersThreads, SeveralServersDoNotHoldEachOthersEnds)
{
    std::vector<std::shared_ptr<ServerProcess>> servers;
    for (int i = 0; i < 5; ++i)
        servers.push_back(launch("exec cat"));
    for (const auto &server : servers) {
        server->closeInput(); // another one that held it would keep this one waiting
        EXPECT_EQ(await(loop, server->read()), "");
        EXPECT_TRUE(soon(loop, [&] { return !server->isRunning(); }));
    }
}

TEST_F(LinuxServersThreads, SeveralServersMayBeStartedAtOnce)
{
    std::vector<Begun<std::shared_ptr<ServerProcess>>> starting;
    for (int i = 0; i < 16; ++i)
        starting.emplace_back(loop, launching.launch(std::make_shared<const ServerLaunching::Program>(shell("exec cat"))));
    for (auto &one : starting) {
        const auto server = one.result();
        server->closeInput();
        EXPECT_TRUE(soon(loop, [&] { return !server->isRunning(); }));
    }
}

TEST_F(LinuxServersThreads, AServerThatBeginsWhenNobodyWaitsForItAnyMoreIsEnded)
{
    // A host that does not answer at first, like one whose server hangs on a file system that does not.
    const std::string waiting = "touch \"$0.begun\"; while [ ! -e \"$0.go\" ]; do sleep 0.01; done; exec ";
    std::optional<LinuxServerLaunching> slow(disk.script("host", waiting + host));
    const auto program = std::make_shared<const ServerLaunching::Program>(shell("exec sleep 1000"));
    Begun<std::shared_ptr<ServerProcess>> starting(loop, slow->launch(program));
    EXPECT_TRUE(soon(loop, [this] { return std::filesystem::exists(disk.path + "/host.begun"); }));
    starting.cancel();
    EXPECT_THROW(starting.result(), Cancelled);
    slow.reset();
    EXPECT_GT(program.use_count(), 1) << "the launch goes on";
    disk.file("host.go", "");
    EXPECT_TRUE(soon(loop, [&] { return program.use_count() == 1 && marked.alive().empty(); }));
}

TEST_F(LinuxServersThreads, FiftyServersLeaveNeitherProcessesNorDescriptors)
{
    EXPECT_FALSE(soon(
        loop, [] { return false; }, 1ms)); // what waiting itself opens is open from here on
    const auto before = openDescriptors();
    for (int i = 0; i < 50; ++i) {
        const auto server = launch(i % 2 ? "exec cat" : "sleep 1000 & echo line; wait");
        server->write("line\n", noFailure);
        EXPECT_EQ(line(*server), "line");
        if (i % 3 == 0)
            server->kill();
    }
    EXPECT_TRUE(soon(loop, [&] { return marked.alive().empty() && openDescriptors() <= before; })) << openDescriptors() - before;
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "no child waits for this process";
}

TEST_F(LinuxServers, EndWithAllThatTheyStartedWhenTheProgramIsKilled)
{
    double killed = 0;
    {
        ReportingProcess program([this](int reports) {
            const auto server = launch("trap '' TERM; (setsid sh -c \"trap '' TERM; while :; do sleep 1; done\" &); echo ready; "
                                       "while :; do sleep 1; done");
            const int ready = line(*server) == "ready";
            [[maybe_unused]] const auto told = ::write(reports, &ready, sizeof ready);
            ::pause();
        });
        EXPECT_EQ(program.next(10s), 1);
        EXPECT_GE(marked.alive().size(), 2u);
        EXPECT_TRUE(program.kill());
        killed = SystemClock().uptime();
    }
    EXPECT_TRUE(soon(loop, [this] { return marked.alive().empty(); }));
    EXPECT_GE(SystemClock().uptime() - killed, 0.25) << "they were asked before";
    EXPECT_LT(SystemClock().uptime() - killed, 3.0);
}
