#include "Vorrel/Platform/Linux/FolderReader.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <sys/syscall.h>
#include <unistd.h>

namespace korvane {

namespace {

/// Holds nearly every folder whole, so that two calls read it: one for the names, one that finds the end.
constexpr std::size_t bufferSize = 256 * 1024;

/// What the kernel writes before each name (getdents64(2)).
struct EntryHead {
    std::uint64_t inode;
    std::int64_t offset;
    std::uint16_t length;
    unsigned char type;
};
constexpr std::size_t nameOffset = offsetof(EntryHead, type) + 1;

long readBlock(int descriptor, char *buffer)
{
    for (;;) {
        const long size = ::syscall(SYS_getdents64, descriptor, buffer, bufferSize);
        if (size >= 0 || errno != EINTR)
            return size;
    }
}

} // namespace

FolderReader::FolderReader() : buffer(std::make_unique_for_overwrite<char[]>(bufferSize)) { }

FolderReader::Block FolderReader::next(int descriptor, std::vector<Name> &names)
{
    names.clear();
    const long size = readBlock(descriptor, buffer.get());
    if (size < 0)
        return Block::failed;
    for (long at = 0; at < size;) {
        EntryHead head;
        std::memcpy(&head, buffer.get() + at, nameOffset);
        const char *text = buffer.get() + at + nameOffset;
        if (const std::string_view name(text); name != "." && name != "..")
            names.push_back({text, head.type, head.inode});
        at += head.length;
    }
    return size == 0 ? Block::end : Block::names;
}

bool readFolder(int descriptor, std::vector<FolderEntry> &entries)
{
    entries.clear();
    if (::lseek(descriptor, 0, SEEK_SET) != 0)
        return false;
    thread_local FolderReader reader;
    std::vector<FolderReader::Name> names;
    for (;;) {
        const auto block = reader.next(descriptor, names);
        if (block != FolderReader::Block::names)
            return block == FolderReader::Block::end;
        for (const auto &name : names)
            entries.push_back({name.text, name.type});
    }
}

} // namespace korvane
