#include "Vorrel/Platform/Linux/ExecLine.h"

#include <gtest/gtest.h>

using namespace korvane;
using Strings = std::vector<std::string>;

namespace {

const ExecLine::Target report{"/home/ada/a report.pdf", "file:///home/ada/a%20report.pdf"};
const ExecLine::Target website{"", "https://example.org/?a=b&c"};

/// The words; nothing for a value that must not be processed.
std::optional<Strings> words(std::string_view exec, ExecLine::Input input = {})
{
    const auto line = ExecLine::parse(exec);
    return line ? std::optional(line->words(input)) : std::nullopt;
}

} // namespace

TEST(ExecLineTest, UndoesQuotingByTheRules)
{
    const struct {
        const char *why;
        std::string exec;
        std::optional<Strings> words;
    } cases[] = {
        {"a program alone", "xterm", Strings{"xterm"}},
        {"arguments are separated by blanks, however many", " prog  -a   b ", Strings{"prog", "-a", "b"}},
        {"quotes keep blanks", R"(prog "a b" c)", Strings{"prog", "a b", "c"}},
        {"the program itself may be quoted", R"("/opt/My App/run" x)", Strings{"/opt/My App/run", "x"}},
        {"an empty pair of quotes is an argument", R"(prog "" x)", Strings{"prog", "", "x"}},
        {"the four escapes in quotes", R"(prog "\"\`\$\\")", Strings{"prog", "\"`$\\"}},
        {"another backslash in quotes stands for itself", R"(prog "a\nb")", Strings{"prog", R"(a\nb)"}},
        {"variables and patterns are nobody's business without a shell", "prog $HOME ~ *.txt",
            Strings{"prog", "$HOME", "~", "*.txt"}},
        {"a number sign begins no comment", "prog #a b", Strings{"prog", "#a", "b"}},
        {"shell operators are plain words", "prog a && b | c > d", Strings{"prog", "a", "&&", "b", "|", "c", ">", "d"}},
        {"single quotes quote, as other desktops have it", R"(sh -c 'a "b" $c')", Strings{"sh", "-c", R"(a "b" $c)"}},
        {"a backslash outside quotes escapes, as other desktops have it", R"(prog a\ b)", Strings{"prog", "a b"}},
        {"a quote may begin inside a word", R"(prog --name="a b"c)", Strings{"prog", "--name=a bc"}},
        {"tabs and line feeds separate too", "prog\ta\nb", Strings{"prog", "a", "b"}},
        {"text beyond ASCII passes through", "prog “ü” \xff", Strings{"prog", "“ü”", "\xff"}},
        {"nothing is no command line", "", std::nullopt},
        {"blanks are no command line", "  \t ", std::nullopt},
        {"an open double quote", R"(prog "a b)", std::nullopt},
        {"an open single quote", "prog 'a b", std::nullopt},
        {"a backslash at the end", "prog \\", std::nullopt},
        {"a backslash at the end, in quotes", "prog \"a\\", std::nullopt},
        {"an empty program", R"("" x)", std::nullopt},
        {"a NUL would cut an argument short", std::string("prog a\0b", 8), std::nullopt},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(words(c.exec), c.words);
    }
}

TEST(ExecLineTest, FillsInFieldCodes)
{
    const ExecLine::Input nothing{.name = "Ada's Editor", .icon = "pen", .location = "/a/x.desktop"};
    auto typed = nothing;
    typed.arguments = {"-x", "a b", "%f", ""};
    auto opening = nothing;
    opening.target = report;
    auto surfing = nothing;
    surfing.target = website;
    const struct {
        const char *why, *exec;
        ExecLine::Input input;
        std::optional<Strings> words;
    } cases[] = {
        {"a place for files with none", "prog %f -a", nothing, Strings{"prog", "-a"}},
        {"all four places stand for nothing", "prog %f %F %u %U", nothing, Strings{"prog"}},
        {"a quoted place too", R"(prog "%u")", nothing, Strings{"prog"}},
        {"a path for %f", "prog %f", opening, Strings{"prog", report.path}},
        {"a path for %F", "prog %F", opening, Strings{"prog", report.path}},
        {"an address for %u", "prog %u", opening, Strings{"prog", report.uri}},
        {"an address for %U", "prog %U", opening, Strings{"prog", report.uri}},
        {"what is no file is an address also for %f", "prog %f", surfing, Strings{"prog", website.uri}},
        {"only the first place is filled", "prog %u %f", opening, Strings{"prog", report.uri}},
        {"a place inside a word", "prog --file=%f", opening, Strings{"prog", "--file=/home/ada/a report.pdf"}},
        {"a place inside a word with no file", "prog --file=%f", nothing, Strings{"prog", "--file="}},
        {"never inside quotes, where a shell may read it", R"(sh -c "prog %f")", opening,
            Strings{"sh", "-c", "prog ", report.path}},
        {"without a place the file stands last", "prog -a", opening, Strings{"prog", "-a", report.path}},
        {"typed words take the place, each as it is", "prog %U -z", typed, Strings{"prog", "-x", "a b", "%f", "", "-z"}},
        {"typed words take the first place only", "prog %f -z %u", typed, Strings{"prog", "-x", "a b", "%f", "", "-z"}},
        {"typed words without a place stand last", "prog -z", typed, Strings{"prog", "-z", "-x", "a b", "%f", ""}},
        {"typed words do not go inside a word", "prog --file=%f", typed, Strings{"prog", "--file=", "-x", "a b", "%f", ""}},
        {"the icon is two words", "prog %i -a", nothing, Strings{"prog", "--icon", "pen", "-a"}},
        {"without an icon none", "prog %i -a", {}, Strings{"prog", "-a"}},
        {"the name is one word, and not read again", "prog %c", nothing, Strings{"prog", "Ada's Editor"}},
        {"the name inside a word", "prog --title=%c", nothing, Strings{"prog", "--title=Ada's Editor"}},
        {"the entry's own place", "prog %k", nothing, Strings{"prog", "/a/x.desktop"}},
        {"an unknown place is no word", "prog %k -a", {}, Strings{"prog", "-a"}},
        {"two percent signs are one", "prog 100%% %%f", nothing, Strings{"prog", "100%", "%f"}},
        {"two percent signs in quotes", R"(prog "50%% off")", nothing, Strings{"prog", "50% off"}},
        {"deprecated codes are dropped", "prog %d %D %n %N %v %m -a", nothing, Strings{"prog", "-a"}},
        {"a deprecated code inside a word leaves the rest", "prog -x%m", nothing, Strings{"prog", "-x"}},
        {"a quoted deprecated code is no empty word", R"(prog "%m" -a)", nothing, Strings{"prog", "-a"}},
        {"an unknown code makes the line one not to process", "prog %z", nothing, std::nullopt},
        {"an encoded address needs its percent signs doubled", "prog http://x/a%20b", nothing, std::nullopt},
        {"a percent sign at the end", "prog 100%", nothing, std::nullopt},
        {"an unknown code in quotes", R"(prog "%z")", nothing, std::nullopt},
        {"a code is no program", "%f", opening, std::nullopt},
        {"nor a part of one", "prog%f", opening, std::nullopt},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.why) + ": " + c.exec);
        EXPECT_EQ(words(c.exec, c.input), c.words);
    }
}
