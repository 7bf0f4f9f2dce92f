#pragma once

#include "CommandCore/JSONValue.h"

#include <optional>
#include <string>

namespace korvane {

/// One file or folder that the index knows. Paths and names are bytes; the path is the identity.
struct IndexedFile {
    std::string path; ///< Absolute.
    std::string name; ///< Last component of the path.
    bool isDirectory = false;
    long long size = 0; ///< Bytes.
    double modified = 0; ///< Seconds since 1970; 0 when unknown.
    bool operator==(const IndexedFile &) const = default;
};

/// One indexed folder.
struct IndexRoot {
    std::string id; ///< A UUID in upper case.
    std::string path; ///< Absolute, without a tilde.
    bool operator==(const IndexRoot &) const = default;
};

/// A file as the index hands it to the palette and to tools.
struct FileRecord {
    std::string name; ///< Last component of the path.
    std::string path; ///< Absolute; bytes.
    bool isDirectory = false;
    long long size = 0; ///< Bytes.
    std::optional<double> modified = {}; ///< Seconds since 1970; nothing when unknown.
    bool operator==(const FileRecord &) const = default;

    /// An object whose keys are the field names; `modified` is left out when unknown. Names that are not UTF-8
    /// are shown with U+FFFD, and the path's bytes are added in base64 as `pathBytes`.
    JSONValue json() const;
};

/// The last component of a path: "/" for the root folder, otherwise what follows the last slash but slashes at
/// the end.
std::string lastPathComponent(const std::string &path);
/// The path without its last component; "/" for the root folder and for what lies directly in it, empty for a
/// lone name.
std::string deletingLastPathComponent(const std::string &path);

/// How every path below a folder begins: the path with a slash, the root folder as it is.
std::string beginningBelow(const std::string &folder);

} // namespace korvane
