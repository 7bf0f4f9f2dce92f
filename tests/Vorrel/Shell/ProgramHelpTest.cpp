#include "Vorrel/Shell/ProgramHelp.h"

#include <gmock/gmock.h>

using namespace korvane;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Optional;
using testing::StartsWith;

TEST(ProgramHelp, IsPrintedWhereverItsFlagStands)
{
    EXPECT_THAT(answerInsteadOfStarting({"--show", "--help"}), Optional(StartsWith("Usage: korvane ")));
}

TEST(ProgramHelp, NamesEveryFlagThatAStartKnows)
{
    for (const char *flag : {"--show", "--settings", "--rebuild-index", "--keychain-selftest", "--keychain-selftest-clean"})
        EXPECT_THAT(answerInsteadOfStarting({"--help"}), Optional(HasSubstr(std::string("\n  ") + flag)));
}

TEST(ProgramHelp, TellsTheVersionInOneLine)
{
    EXPECT_THAT(answerInsteadOfStarting({"--version"}), Optional(MatchesRegex("korvane [0-9]+\\.[0-9]+\\.[0-9]+\n")));
}

TEST(ProgramHelp, LeavesEveryOtherCommandLineToAStart)
{
    EXPECT_EQ(answerInsteadOfStarting({}), std::nullopt);
    EXPECT_EQ(answerInsteadOfStarting({"--show", "--settings", "--helpful"}), std::nullopt);
}
