#pragma once

#include <array>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace korvane {

/// The kinds of file that a search can be narrowed to. The raw value is the label shown to the user.
enum class FileKind { all, folder, document, image, media, other };
inline constexpr std::array allFileKinds{
    FileKind::all, FileKind::folder, FileKind::document, FileKind::image, FileKind::media, FileKind::other};
std::string_view rawValue(FileKind kind);
/// Extensions of the kind, in lower case and without points. Empty for `all` and `folder`, and for
/// `other`, which is every file outside the three lists.
std::span<const std::string_view> extensions(FileKind kind);

/// The names by which files can be sorted; the first is the default.
inline constexpr std::array<std::string_view, 4> fileSorts{"relevance", "name", "size", "modified"};

/// A file search: the structure behind the text in the palette's field. Parsing and writing are two ways
/// of one language, so that typing and the filter controls change the same state.
struct FileSearchQuery {
    FileSearchQuery() = default;
    /// Parses blank-separated terms, "quoted" terms, paths and the filters ext: kind: sort: path:.
    /// Throws `recoverable` with a sentence for the user at the first bad token, for more than 1000
    /// characters and for more than 16 tokens.
    explicit FileSearchQuery(std::string_view text);

    /// The value in the language: terms, then paths, then filters. Parsing it gives an equal value, but
    /// for a `directoriesOnly` beside a `kind`, which has no words, and for text over the limits.
    std::string text() const;

    bool operator==(const FileSearchQuery &) const = default;

    std::vector<std::string> terms = {}; ///< Parts of the name, case as typed.
    std::vector<std::string> pathTerms = {}; ///< Parts of the path, case as typed.
    std::vector<std::string> extensions = {}; ///< Lower case, without points at the ends.
    std::optional<bool> directoriesOnly = {}; ///< None: both; true: folders only; false: files only.
    FileKind kind = FileKind::all;
    std::string sort{fileSorts.front()}; ///< One of `fileSorts`.
};

} // namespace korvane
