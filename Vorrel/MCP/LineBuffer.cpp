#include "Vorrel/MCP/LineBuffer.h"

namespace korvane {

namespace {

constexpr std::size_t memoryKept = 64 * 1024; // bytes: one long line is no reason to hold its memory for good

} // namespace

void LineBuffer::append(std::string_view piece)
{
    if (tooLong)
        return;
    // Moves a line once at most: until it is complete, nothing stands before it any more.
    bytes.erase(0, start);
    scanned -= start;
    start = 0;
    if (bytes.empty() && bytes.capacity() > memoryKept)
        bytes = {};
    bytes += piece;
}

std::optional<std::string_view> LineBuffer::next()
{
    if (tooLong)
        return std::nullopt;
    const std::size_t end = bytes.find('\n', scanned);
    scanned = end == bytes.npos ? bytes.size() : end + 1;
    if (scanned - start > limit) {
        tooLong = true;
        bytes = {};
        return std::nullopt;
    }
    if (end == bytes.npos)
        return std::nullopt;
    const auto line = std::string_view(bytes).substr(start, end - start);
    start = scanned;
    return line;
}

} // namespace korvane
