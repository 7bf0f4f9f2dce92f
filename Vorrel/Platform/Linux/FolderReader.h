#pragma once

#include <cstdint>
#include <memory>
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

/// Reads open folders block by block, so that one of any size takes little memory. One thread at a time; blocks.
class FolderReader {
public:
    struct Name {
        const char *text; ///< Never "." or ".."; stands until the next block is read.
        unsigned char type; ///< As in `FolderEntry`.
        std::uint64_t inode;
    };
    enum class Block { names, end, failed };

    FolderReader();

    /// Replaces `names` by those of the next block, in the order of the file system. A descriptor that has just been
    /// opened stands before the first.
    Block next(int descriptor, std::vector<Name> &names);

private:
    std::unique_ptr<char[]> buffer;
};

} // namespace korvane
