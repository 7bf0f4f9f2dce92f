#pragma once

#include <string>
#include <vector>

namespace korvane {

/// One name in a folder, as the folder itself tells it.
struct FolderEntry {
    std::string name; ///< Bytes; never "." or "..".
    unsigned char type = 0; ///< DT_DIR, DT_REG and so on; DT_UNKNOWN where the file system does not tell.
};

/// Replaces `entries` by all names in the open folder, in the order of the file system. False when it could not be
/// read to its end; what was read before is there. Any thread; blocks.
bool readFolder(int descriptor, std::vector<FolderEntry> &entries);

} // namespace korvane
