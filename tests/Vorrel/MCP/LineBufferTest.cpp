#include "Vorrel/MCP/LineBuffer.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <string>
#include <vector>

using namespace korvane;

namespace {

using Strings = std::vector<std::string>;
constexpr std::size_t limit = 8'000'000;

/// What a stream came to: its lines, and whether one was too long.
struct Cut {
    Strings lines;
    bool tooLong = false;
    bool operator==(const Cut &) const = default;
};

Cut cut(const Strings &pieces, std::size_t limit)
{
    LineBuffer buffer(limit);
    Cut result;
    for (const std::string &piece : pieces) {
        buffer.append(piece);
        while (const auto line = buffer.next())
            result.lines.emplace_back(*line);
    }
    result.tooLong = buffer.isTooLong();
    return result;
}

} // namespace

TEST(LineBuffer, CutsAtLineFeedsAlone)
{
    EXPECT_EQ(cut({"one\r\n\ntwo"}, limit), (Cut{{"one\r", ""}}));
    EXPECT_EQ(cut({std::string("a\0b\n", 4)}, limit), (Cut{{std::string("a\0b", 3)}}));
    EXPECT_EQ(cut({}, limit), Cut());
}

TEST(LineBuffer, TwoLinesInOnePieceAndOneLineInTwoPiecesAreTheSame)
{
    EXPECT_EQ(cut({"one\ntwo\n"}, limit).lines, (Strings{"one", "two"}));
    EXPECT_EQ(cut({"on", "e\ntw", "o", "\n"}, limit).lines, (Strings{"one", "two"}));
}

TEST(LineBuffer, ALineAtTheLimitPassesAndOneByteMoreIsTooLong)
{
    EXPECT_EQ(cut({std::string(limit - 1, 'x'), "\n"}, limit).lines.size(), 1U);
    EXPECT_EQ(cut({std::string(limit, 'x')}, limit), Cut()) << "it may yet end with the next byte";
    for (const char *next : {"x", "\n"})
        EXPECT_EQ(cut({std::string(limit, 'x'), next}, limit), (Cut{{}, true}));
    EXPECT_EQ(cut({std::string(limit + 1, 'x')}, limit), (Cut{{}, true}));
}

TEST(LineBuffer, ManyShortLinesOfMoreThanTheLimitTogetherPass)
{
    EXPECT_EQ(cut({"one\ntwo\nthree\n"}, 6), (Cut{{"one", "two", "three"}, false}));
}

TEST(LineBuffer, NothingComesAfterALineThatIsTooLong) { EXPECT_EQ(cut({"a\nbbbb\nc\n", "d\n"}, 3), (Cut{{"a"}, true})); }

TEST(LineBuffer, ALongLineOfManyPiecesTakesTimeInProportion)
{
    LineBuffer buffer(limit);
    std::size_t lines = 0;
    const std::string piece(40, 'x'); // small enough that work in the square of the line would never end
    for (std::size_t bytes = 0; bytes + piece.size() < limit; bytes += piece.size()) {
        buffer.append(piece);
        lines += buffer.next() ? 1 : 0;
    }
    EXPECT_EQ(lines, 0U);
    buffer.append("\n");
    ASSERT_TRUE(buffer.next());
}

RC_GTEST_PROP(LineBufferProperty, AnySplitOfAStreamGivesTheSameLines, ())
{
    const auto stream = *rc::gen::container<std::string>(rc::gen::element('\n', 'x', 'y', '\r', '\0'));
    const auto bound = *rc::gen::inRange<std::size_t>(1, 12);
    Strings pieces;
    for (std::size_t at = 0; at < stream.size();) {
        const auto size = *rc::gen::inRange<std::size_t>(1, 6);
        pieces.push_back(stream.substr(at, size));
        at += size;
    }
    RC_ASSERT(cut(pieces, bound) == cut({stream}, bound));
}
