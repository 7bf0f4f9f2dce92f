// The real program on a real desktop: started, typed into, killed. Runs inside with-desktop.sh, which gives it a
// display, a session bus and a home of its own. Every wait looks again until a deadline.

#include "tests/desktop/ClipboardOwner.h"
#include "tests/desktop/FakeKeyboard.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

namespace korvane::test {

namespace {

bool soon(const std::function<bool()> &truth, std::chrono::milliseconds limit = 8s)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!truth()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

std::string contentOf(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

/// One started program whose standard error goes to a file. Killed at the end if it still runs.
class Program {
public:
    explicit Program(const Strings &words, const Strings &without = {})
    {
        std::string pattern = fs::temp_directory_path() / "korvane-program-XXXXXX";
        log = pattern;
        const int descriptor = ::mkstemp(log.data());
        pid = ::fork();
        if (pid == 0) {
            ::dup2(descriptor, STDERR_FILENO);
            ::dup2(::open("/dev/null", O_RDWR), STDOUT_FILENO);
            for (const auto &name : without)
                ::unsetenv(name.c_str());
            std::vector<char *> pointers;
            for (const auto &word : words)
                pointers.push_back(const_cast<char *>(word.c_str()));
            pointers.push_back(nullptr);
            ::execvp(pointers[0], pointers.data());
            ::_exit(127);
        }
        ::close(descriptor);
    }
    ~Program()
    {
        if (!exitStatus()) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
        fs::remove(log);
    }
    Program(const Program &) = delete;

    void signal(int number) const { ::kill(pid, number); }
    /// As `waitpid` gives it, once the program has ended.
    std::optional<int> exitStatus()
    {
        if (!status) {
            int now = 0;
            if (::waitpid(pid, &now, WNOHANG) == pid)
                status = now;
        }
        return status;
    }
    std::string said() const { return contentOf(log); }
    bool says(const std::string &text) const { return said().find(text) != std::string::npos; }
    bool ready() const
    {
        return soon([this] { return says("Korvane is ready"); });
    }

    pid_t pid = -1;

private:
    std::string log;
    std::optional<int> status;
};

const std::string korvane = KORVANE_BINARIES "/korvane";

std::string output(const std::string &command)
{
    std::string text;
    if (FILE *pipe = ::popen((command + " 2>/dev/null").c_str(), "r")) {
        char bytes[4096];
        while (const std::size_t count = std::fread(bytes, 1, sizeof bytes, pipe))
            text.append(bytes, count);
        ::pclose(pipe);
    }
    return text;
}

/// Window of the program that is on the screen; empty without one.
std::string windowOf(const Program &program)
{
    std::string id = output("xdotool search --onlyvisible --pid " + std::to_string(program.pid));
    while (!id.empty() && id.back() == '\n')
        id.pop_back();
    return id.substr(id.rfind('\n') + 1);
}

std::string titleInFront()
{
    std::string title = output("xdotool getwindowfocus getwindowname");
    while (!title.empty() && title.back() == '\n')
        title.pop_back();
    return title;
}

bool appears(const Program &program)
{
    return soon([&] { return !windowOf(program).empty(); });
}

bool disappears(const Program &program)
{
    return soon([&] { return windowOf(program).empty(); });
}

bool takesKeyboard(const Program &program)
{
    return soon([&] { return output("xdotool getwindowfocus") == windowOf(program) + "\n"; });
}

bool aliveProcess(pid_t pid)
{
    const std::string stat = contentOf("/proc/" + std::to_string(pid) + "/stat");
    const auto bracket = stat.rfind(')');
    return bracket != std::string::npos && stat.size() > bracket + 2 && stat[bracket + 2] != 'Z';
}

/// An application that notes its process and its environment and then stays.
class ProbeApplication {
public:
    ProbeApplication()
    {
        folder = fs::path(::getenv("HOME")) / "probe";
        fs::create_directories(folder);
        fs::create_directories(entries());
        std::ofstream(folder / "probe.sh") << "#!/bin/sh\nenv -0 > " << (folder / "environment.part").string() << "\necho $$ > "
                                           << (folder / "pid.part").string() << "\nmv " << (folder / "environment.part").string()
                                           << " " << (folder / "environment").string() << "\nmv "
                                           << (folder / "pid.part").string() << " " << (folder / "pid").string()
                                           << "\nexec sleep 60\n";
        fs::permissions(folder / "probe.sh", fs::perms::owner_all);
    }
    ~ProbeApplication()
    {
        if (started())
            ::kill(pid(), SIGKILL);
        fs::remove(entries() / "zebraprobe.desktop");
        fs::remove_all(folder);
    }
    void install() const
    {
        std::ofstream(entries() / "zebraprobe.desktop")
            << "[Desktop Entry]\nType=Application\nName=Zebraprobe\nExec=" << (folder / "probe.sh").string() << "\n";
    }
    bool started() const { return fs::exists(folder / "pid"); }
    pid_t pid() const { return pid_t(std::stol(contentOf(folder / "pid"))); }
    Strings environment() const
    {
        Strings all;
        std::string text = contentOf(folder / "environment");
        for (std::size_t at = 0; at < text.size();) {
            const auto end = text.find('\0', at);
            all.push_back(text.substr(at, end - at));
            at = end == std::string::npos ? text.size() : end + 1;
        }
        return all;
    }

private:
    static fs::path entries() { return fs::path(::getenv("XDG_DATA_HOME")) / "applications"; }
    fs::path folder;
};

void type(const std::string &text) { output("xdotool type --delay 10 -- '" + text + "'"); }

void press(const std::string &key) { output("xdotool key " + key); }

/// The global key, as the program has it by default.
void pressGlobalKey(FakeKeyboard &keyboard) { keyboard.combine(FakeKeyboard::alt, FakeKeyboard::space); }

/// Another program's window, which has the keyboard.
class OtherWindow {
public:
    OtherWindow() : program({"xterm", "-e", "sleep", "100"}) { }
    bool hasKeyboard()
    {
        return soon([this] {
            if (window.empty())
                window = output("xdotool search --onlyvisible --class xterm");
            return !window.empty() && output("xdotool getwindowfocus") == window;
        });
    }

private:
    Program program;
    std::string window;
};

/// What is in the palette's field. What is selected there is in the server's primary selection.
std::string fieldOfPalette(FakeKeyboard &keyboard)
{
    keyboard.combine(FakeKeyboard::control, FakeKeyboard::keyFor('a'));
    return output("timeout 1 xclip -selection primary -o");
}

/// At the first start of all the palette comes by itself. What is tested here are the others.
class FormerStart : public testing::Environment {
    void SetUp() override
    {
        Program program({korvane});
        ASSERT_TRUE(program.ready());
        program.signal(SIGTERM);
        ASSERT_TRUE(soon([&] { return program.exitStatus().has_value(); }));
    }
};
const testing::Environment *const formerStart = testing::AddGlobalTestEnvironment(new FormerStart);

} // namespace

TEST(Program, OfTwentySimultaneousStartsExactlyOneStays)
{
    std::vector<std::unique_ptr<Program>> all;
    for (int i = 0; i < 20; ++i)
        all.push_back(std::make_unique<Program>(Strings{korvane}));
    const auto ended = [&] {
        return std::count_if(all.begin(), all.end(), [](auto &one) { return one->exitStatus().has_value(); });
    };
    ASSERT_TRUE(soon([&] { return ended() == 19; }, 20s));
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(ended(), 19);
    for (auto &one : all) {
        if (const auto status = one->exitStatus()) {
            EXPECT_EQ(*status, 0);
            EXPECT_TRUE(one->says("Another Korvane instance already holds the lock; asking it to come forward, then exiting"));
        } else {
            EXPECT_TRUE(one->ready());
        }
    }
}

TEST(Program, ASecondLaunchShowsThePaletteAndAThirdHidesIt)
{
    Program first({korvane});
    ASSERT_TRUE(first.ready());
    EXPECT_EQ(windowOf(first), "");
    for (const bool shows : {true, false, true}) {
        Program next({korvane, "--settings"});
        ASSERT_TRUE(soon([&] { return next.exitStatus().has_value(); }));
        EXPECT_EQ(next.exitStatus(), 0);
        EXPECT_TRUE(shows ? appears(first) : disappears(first));
    }
}

TEST(Program, EndsInOrderOnSigtermAndOnSigint)
{
    for (const int number : {SIGTERM, SIGINT}) {
        Program program({korvane, "--show"});
        ASSERT_TRUE(program.ready());
        ASSERT_TRUE(appears(program));
        program.signal(number);
        ASSERT_TRUE(soon([&] { return program.exitStatus().has_value(); }));
        EXPECT_EQ(program.exitStatus(), 0) << "left through its own door, not by the signal";
    }
}

TEST(Program, AKilledInstanceLeavesItsPlaceFree)
{
    {
        Program program({korvane});
        ASSERT_TRUE(program.ready());
        program.signal(SIGKILL);
        ASSERT_TRUE(soon([&] { return program.exitStatus().has_value(); }));
    }
    Program next({korvane});
    EXPECT_TRUE(next.ready());
}

TEST(Program, WithoutADisplayItSaysSoAndEnds)
{
    Program program({korvane}, {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"});
    ASSERT_TRUE(soon([&] { return program.exitStatus().has_value(); }));
    EXPECT_EQ(WEXITSTATUS(*program.exitStatus()), 1);
    EXPECT_TRUE(program.says("Korvane needs a display."));
}

TEST(Program, AnEntryInstalledWhileItRunsIsFoundTypedAndStartedAndOutlivesIt)
{
    const ProbeApplication probe;
    Program program({korvane, "--show"});
    ASSERT_TRUE(program.ready());
    ASSERT_TRUE(appears(program));
    ASSERT_TRUE(takesKeyboard(program));
    probe.install();
    std::this_thread::sleep_for(1s); // the promise: within a second
    type("zebrap");
    press("Return");
    ASSERT_TRUE(soon([&] { return probe.started(); }));
    EXPECT_TRUE(disappears(program));
    const auto environment = probe.environment();
    EXPECT_THAT(environment, testing::Contains(testing::StartsWith("DESKTOP_STARTUP_ID="))) << "to come to the front";
    for (const std::string &variable : environment) {
        const std::string name = variable.substr(0, variable.find('='));
        // The shell of the probe sets these by itself.
        if (name == "PWD" || name == "_" || name == "OLDPWD" || name == "SHLVL")
            continue;
        if (name == "DESKTOP_STARTUP_ID" || name == "XDG_ACTIVATION_TOKEN") {
            EXPECT_THAT(variable, testing::MatchesRegex(name + "=korvane-[0-9]+-1_TIME[0-9]+"));
            continue;
        }
        EXPECT_TRUE(::getenv(name.c_str())) << variable << " was not there when Korvane started";
    }
    program.signal(SIGKILL);
    ASSERT_TRUE(soon([&] { return program.exitStatus().has_value(); }));
    std::this_thread::sleep_for(300ms);
    EXPECT_TRUE(aliveProcess(probe.pid()));
}

TEST(Program, EscapeHidesAndTheNextShowingBeginsEmpty)
{
    Program program({korvane, "--show"});
    ASSERT_TRUE(program.ready());
    ASSERT_TRUE(appears(program));
    ASSERT_TRUE(takesKeyboard(program));
    type("zebrap");
    press("Escape");
    EXPECT_TRUE(disappears(program));
    Program again({korvane});
    ASSERT_TRUE(appears(program));
    ASSERT_TRUE(takesKeyboard(program));
    press("Escape");
    EXPECT_TRUE(disappears(program));
}

TEST(Program, AFileIsFoundWhetherItCameWhileTheProgramRanOrWhileItWasAway)
{
    const fs::path home = ::getenv("HOME");
    const auto finds = [](const std::string &text, const fs::path &path) {
        return soon(
            [&] { return output(std::string(KORVANE_BINARIES) + "/korvanectl files " + text) == path.string() + "\n"; }, 20s);
    };
    fs::create_directories(home / "Letters");
    std::ofstream(home / "Letters/zebraletter one.txt") << "Dear Zebra";
    {
        Program program({korvane});
        ASSERT_TRUE(program.ready());
        EXPECT_TRUE(finds("'zebraletter one'", home / "Letters/zebraletter one.txt")) << program.said();
        std::ofstream(home / "Letters/zebraletter two.txt") << "Yours, Giraffe";
        EXPECT_TRUE(finds("'zebraletter two'", home / "Letters/zebraletter two.txt")) << program.said();
        program.signal(SIGKILL);
        ASSERT_TRUE(soon([&] { return program.exitStatus().has_value(); }));
    }
    fs::rename(home / "Letters", home / "Old letters");
    Program program({korvane});
    ASSERT_TRUE(program.ready());
    EXPECT_TRUE(finds("'zebraletter one'", home / "Old letters/zebraletter one.txt")) << program.said();
    EXPECT_TRUE(finds("'zebraletter two'", home / "Old letters/zebraletter two.txt"));
    EXPECT_FALSE(program.says("File index scan started")) << "no scan was needed";
    EXPECT_EQ(output("(" + std::string(KORVANE_BINARIES) + "/korvanectl index rebuild 2>&1)"),
        "Korvane runs and keeps the index itself. Quit it first.\n");
}

TEST(Program, QuickLookShowsAFileOverThePaletteAndGivesTheKeyboardBack)
{
    const fs::path letter = fs::path(::getenv("HOME")) / "zebraquick.txt";
    std::ofstream(letter) << "Dear Zebra,\n\nthe tide comes at noon.\n";
    const Program program({korvane, "--show"});
    ASSERT_TRUE(program.ready());
    ASSERT_TRUE(appears(program));
    ASSERT_TRUE(takesKeyboard(program));
    const std::string palette = windowOf(program);
    const auto inFront = [] { return output("xdotool getwindowfocus"); };
    const auto shown = [&] { return soon([&] { return titleInFront() == letter.filename(); }); };
    ASSERT_TRUE(soon([&] { return output(KORVANE_BINARIES "/korvanectl files zebraquick") == letter.string() + "\n"; }, 20s));
    type("zebraquick");
    // The list follows the typing after a moment; until then the key finds nothing to show.
    ASSERT_TRUE(soon([&] {
        press("ctrl+y");
        return soon([&] { return titleInFront() == letter.filename(); }, 500ms);
    }));
    if (const char *picture = ::getenv("KORVANE_PICTURE"))
        output("sleep 0.3; import -window root " + std::string(picture));
    press("Escape");
    EXPECT_TRUE(soon([&] { return inFront() == palette + "\n"; })) << "the palette is there and has the keyboard";
    press("ctrl+y");
    EXPECT_TRUE(shown());
    press("ctrl+y");
    EXPECT_TRUE(soon([&] { return inFront() == palette + "\n"; }));
    fs::remove(letter);
    press("Escape");
    EXPECT_TRUE(disappears(program));
}

TEST(Program, TheFlagForTheIndexScansEveryRootAnew)
{
    Program program({korvane, "--rebuild-index"});
    ASSERT_TRUE(program.ready());
    EXPECT_TRUE(soon([&] { return program.says("File index scan completed"); }, 20s));
}

TEST(Program, ACopyMadeByTheCompanionStaysOfferedAfterItHasEnded)
{
    const std::string owner = KORVANE_BINARIES "/copy_probe";
    Program copy({owner, "kept text, 文字"});
    ASSERT_TRUE(soon([&] { return copy.exitStatus().has_value(); }));
    EXPECT_EQ(copy.exitStatus(), 0);
    EXPECT_EQ(output("timeout 3 xclip -selection clipboard -o"), "kept text, 文字");
    output("echo other | xclip -selection clipboard -i >/dev/null");
    EXPECT_EQ(output("timeout 3 xclip -selection clipboard -o"), "other\n");
}

TEST(Program, WhatKeepsACopyEndsWhenSomethingElseIsCopied)
{
    Program copy({KORVANE_BINARIES "/copy_probe", "kept"});
    ASSERT_TRUE(soon([&] { return copy.exitStatus().has_value(); }));
    const auto keepers = [] {
        return output(
            "for id in $(pgrep -x copy_probe); do tr '\\0' '\\n' </proc/$id/environ | grep -x \"DISPLAY=$DISPLAY\"; done");
    };
    EXPECT_NE(keepers(), "");
    output("echo other | xclip -selection clipboard -i >/dev/null");
    EXPECT_TRUE(soon([&] { return keepers().empty(); }));
}

TEST(Program, ACopyByTheCompanionWithoutADisplayIsToldToHaveFailed)
{
    Program copy({KORVANE_BINARIES "/korvanectl", "run", "file:/srv/tide.txt", "copyPath"}, {"DISPLAY", "WAYLAND_DISPLAY"});
    ASSERT_TRUE(soon([&] { return copy.exitStatus().has_value(); }));
    EXPECT_NE(copy.exitStatus(), 0);
    EXPECT_THAT(copy.said(), testing::HasSubstr("Could not update the clipboard."));
}

TEST(Program, WhereTheEndsOfChildrenAreIgnoredItAndTheCompanionHearOfThem)
{
    const fs::path folder = fs::path(std::getenv("XDG_CONFIG_HOME")) / "korvane" / "shortcuts";
    fs::create_directories(folder);
    std::ofstream(folder / "Water plants") << "#!/bin/sh\n";
    fs::permissions(folder / "Water plants", fs::perms::owner_all);
    EXPECT_EQ(output("(trap '' CHLD; exec " KORVANE_BINARIES "/korvanectl shortcuts list)"), "Water plants\n");

    const Program program({"/bin/sh", "-c", "trap '' CHLD; exec " + korvane});
    ASSERT_TRUE(program.ready());
    const std::string ignored = output("grep SigIgn /proc/" + std::to_string(program.pid) + "/status | cut -f 2");
    EXPECT_EQ(std::stoull(ignored, nullptr, 16) >> (SIGCHLD - 1) & 1, 0U);
}

TEST(Program, APathCopiedByTheCompanionIsThePathByteByByte)
{
    Program copy({KORVANE_BINARIES "/korvanectl", "run", "file:/srv/tide \xff.txt", "copyPath"});
    ASSERT_TRUE(soon([&] { return copy.exitStatus().has_value(); }));
    EXPECT_EQ(copy.exitStatus(), 0) << copy.said();
    EXPECT_EQ(output("timeout 3 xclip -selection clipboard -t UTF8_STRING -o"), "/srv/tide \xff.txt");
}

TEST(Program, WhatOtherProgramsCopyIsInTheHistoryAndSecretsAreNot)
{
    const Program program({korvane});
    ASSERT_TRUE(program.ready());
    const auto listed = [] { return output(std::string(KORVANE_BINARIES) + "/korvanectl clipboard list"); };
    const auto copy = [](const std::string &text, const std::string &form) {
        output("printf '" + text + "' | xclip -selection clipboard -t " + form + " -i >/dev/null");
    };
    copy("copied letter", "UTF8_STRING");
    EXPECT_TRUE(soon([&] { return listed().find("copied letter") != std::string::npos; })) << program.said();
    ClipboardOwner manager;
    manager.copy({.forms = {{"UTF8_STRING", "pass word"}, {"x-kde-passwordManagerHint", "secret"}}});
    ASSERT_TRUE(soon([&] { return manager.asked >= 2; })) << "a look asks for the forms and the mark";
    copy("second letter", "UTF8_STRING");
    EXPECT_TRUE(soon([&] { return listed().find("second letter") < listed().find("copied letter"); }));
    EXPECT_EQ(listed().find("pass word"), std::string::npos);
    EXPECT_EQ(manager.asked, 2) << "the text is not even asked for";
    EXPECT_FALSE(program.says("letter")) << "logs never hold it";
}

TEST(Program, TheGlobalKeyShowsThePaletteAndHidesItAndTheKeyboardIsWhereItWas)
{
    FakeKeyboard keyboard;
    OtherWindow other;
    ASSERT_TRUE(other.hasKeyboard());
    Program program({korvane});
    ASSERT_TRUE(program.ready());
    ASSERT_TRUE(program.says("Global shortcut registered")) << program.said();
    for (int round = 0; round < 3; ++round) {
        pressGlobalKey(keyboard);
        ASSERT_TRUE(appears(program)) << program.said();
        EXPECT_TRUE(takesKeyboard(program));
        pressGlobalKey(keyboard);
        EXPECT_TRUE(disappears(program));
        EXPECT_TRUE(other.hasKeyboard());
    }
}

TEST(Program, TwentyLettersTypedRightAfterTheGlobalKeyAreAllInTheField)
{
    FakeKeyboard keyboard;
    OtherWindow other;
    ASSERT_TRUE(other.hasKeyboard());
    Program program({korvane});
    ASSERT_TRUE(program.ready());
    std::string letters = "qwertyuiopasdfghjklz";
    for (int show = 0; show < 20; ++show) {
        std::rotate(letters.begin(), letters.begin() + 1, letters.end()); // what stood there before is another text
        pressGlobalKey(keyboard);
        keyboard.type(letters);
        ASSERT_TRUE(appears(program));
        EXPECT_TRUE(soon([&] { return fieldOfPalette(keyboard) == letters; }, 2s)) << "show " << show;
        pressGlobalKey(keyboard);
        ASSERT_TRUE(other.hasKeyboard());
        std::this_thread::sleep_for(100ms); // a person's pause, in which the window manager comes to rest
    }
}

TEST(Program, TheGlobalKeyPressedAgainAtOnceHidesThePaletteAndGivesTheKeyboardBack)
{
    FakeKeyboard keyboard;
    OtherWindow other;
    ASSERT_TRUE(other.hasKeyboard());
    Program program({korvane});
    ASSERT_TRUE(program.ready());
    pressGlobalKey(keyboard);
    pressGlobalKey(keyboard);
    EXPECT_TRUE(soon([&] { return program.says("Palette hidden"); }));
    EXPECT_TRUE(disappears(program));
    EXPECT_TRUE(other.hasKeyboard());
}

TEST(Program, AKeyThatAnotherProgramHasAtLaunchOpensTheSettings)
{
    FakeKeyboard rival;
    rival.takeAway(FakeKeyboard::space);
    Program program({korvane});
    ASSERT_TRUE(program.ready());
    EXPECT_TRUE(soon([] { return titleInFront() == "Korvane Settings"; }));
    EXPECT_FALSE(program.says("Global shortcut registered"));
}

TEST(Program, ThePaletteThatWasAskedForStandsBeforeSettingsThatOpenByThemselves)
{
    FakeKeyboard rival;
    rival.takeAway(FakeKeyboard::space);
    Program program({korvane, "--show"});
    ASSERT_TRUE(program.ready());
    ASSERT_TRUE(soon([] { return !output("xdotool search --onlyvisible --name '^Korvane Settings$'").empty(); }));
    std::this_thread::sleep_for(700ms); // longer than a fresh palette asks for the keyboard again
    EXPECT_TRUE(soon([] { return titleInFront() == "Korvane Vorrel"; }));
}

} // namespace korvane::test
