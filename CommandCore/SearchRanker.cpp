#include "CommandCore/SearchRanker.h"

#include "Support/Text.h"

#include <algorithm>
#include <cmath>

namespace korvane {

namespace {

// Folded text is valid UTF-8, in which this byte never occurs.
constexpr char separator = '\xFF';

std::optional<double> base(std::string_view query, const FoldedTexts &texts)
{
    if (query.empty())
        return 1;
    switch (texts.match(query)) {
    case FoldedTexts::Match::title: return 120;
    case FoldedTexts::Match::beginningOfTitle: return 90;
    case FoldedTexts::Match::partOfTitle: return 65;
    case FoldedTexts::Match::partOfKeyword: return 40;
    case FoldedTexts::Match::none: break;
    }
    return std::nullopt;
}

/// What use adds. Never NaN, whatever a store holds: rows are sorted by it.
double bonus(const CommandUsage &usage, double now)
{
    constexpr double secondsPerDay = 86400;
    const double count = std::max(0.0, static_cast<double>(usage.count));
    const double frequency = std::min(2 * std::log2(count + 1), 10.0);
    const double days = (now - usage.lastUsed) / secondsPerDay;
    return frequency + std::max(0.0, 5 - days);
}

} // namespace

PreparedQuery::PreparedQuery(std::string_view query)
{
    const std::string whole = korvane::folded(query);
    folded = trimmed(whole);
}

SearchKeys::SearchKeys(std::string_view title, std::span<const std::string> keywords) : block(folded(title))
{
    titleSize = block.size();
    for (const auto &keyword : keywords) {
        block += separator;
        block += folded(keyword);
    }
    block.shrink_to_fit();
}

std::string_view SearchKeys::title() const { return std::string_view(block).substr(0, titleSize); }

FoldedTexts::Match FoldedTexts::match(std::string_view folded) const
{
    const auto at = block.find(folded);
    // A match that reaches over two texts has the separator in it, and so has what was asked for.
    if (at == block.npos || folded.find(separator) != folded.npos)
        return Match::none;
    if (at >= titleSize)
        return Match::partOfKeyword;
    if (at > 0)
        return Match::partOfTitle;
    return folded.size() == titleSize ? Match::title : Match::beginningOfTitle;
}

bool SearchKeys::keywordContains(std::string_view folded) const
{
    return containsBytes(std::string_view(block).substr(titleSize), folded) && folded.find(separator) == folded.npos;
}

std::optional<double> SearchRanker::score(std::string_view query, std::string_view title, std::span<const std::string> keywords,
    const std::optional<CommandUsage> &usage, double now) const
{
    return score(PreparedQuery(query), SearchKeys(title, keywords), usage ? &*usage : nullptr, now);
}

std::optional<double> SearchRanker::score(
    const PreparedQuery &query, FoldedTexts texts, const CommandUsage *usage, double now) const
{
    auto score = base(query.text(), texts);
    if (score && usage)
        *score += bonus(*usage, now);
    return score;
}

} // namespace korvane
