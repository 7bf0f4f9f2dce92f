#pragma once

#include "CommandCore/IndexedFile.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace korvane {

/// Walks everything below a folder: does not enter packages (where a platform has them), does not follow links,
/// passes over unreadable folders, can stay out of a folder.
class DirectoryWalker {
public:
    /// Who is told. Its functions are called from several threads at once.
    struct Visitor {
        /// At every entry, before anything is asked about it; false ends the walk.
        std::function<bool()> entered;
        /// Whether the entry at this path is passed over with everything below it.
        std::function<bool(const std::string &path)> skips;
        /// Entries of one folder, with their facts.
        std::function<void(std::vector<IndexedFile> entries)> found;
        /// Once, when nothing more will be told. A walk that hangs never gets here.
        enum class End { complete, unreadable, ended };
        std::function<void(End)> done;
    };

    virtual ~DirectoryWalker() = default;

    /// Starts a walk on threads of its own, which share the visitor, and returns at once. `unreadable` is a root that
    /// is no folder or cannot be listed. Any thread.
    virtual void walk(std::string root, std::shared_ptr<const Visitor> visitor) const = 0;
};

} // namespace korvane
