#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Bytes of a file as text to show. No toolkit; any thread.
namespace korvane::previewText {

/// How much of a file is shown at most.
inline constexpr std::size_t mostBytes = 2 * 1024 * 1024;
/// Longer lines are shown in pieces: laying out a line takes longer the longer it is.
inline constexpr std::size_t longestLine = 2000;

enum class Extent { Whole, Cut };

/// The text that the bytes are, without a byte order mark: as that mark says, else as UTF-8, as UTF-16 by where its zeros
/// are, or in the encoding that its letters make likely. With `Cut` the last character may be incomplete and is then left
/// out. Nothing when the bytes are no text.
std::optional<std::u16string> decoded(std::string_view bytes, Extent extent);

/// A text made harmless and easy to show.
struct Lines {
    /// Parts of the text for showing one after the other, each of whole lines, the first a small one. Lines end by a line
    /// feed but for the last.
    std::vector<std::u16string> parts;
    /// Numbers, from 0, of the lines that the next one continues: a line feed that is not in the file follows them.
    std::vector<int> continued;
};

/// Ends lines alike, breaks long ones, and shows control characters as signs.
Lines lined(std::u16string_view text);

} // namespace korvane::previewText
