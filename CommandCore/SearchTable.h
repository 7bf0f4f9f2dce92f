#pragma once

#include "CommandCore/SearchRanker.h"

#include <functional>

namespace korvane {

/// The commands of a registry made ready for ranking, kept from keystroke to keystroke.
///
/// A keystroke passes over all of them, so what it needs of each stands together: records in one block, folded texts
/// in another. Rows that are the same objects as before keep their folded texts. Main thread only.
class SearchTable {
public:
    /// Gives the texts by which a row is found beside its title.
    using Keywords = std::function<std::vector<std::string>(const CommandResult &)>;
    explicit SearchTable(Keywords keywords) : keywords(std::move(keywords)) { }

    void setUsage(UsageByIdentifier usage);

    /// Brings the table to what the registry's commands give now; each use is with the same registry.
    void follow(const CommandRegistry &registry);

    /// The best `limit` rows among the kinds that are wanted, best first. Equal scores stand by title in byte order,
    /// equal titles in the order of the registry. `now` is in seconds since 1970.
    Rows best(std::string_view query, const std::function<bool(ResultKind)> &wanted, double now, std::size_t limit) const;

private:
    struct Entry {
        std::size_t textBegin; ///< In `texts`.
        std::uint32_t textSize, titleSize;
        std::uint64_t titleStart; ///< The title's first bytes as a number: most titles differ in them.
        CommandUsage usage;
        bool used;
        ResultKind kind;
    };
    struct Candidate {
        double score;
        std::uint64_t titleStart;
        std::size_t index;
    };

    bool isCurrent(const CommandRegistry &registry) const;
    void rebuild(const CommandRegistry &registry);
    void note(Entry &entry, const std::string &id) const;
    bool precedes(const Candidate &left, const Candidate &right) const;

    const Keywords keywords;
    UsageByIdentifier usages;
    std::uint64_t revision = 0; // of the registry; no registry that holds anything has the first one
    Rows rows; // in the order of the registry, as are the entries
    std::vector<Entry> entries;
    std::string texts;
    std::vector<std::size_t> changeable; // indices of the commands whose row may become another
};

} // namespace korvane
