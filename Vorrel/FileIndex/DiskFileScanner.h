#pragma once

#include "Support/Clock.h"
#include "Vorrel/FileIndex/FileScanner.h"
#include "Vorrel/Platform/DirectoryWalker.h"
#include "Vorrel/Platform/UserFolders.h"

#include <functional>

namespace korvane {

/// Scans folders of the disk and gives up on those that do not answer: a walk can hang for good on a dead volume,
/// inside a system call that no cancellation reaches.
///
/// Keeps nothing of a scan: clock and executor must outlive the scans, the scanner itself need not. Batches hold 5000
/// entries, the last of a scan 1 to 5000; what the reader has not taken yet waits in memory. A stream ends with
/// `recoverable` "The index folder could not be read." when the root is no folder or cannot be listed, and with
/// "Indexing stopped on an unresponsive folder." when more than 15 seconds pass without an entry.
class DiskFileScanner final : public FileScanner {
public:
    /// Seconds since some fixed point, from any thread and at any later time, also after the end of everything else.
    using Uptime = std::function<double()>;

    /// `executor` runs the watchdogs, which sleep on `clock` and measure with `uptime`; without one, with the machine's.
    DiskFileScanner(Executor executor, Clock &clock, const DirectoryWalker &walker, UserFolders folders, Uptime uptime = {});

    AsyncStream<std::vector<IndexedFile>> scan(std::string root, std::vector<std::string> skipPrefixes) override;

private:
    Executor executor;
    Clock &clock;
    const DirectoryWalker &walker;
    const UserFolders folders;
    const Uptime uptime;
};

} // namespace korvane
