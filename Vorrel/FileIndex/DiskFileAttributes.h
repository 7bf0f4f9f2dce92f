#pragma once

#include "Vorrel/Platform/FileEvents.h"

namespace korvane {

/// Asks by `stat`, so that of a link it tells about the target. "Not found" is only what certainly is not there; whatever
/// else goes wrong is "unavailable". A folder has the size that the file system gives it.
class DiskFileAttributes final : public FileAttributeReading {
public:
    AttributeOutcome attributes(const std::string &path) const override;
};

} // namespace korvane
