// "wl-paste" is a script here, over files that stand for what is copied; so a test decides what happens between two of its
// runs. The real one is tried on a real desktop.
#include "Support/MainLoop.h"
#include "Vorrel/Platform/Linux/LinuxPasteboardWatching.h"
#include "Vorrel/Platform/Linux/PasteboardForms.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"
#include "tests/support/Soon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using testing::Contains;
using Form = PasteboardWatching::Form;
using Standing = WaylandPasteboardWatching::Standing;
using Strings = std::vector<std::string>;
using Text = std::optional<std::string>;

namespace {

// $1 and so on are as the program is called: --list-types; --no-newline --type TYPE; --type text --watch echo.
constexpr const char *scriptedPaste = R"sh(
case "$*" in
*--watch*) exec 3<>changes; echo $$ >watcher; while read -r line <&3; do "$4"; done ;;
*--list-types*) [ -s types ] && cat types ;;
*) [ -x before ] && ./before "$3"; cat "content.$(echo "$3" | tr '/;=' '...')" ;;
esac)sh";

struct ScriptedWayland : testing::Test {
    ScriptedWayland()
    {
        disk.script("bin/wl-paste", "cd '" + disk.path + "'\n" + scriptedPaste);
        EXPECT_EQ(std::system(("mkfifo " + disk / "changes").c_str()), 0);
    }
    ~ScriptedWayland() override { loop.shutDown(); }

    void begin()
    {
        watching.emplace(loop.executor(), pool.executor(), clock, environment());
        ASSERT_TRUE(
            soon(loop, [this] { return !disk.contents("watcher").empty() && watching->standing() == Standing::following; }));
    }
    Strings environment() const { return {"PATH=" + disk / "bin" + ":/usr/bin:/bin", "WAYLAND_DISPLAY=scripted"}; }
    void offer(const std::string &types, const std::string &text)
    {
        disk.file("types", types);
        disk.file("content.UTF8_STRING", text);
    }
    /// Without a reader this would wait for good.
    void tellOnce() const { ASSERT_EQ(std::system(("timeout 5 sh -c 'echo >" + disk / "changes" + "'").c_str()), 0); }
    void tell()
    {
        const auto before = watching->changeCount();
        tellOnce();
        ASSERT_TRUE(soon(loop, [&] { return watching->changeCount() == before + 1; }));
    }
    void copied(const std::string &types, const std::string &text)
    {
        offer(types, text);
        tell();
    }
    Text text(std::size_t limit = 1000) { return await(loop, watching->string(Form::text, limit)); }

    DiskFolder disk;
    MainLoop loop;
    SystemClock clock;
    ThreadPool pool{3};
    std::optional<WaylandPasteboardWatching> watching;
};

} // namespace

TEST_F(ScriptedWayland, ACopyIsToldAndItsTextIsRead)
{
    begin();
    EXPECT_EQ(watching->standing(), Standing::following);
    copied("image/png\nUTF8_STRING\n", "hello");
    EXPECT_THAT(await(loop, watching->types()), testing::ElementsAre("image/png", "UTF8_STRING"));
    EXPECT_EQ(text(), "hello");
    EXPECT_EQ(text(4), std::nullopt) << "longer than the limit";
}

TEST_F(ScriptedWayland, WhatIsThereAtTheStartIsToldOnceMoreAndIsNoChange)
{
    offer("text/plain\n", "");
    begin();
    tellOnce();
    EXPECT_FALSE(soon(
        loop, [this] { return watching->changeCount() > 0; }, 200ms));
    copied("UTF8_STRING\n", "hello");
    EXPECT_EQ(text(), "hello");
}

TEST_F(ScriptedWayland, APictureThatIsThereAtTheStartIsNotToldAgain)
{
    offer("image/png\n", "");
    begin();
    copied("UTF8_STRING\n", "hello");
    EXPECT_EQ(text(), "hello");
}

TEST_F(ScriptedWayland, ASecretIsConcealedAndItsTextIsNotAskedFor)
{
    begin();
    disk.script("before", "echo $1 >>asked");
    disk.file("content." + std::string(pasteboardForms::hint), "secret");
    copied("UTF8_STRING\nx-kde-passwordManagerHint\n", "pass word");
    EXPECT_THAT(await(loop, watching->types()), Contains(PasteboardWatching::concealedType));
    EXPECT_EQ(text(), std::nullopt);
    EXPECT_EQ(disk.contents("asked"), "x-kde-passwordManagerHint\n");

    disk.file("content." + std::string(pasteboardForms::hint), "public");
    copied("UTF8_STRING\nx-kde-passwordManagerHint\n", "plain");
    EXPECT_EQ(text(), "plain");
}

TEST_F(ScriptedWayland, ASecretThatComesBetweenTwoQuestionsIsNotTakenThoughNobodyToldOfIt)
{
    begin();
    disk.file("content." + std::string(pasteboardForms::hint), "secret");
    disk.script(
        "before", "[ $1 = UTF8_STRING ] && { echo x-kde-passwordManagerHint >>types; printf 'pass word' >content.UTF8_STRING; }");
    copied("UTF8_STRING\n", "plain");
    EXPECT_EQ(text(), std::nullopt);
    EXPECT_EQ(disk.contents("content.UTF8_STRING"), "pass word") << "it was asked for";
}

TEST_F(ScriptedWayland, AChangeThatIsToldRightAfterTheAnswerTakesItBack)
{
    begin();
    disk.script("before", "setsid sh -c 'sleep 0.05; echo >changes' >/dev/null 2>&1 &");
    copied("UTF8_STRING\n", "replaced");
    const auto change = watching->changeCount();
    EXPECT_EQ(text(), std::nullopt);
    EXPECT_EQ(watching->changeCount(), change + 1);
}

TEST_F(ScriptedWayland, WhereNothingCanBeFollowedTheReasonIsTold)
{
    const DesktopEntries entries({});
    const char *const missing = "Not every copy is kept: install the package wl-clipboard and start Korvane again.";
    const char *const refused = "New copies are not kept: this desktop does not let programs follow the clipboard.";
    const char *const silent = "New copies are not kept: this display does not report them.";
    const struct {
        const char *why;
        Strings environment;
        const char *obstacle;
    } cases[] = {
        {"no program", {"PATH=/nowhere", "WAYLAND_DISPLAY=x"}, missing},
        {"no program, and an X server that may do", {"PATH=/nowhere", "WAYLAND_DISPLAY=x", "DISPLAY=:12345"}, missing},
        {"refused", {"PATH=" + disk / "refused" + ":/bin", "WAYLAND_DISPLAY=x"}, refused},
        {"refused, and the X server is not there", {"PATH=" + disk / "refused" + ":/bin", "WAYLAND_DISPLAY=x", "DISPLAY=:12345"},
            silent},
        {"left to the X server, which is not there", {"XDG_CURRENT_DESKTOP=ubuntu:GNOME", "WAYLAND_DISPLAY=x", "DISPLAY=:12345"},
            silent},
        {"no Wayland and no display", {}, silent},
    };
    disk.script("refused/wl-paste", "exit 1");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        LinuxPasteboardWatching followed(loop.executor(), pool.executor(), clock, c.environment, entries);
        EXPECT_TRUE(soon(loop, [&] { return followed.obstacle.get() == c.obstacle; }))
            << followed.obstacle.get().value_or("(none)");
        EXPECT_EQ(followed.changeCount(), 0);
    }
}
