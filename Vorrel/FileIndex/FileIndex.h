#pragma once

#include "CommandCore/IndexedFile.h"
#include "Support/Observed.h"
#include "Support/Task.h"

#include <optional>
#include <string>
#include <vector>

namespace korvane {

/// What the rest of the program asks of the file index. This base knows no files and does nothing: it stands where
/// a host wants none. Main thread only.
class FileIndex {
public:
    /// A snapshot for diagnostics.
    struct Health {
        enum class State { indexing, watching, liveUpdatesUnavailable };
        long long fileCount = 0;
        std::size_t rootCount = 0;
        State state = State::watching;
        bool operator==(const Health &) const = default;
    };

    virtual ~FileIndex() = default;

    /// Reads what is stored and begins to follow the disk; the work goes on after it. Never throws but `Cancelled`.
    virtual Task<void> start() { co_return; }
    /// Ends every task and closes the search connection. Call once.
    virtual Task<void> stop() { co_return; }

    /// Files that match the query language's text, best first; those below `directory` when it is given. Throws
    /// `AppError` and `Cancelled`.
    virtual Task<std::vector<FileRecord>> search(std::string text, std::optional<std::string> directory)
    {
        (void)text, (void)directory;
        co_return std::vector<FileRecord>();
    }
    /// Scans every root anew. Returns at once.
    virtual void rebuild() { }
    /// Adds a folder and scans all roots. Returns at once.
    virtual void addRoot(std::string path) { (void)path; }
    /// Removes a root and what is indexed below it. Returns at once.
    virtual void removeRoot(std::string id) { (void)id; }
    /// A rebuild or a change of the roots is under way.
    virtual bool busy() const { return false; }
    virtual Health indexHealth() const { return {}; }

    // What the views show
    const Observed<std::vector<IndexRoot>> &roots() const { return _roots; }
    const Observed<long long> &fileCount() const { return _fileCount; } ///< At the last count.
    const Observed<std::string> &statusText() const { return _statusText; } ///< In the user's language.
    const Observed<bool> &isScanning() const { return _isScanning; }
    const Observed<long long> &scannedCount() const { return _scannedCount; } ///< Entries staged by the present rebuild.
    const std::string &scannedRoot() const { return _scannedRoot; } ///< Of which root the last of them were.
    /// What went wrong in the last rebuild or change of the roots, in the user's language; nothing when all went well.
    const std::optional<std::string> &problem() const { return _problem; }

    /// Calls `changed` after a change of the roots, the status or whether a scan runs.
    [[nodiscard]] std::vector<Subscription> observe(const std::function<void()> &changed)
    {
        std::vector<Subscription> all;
        all.push_back(_roots.observe(changed));
        all.push_back(_statusText.observe(changed));
        all.push_back(_isScanning.observe(changed));
        return all;
    }

protected:
    Observed<std::vector<IndexRoot>> _roots;
    Observed<long long> _fileCount;
    Observed<std::string> _statusText;
    Observed<bool> _isScanning;
    Observed<long long> _scannedCount;
    std::string _scannedRoot;
    std::optional<std::string> _problem;
};

} // namespace korvane
