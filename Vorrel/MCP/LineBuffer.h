#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace korvane {

/// Cuts a stream of bytes into its lines, the same ones however the stream is split. Takes time in proportion to the bytes,
/// whatever the pieces. Does no input or output. One thread.
class LineBuffer {
public:
    /// `limit` is how many bytes a line may have, its line feed included.
    explicit LineBuffer(std::size_t limit) : limit(limit) { }

    /// Ends what `next` has given before.
    void append(std::string_view piece);
    /// The next complete line without its line feed; nothing when more bytes are needed, and for good once a line
    /// `isTooLong`.
    std::optional<std::string_view> next();
    /// Whether `next` has come upon a line of more than `limit` bytes, complete or not.
    bool isTooLong() const { return tooLong; }

private:
    const std::size_t limit;
    std::string bytes;
    std::size_t start = 0; ///< Of the first line that was not given yet.
    std::size_t scanned = 0; ///< There is no line feed between `start` and here.
    bool tooLong = false;
};

} // namespace korvane
