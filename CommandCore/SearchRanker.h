#pragma once

#include "CommandCore/CommandRegistry.h"

#include <span>

namespace korvane {

/// A query made ready once and asked of many rows: folded, and trimmed of white space at both ends.
class PreparedQuery {
public:
    explicit PreparedQuery(std::string_view query);
    const std::string &text() const { return folded; }

private:
    std::string folded;
};

/// The folded texts of one row, wherever they are kept: the title, and behind it the keywords with a separator before each.
struct FoldedTexts {
    std::string_view block;
    std::size_t titleSize = 0;

    /// How well the texts match, worst first.
    enum class Match { none, partOfKeyword, partOfTitle, beginningOfTitle, title };
    /// The best match of a folded text that is not empty. One search through the block.
    Match match(std::string_view folded) const;
};

/// The folded texts of one row with their memory, which is one block.
class SearchKeys {
public:
    SearchKeys() = default;
    SearchKeys(std::string_view title, std::span<const std::string> keywords);
    operator FoldedTexts() const { return {block, titleSize}; }
    std::string_view title() const;

    using Match = FoldedTexts::Match;
    Match match(std::string_view folded) const { return FoldedTexts(*this).match(folded); }
    /// Whether one keyword alone contains the folded text.
    bool keywordContains(std::string_view folded) const;

private:
    std::string block;
    std::size_t titleSize = 0;
};

/// Scores one candidate against what was typed. A value without state; any thread.
class SearchRanker {
public:
    /// How well the candidate matches: 120 for an equal title, 90 for its beginning, 65 for a part of
    /// it, 40 for a part of a keyword, 1 for an empty query; use adds at most 15 (more only when
    /// `lastUsed` lies in the future). Nothing when it does not match and must not be shown. Case and
    /// diacritics do not count. `now` is in seconds since 1970.
    std::optional<double> score(std::string_view query, std::string_view title, std::span<const std::string> keywords,
        const std::optional<CommandUsage> &usage, double now) const;

    /// The same for texts made ready beforehand; `usage` may be null.
    std::optional<double> score(const PreparedQuery &query, FoldedTexts texts, const CommandUsage *usage, double now) const;
};

} // namespace korvane
