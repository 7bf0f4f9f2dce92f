#include "CommandCore/SearchTable.h"

#include <algorithm>

namespace korvane {

namespace {

std::uint64_t beginning(std::string_view title)
{
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < sizeof number; ++i)
        number = number << 8 | (i < title.size() ? static_cast<unsigned char>(title[i]) : 0);
    return number;
}

} // namespace

void SearchTable::setUsage(UsageByIdentifier usage)
{
    usages = std::move(usage);
    for (std::size_t i = 0; i < entries.size(); ++i)
        note(entries[i], rows[i]->id);
}

void SearchTable::note(Entry &entry, const std::string &id) const
{
    const auto found = usages.find(id);
    entry.used = found != usages.end();
    entry.usage = entry.used ? found->second : CommandUsage{};
}

void SearchTable::follow(const CommandRegistry &registry)
{
    if (!isCurrent(registry))
        rebuild(registry);
}

bool SearchTable::isCurrent(const CommandRegistry &registry) const
{
    return revision == registry.revision() && std::ranges::all_of(changeable, [&](std::size_t index) {
        return registry.commands()[index]->result(CommandContext{}) == rows[index];
    });
}

void SearchTable::rebuild(const CommandRegistry &registry)
{
    std::unordered_map<const CommandResult *, std::size_t> known;
    for (std::size_t i = 0; i < rows.size(); ++i)
        known.emplace(rows[i].get(), i);

    Rows nextRows = registry.results();
    std::vector<Entry> nextEntries;
    nextEntries.reserve(nextRows.size());
    std::string nextTexts;
    nextTexts.reserve(texts.size());
    for (const Row &row : nextRows) {
        Entry entry;
        if (const auto same = known.find(row.get()); same != known.end()) {
            entry = entries[same->second];
            const std::size_t begin = std::exchange(entry.textBegin, nextTexts.size());
            nextTexts.append(texts, begin, entry.textSize);
        } else {
            const SearchKeys keys(row->title, keywords(*row));
            const FoldedTexts folded = keys;
            entry = {.textBegin = nextTexts.size(),
                .textSize = std::uint32_t(folded.block.size()),
                .titleSize = std::uint32_t(folded.titleSize),
                .titleStart = beginning(row->title),
                .usage = {},
                .used = false,
                .kind = row->kind};
            note(entry, row->id);
            nextTexts += folded.block;
        }
        nextEntries.push_back(entry);
    }

    rows = std::move(nextRows);
    entries = std::move(nextEntries);
    texts = std::move(nextTexts);
    changeable.clear();
    for (std::size_t i = 0; i < rows.size(); ++i)
        if (!registry.commands()[i]->isFixed())
            changeable.push_back(i);
    revision = registry.revision();
}

bool SearchTable::precedes(const Candidate &left, const Candidate &right) const
{
    if (left.score != right.score)
        return left.score > right.score;
    if (left.titleStart != right.titleStart)
        return left.titleStart < right.titleStart;
    const int titles = rows[left.index]->title.compare(rows[right.index]->title);
    return titles != 0 ? titles < 0 : left.index < right.index;
}

Rows SearchTable::best(std::string_view query, const std::function<bool(ResultKind)> &wanted, double now, std::size_t limit) const
{
    const SearchRanker ranker;
    const PreparedQuery prepared(query);
    const auto better = [this](const Candidate &left, const Candidate &right) { return precedes(left, right); };
    std::vector<Candidate> kept; // a heap with the worst one in front
    kept.reserve(std::min(limit, rows.size()) + 1);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const Entry &entry = entries[i];
        if (!wanted(entry.kind))
            continue;
        const FoldedTexts folded{std::string_view(texts).substr(entry.textBegin, entry.textSize), entry.titleSize};
        const auto score = ranker.score(prepared, folded, entry.used ? &entry.usage : nullptr, now);
        if (!score)
            continue;
        const Candidate candidate{*score, entry.titleStart, i};
        if (kept.size() == limit && (limit == 0 || !better(candidate, kept.front())))
            continue;
        kept.push_back(candidate);
        std::ranges::push_heap(kept, better);
        if (kept.size() > limit) {
            std::ranges::pop_heap(kept, better);
            kept.pop_back();
        }
    }
    std::ranges::sort_heap(kept, better);

    Rows best;
    best.reserve(kept.size());
    for (const Candidate &one : kept)
        best.push_back(rows[one.index]);
    return best;
}

} // namespace korvane
