#pragma once

#include <optional>
#include <string>

namespace korvane {

/// Where the user's things are. Plain values, read once at start.
struct UserFolders {
    std::string home; ///< Absolute, without a slash at its end.
    std::optional<std::string> data; ///< The folder of per-user application data, if the system names one.

    /// The program's own folder below `data`, whether or not it exists.
    std::optional<std::string> korvane() const { return data ? std::optional(*data + "/Korvane") : std::nullopt; }
    /// `path` with a leading "~" or "~/" replaced by the home folder.
    std::string expandingTilde(const std::string &path) const
    {
        if (path == "~" || path.starts_with("~/"))
            return home + path.substr(1);
        return path;
    }
    /// `path` with the home folder at its beginning replaced by "~".
    std::string abbreviatingWithTilde(const std::string &path) const
    {
        if (path == home || path.starts_with(home + "/"))
            return "~" + path.substr(home.size());
        return path;
    }
};

} // namespace korvane
