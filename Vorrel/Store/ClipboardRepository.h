#pragma once

#include "CommandCore/JSONValue.h"
#include "Support/Clock.h"
#include "Vorrel/Store/Database.h"

#include <optional>

namespace korvane {

/// One copied text.
struct ClipboardEntry {
    std::string id; ///< An upper-case UUID.
    std::string content; ///< The whole text.
    std::string kind; ///< "url" or "text".
    double createdAt = 0; ///< Seconds since 1970, when it was copied last.
    std::optional<std::string> sourceApp = {}; ///< The application that was in front.

    /// An object with the names of the fields as keys; without "sourceApp" where there is none.
    JSONValue json() const;
    bool operator==(const ClipboardEntry &) const = default;
};

/// The table of copied texts. A text stands in it once: copied again it moves to the top. Errors are those of `Database`.
class ClipboardRepository {
public:
    static constexpr std::size_t largestContent = 1'000'000; ///< Bytes of UTF-8; the limit itself is kept.
    static constexpr int leastLimit = 1, greatestLimit = 10'000, searchLimit = 500; ///< Entries.

    ClipboardRepository(std::shared_ptr<Database> database, Clock &clock) : database(std::move(database)), clock(&clock) { }

    /// Keeps a text, and the newest `limit` ones. Quiet for an empty text and one over the limit.
    Task<void> insert(std::string content, std::optional<std::string> sourceApp, int limit) const;
    /// Keeps the newest `limit` entries, at least 1 and at most 10,000.
    Task<void> prune(int limit) const;
    /// Entries that contain `query`, letters of ASCII in either case, the newest first; an empty one finds all.
    Task<std::vector<ClipboardEntry>> search(std::string query) const;
    Task<std::optional<ClipboardEntry>> entry(std::string id) const;
    Task<void> clear() const;

private:
    std::shared_ptr<Database> database;
    Clock *clock;
};

} // namespace korvane
