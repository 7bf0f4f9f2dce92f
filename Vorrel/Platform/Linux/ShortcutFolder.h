#pragma once

#include <optional>
#include <string>
#include <vector>

namespace korvane {

/// The user's shortcuts: the executable files of one folder, each named like the file without its extension.
///
/// Not among them are hidden files, folders, and names that could be taken for an option or could not be told in one line: with
/// a "-" at the beginning, blanks at an end, or characters that do not show. Of two files with one name the first counts, by
/// the order of their file names. Links are followed. Looks at the disk; any thread.
class ShortcutFolder {
public:
    explicit ShortcutFolder(std::string path) : path(std::move(path)) { }
    /// "~/.config/korvane/shortcuts" below a home folder.
    static ShortcutFolder below(const std::string &home) { return ShortcutFolder(home + "/.config/korvane/shortcuts"); }

    /// Names, in the order in which a file manager shows them. Empty where there is no folder.
    std::vector<std::string> names() const;
    /// The file of a shortcut; nothing for a name that is not among `names`.
    std::optional<std::string> file(const std::string &name) const;

private:
    struct Shortcut {
        std::string name, file;
    };
    std::vector<Shortcut> shortcuts() const;

    const std::string path;
};

/// Does what the arguments say: "list", "run NAME", "view NAME". Gives the exit status: 0, 1 with one sentence on standard
/// error for a name that is none or a program that does not start, 2 for wrong usage. "run" does not return when the
/// shortcut starts: it takes the place of this process, in the home folder.
int runShortcutsTool(const std::vector<std::string> &arguments);

} // namespace korvane
