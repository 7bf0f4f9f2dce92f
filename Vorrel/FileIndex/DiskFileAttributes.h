#pragma once

#include "Vorrel/Platform/FileEvents.h"

#include <functional>
#include <string>

struct stat;

namespace korvane {

/// Asks by `stat`, so that of a link it tells about the target. "Not found" is only what certainly is not there; whatever
/// else goes wrong is "unavailable". A folder has the size that the file system gives it.
class DiskFileAttributes final : public FileAttributeReading {
public:
    /// Fills in what is at a path; 0 or an `errno`. Any thread.
    using Stat = std::function<int(const std::string &path, struct stat &facts)>;

    /// `stat` stands in for stat(2), where a platform knows which links not to follow.
    explicit DiskFileAttributes(Stat stat = followingAllLinks);

    AttributeOutcome attributes(const std::string &path) const override;

private:
    static int followingAllLinks(const std::string &path, struct stat &facts);

    const Stat stat;
};

} // namespace korvane
