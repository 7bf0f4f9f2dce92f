// The clipboard of a real Wayland desktop, followed by wl-paste. Programs of the desktop copy with wl-copy; those that offer
// several forms, or do not answer, are clients of its X server, whose copies reach the desktop while a window of theirs is in
// front. Runs inside with-wayland.sh. Waits look again until a deadline.
#include "Support/ChildProcess.h"
#include "Support/MainLoop.h"
#include "Vorrel/Platform/Linux/LinuxPasteboard.h"
#include "Vorrel/Platform/Linux/LinuxPasteboardWatching.h"
#include "Vorrel/Platform/Linux/PasteboardForms.h"
#include "Vorrel/Store/ClipboardRepository.h"
#include "tests/desktop/ClipboardOwner.h"
#include "tests/support/Await.h"
#include "tests/support/Soon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <unistd.h>

namespace korvane::test {

using namespace std::chrono_literals;
using testing::Contains;
using Form = PasteboardWatching::Form;
using Standing = WaylandPasteboardWatching::Standing;
using Text = std::optional<std::string>;

namespace {

constexpr std::size_t limit = ClipboardRepository::largestContent;

int run(const std::string &command) { return std::system((command + " >/dev/null 2>&1").c_str()); }

/// The number of this process's child of this name, as text; empty without one.
std::string childNamed(const std::string &name)
{
    const std::string command = "pgrep -P " + std::to_string(::getpid()) + " -x " + name;
    const std::unique_ptr<FILE, int (*)(FILE *)> pipe(::popen(command.c_str(), "r"), &::pclose);
    char line[32] = "";
    return pipe && std::fgets(line, sizeof line, pipe.get()) ? line : "";
}

struct WaylandClipboard : testing::Test {
    WaylandClipboard() { EXPECT_TRUE(follows()); }
    ~WaylandClipboard() override { loop.shutDown(); }

    bool follows()
    {
        return soon(loop, [this] { return watching.standing() == Standing::following; });
    }
    bool changed()
    {
        const bool is = soon(loop, [this] { return watching.changeCount() > seen; });
        seen = watching.changeCount();
        return is;
    }
    void copied(const std::string &command)
    {
        ASSERT_EQ(run(command), 0);
        ASSERT_TRUE(changed());
    }
    /// Copies until the desktop tells of it: only what is copied in front comes that far, and the window gets there in its own
    /// time.
    bool reaches(ClipboardOwner &owner, const ClipboardOwner::Copy &what)
    {
        const auto before = watching.changeCount();
        const bool is = soon(loop, [&] {
            owner.copy(what);
            return soon(
                loop, [&] { return watching.changeCount() > before; }, 200ms);
        });
        seen = watching.changeCount();
        return is;
    }
    Text text() { return await(loop, watching.string(Form::text, limit)); }

    MainLoop loop;
    SystemClock clock;
    ThreadPool pool{3};
    WaylandPasteboardWatching watching{loop.executor(), pool.executor(), clock, environmentSnapshot()};
    std::int64_t seen = 0;
};

} // namespace

// The first one: once an X program has been in front, this desktop's X server is told for a while.
TEST_F(WaylandClipboard, AnXServerHereDoesNotSeeTheCopiesOfOthers)
{
    X11PasteboardWatching x11(loop.executor(), pool.executor(), clock, std::getenv("DISPLAY"), {});
    ASSERT_TRUE(soon(loop, [&] { return x11.following(); }));
    copied("printf one | wl-copy");
    EXPECT_FALSE(soon(
        loop, [&] { return x11.changeCount() > 0; }, 500ms))
        << "the reason for which wl-paste is asked first";
}

TEST_F(WaylandClipboard, EachCopyIsToldWithItsText)
{
    copied("printf 'one, 文字' | wl-copy");
    EXPECT_THAT(await(loop, watching.types()), Contains("UTF8_STRING"));
    EXPECT_EQ(text(), "one, 文字");
    copied("printf 'one, 文字' | wl-copy");
    copied("printf two | wl-copy");
    EXPECT_EQ(text(), "two");
    EXPECT_FALSE(watching.obstacle.get());
}

TEST_F(WaylandClipboard, ACopyOfAProgramWithoutAWindowIsTheDesktopsAndOutlivesIt)
{
    {
        ThreadPool ended{1};
        LinuxPasteboard pasteboard(ended.executor(), environmentSnapshot());
        EXPECT_TRUE(await(loop, pasteboard.setText("tide at noon, 文字")));
    }
    EXPECT_TRUE(changed());
    EXPECT_EQ(text(), "tide at noon, 文字");
    copied("printf other | wl-copy");
    EXPECT_EQ(text(), "other");
}

TEST_F(WaylandClipboard, WithoutAProgramThatCopiesTheXServerHasTheCopy)
{
    std::vector<std::string> variables = environmentSnapshot();
    std::erase_if(variables, [](const std::string &variable) { return variable.starts_with("PATH="); });
    variables.push_back("PATH=/nowhere");
    LinuxPasteboard pasteboard(pool.executor(), variables);
    EXPECT_TRUE(await(loop, pasteboard.setText("tide")));
    EXPECT_EQ(run("test \"$(timeout 5 xclip -selection clipboard -o)\" = tide"), 0);
}

TEST_F(WaylandClipboard, WhatIsThereAtTheStartIsNoChange)
{
    copied("printf before | wl-copy");
    WaylandPasteboardWatching second(loop.executor(), pool.executor(), clock, environmentSnapshot());
    ASSERT_TRUE(soon(loop, [&] { return second.standing() == Standing::following; }));
    EXPECT_FALSE(soon(
        loop, [&] { return second.changeCount() > 0; }, 300ms));
    copied("printf after | wl-copy");
    EXPECT_TRUE(soon(loop, [&] { return second.changeCount() == 1; }));
}

TEST_F(WaylandClipboard, AMillionBytesComeAndMoreDoesNot)
{
    copied("head -c 1000000 /dev/zero | tr '\\0' x | wl-copy");
    EXPECT_EQ(text(), std::string(limit, 'x'));
    copied("head -c 1000001 /dev/zero | tr '\\0' x | wl-copy");
    EXPECT_EQ(text(), std::nullopt);
    copied("head -c 50000000 /dev/zero | tr '\\0' x | wl-copy");
    EXPECT_EQ(text(), std::nullopt);
    copied("printf next | wl-copy");
    EXPECT_EQ(text(), "next");
}

TEST_F(WaylandClipboard, APictureIsNoText)
{
    copied("printf text | wl-copy");
    ASSERT_EQ(run("printf png | wl-copy --type image/png"), 0);
    EXPECT_EQ(text(), std::nullopt);
}

TEST_F(WaylandClipboard, WhatAnXProgramCopiesComesAndItsSecretDoesNot)
{
    const DesktopEntries entries({});
    LinuxPasteboardWatching both(loop.executor(), pool.executor(), clock, environmentSnapshot(), entries);
    const FrontWindow front;
    ClipboardOwner owner;
    ASSERT_TRUE(reaches(owner, {.forms = {{"UTF8_STRING", "plain"}}}));
    EXPECT_TRUE(soon(loop, [&] { return await(loop, both.string(Form::text, limit)) == "plain"; }));

    ASSERT_TRUE(reaches(owner, {.forms = {{"UTF8_STRING", "pass word"}, {pasteboardForms::hint, "secret"}}}));
    EXPECT_THAT(await(loop, both.types()), Contains(PasteboardWatching::concealedType)) << "which this desktop keeps to itself";
    EXPECT_EQ(await(loop, both.string(Form::text, limit)), std::nullopt);
}

TEST_F(WaylandClipboard, AMuteOwnerIsGivenUpWithinTwoSeconds)
{
    const FrontWindow front;
    ClipboardOwner owner;
    ASSERT_TRUE(reaches(owner, {.forms = {}, .mute = {"UTF8_STRING"}}));
    ASSERT_TRUE(soon(loop, [this] { return !await(loop, watching.types()).empty(); }));
    const double begin = clock.uptime();
    EXPECT_EQ(text(), std::nullopt);
    EXPECT_GT(clock.uptime() - begin, 1) << "it was asked";
    EXPECT_LT(clock.uptime() - begin, 2);
}

TEST_F(WaylandClipboard, AWatcherThatWasKilledIsStartedAgain)
{
    copied("printf one | wl-copy");
    ASSERT_FALSE(soon(
        loop, [] { return false; }, 1100ms)); // it has lasted, so that the desktop is not to blame
    const std::string id = childNamed("wl-paste");
    ASSERT_FALSE(id.empty());
    ASSERT_EQ(run("kill -9 " + id), 0);
    ASSERT_TRUE(soon(loop, [this] { return watching.standing() == Standing::beginning; }));
    ASSERT_TRUE(follows());
    EXPECT_FALSE(soon(
        loop, [this] { return watching.changeCount() > seen; }, 300ms))
        << "what is there was told before";
    copied("printf two | wl-copy");
    EXPECT_EQ(text(), "two");
}

TEST_F(WaylandClipboard, NoProgramIsLeftBehind)
{
    auto another = std::make_unique<WaylandPasteboardWatching>(loop.executor(), pool.executor(), clock, environmentSnapshot());
    ASSERT_TRUE(soon(loop, [&] { return another->standing() == Standing::following; }));
    const auto count = [] { return run("test $(pgrep -c -P " + std::to_string(::getpid()) + " -x wl-paste) = 1") == 0; };
    EXPECT_FALSE(count());
    another.reset();
    EXPECT_TRUE(soon(loop, count));
}

} // namespace korvane::test

int main(int argc, char **argv)
{
    if (std::system("command -v wl-copy && command -v wl-paste && command -v pgrep") != 0)
        return 77;
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
