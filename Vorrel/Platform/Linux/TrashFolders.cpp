#include "Vorrel/Platform/Linux/TrashFolders.h"

#include "Support/Descriptor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace korvane {

namespace {

using Names = std::set<std::string>;

constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

struct Identity {
    dev_t device = 0;
    ino_t number = 0;
    bool operator==(const Identity &) const = default;
};

std::optional<struct stat> statusOf(const Descriptor &file)
{
    struct stat status { };
    return ::fstat(file.get(), &status) == 0 ? std::optional(status) : std::nullopt;
}

Identity identityOf(const Descriptor &folder)
{
    const auto status = statusOf(folder);
    return status ? Identity{status->st_dev, status->st_ino} : Identity{};
}

/// Lets the owner into a folder that was thrown away without permission to read or change it.
void allowOwner(int parent, const char *name)
{
    const Descriptor folder(::openat(parent, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (folder)
        ::chmod(("/proc/self/fd/" + std::to_string(folder.get())).c_str(), 0700);
}

/// A folder in `parent` whose entries can be removed, if it is one and lies in the same file system; otherwise
/// `errno` says why not.
Descriptor openForRemoval(const Descriptor &parent, const std::string &name, dev_t device)
{
    Descriptor folder(::openat(parent.get(), name.c_str(), folderFlags));
    const bool shut = folder ? ::faccessat(folder.get(), ".", W_OK | X_OK, 0) != 0 : errno == EACCES;
    if (shut) {
        allowOwner(parent.get(), name.c_str());
        folder.reset(::openat(parent.get(), name.c_str(), folderFlags));
    }
    if (folder && identityOf(folder).device != device) {
        folder.reset();
        errno = EXDEV;
    }
    return folder;
}

/// Calls `visit` for each name in `folder` until it returns false. False when the folder cannot be read.
bool forEachName(const Descriptor &folder, const std::function<bool(const std::string &)> &visit)
{
    const int number = ::openat(folder.get(), ".", folderFlags);
    DIR *const listing = number < 0 ? nullptr : ::fdopendir(number);
    if (!listing) {
        if (number >= 0)
            ::close(number);
        return false;
    }
    const std::unique_ptr<DIR, int (*)(DIR *)> closing(listing, ::closedir);
    while (const dirent *entry = ::readdir(listing)) {
        const std::string name = entry->d_name;
        if (name != "." && name != ".." && !visit(name))
            return true;
    }
    return true;
}

/// Removes a tree's entries with one open folder at a time, so that no depth exhausts stack or descriptors.
class Removal {
public:
    Removal(Descriptor folder, std::stop_token stop) : here(std::move(folder)), stop(std::move(stop))
    {
        path.push_back(Level{{}, identityOf(here), {}});
    }

    /// Removes everything in the folder; the names directly in it that remain, or nothing when it had to give up.
    std::optional<Names> run()
    {
        while (!stop.stop_requested()) {
            std::optional<std::string> child;
            if (!removeUpToAFolder(child) || stop.stop_requested())
                break;
            if (child)
                descend(*child);
            else if (path.size() == 1)
                return std::move(path.front().kept);
            else if (!ascend())
                break;
        }
        return std::nullopt;
    }

private:
    struct Level {
        std::string name; // in the level above
        Identity identity;
        Names kept; // what could not be removed
    };

    /// Removes files and empty folders here, up to the first folder that has to be emptied before: `found`.
    /// False when the folder cannot be read.
    bool removeUpToAFolder(std::optional<std::string> &found)
    {
        Names &kept = path.back().kept;
        return forEachName(here, [&](const std::string &name) {
            if (stop.stop_requested())
                return false;
            if (kept.contains(name) || ::unlinkat(here.get(), name.c_str(), 0) == 0)
                return true;
            if (errno != EISDIR && errno != EPERM) {
                kept.insert(name);
                return true;
            }
            if (::unlinkat(here.get(), name.c_str(), AT_REMOVEDIR) == 0)
                return true;
            if (errno != ENOTEMPTY && errno != EEXIST) {
                kept.insert(name);
                return true;
            }
            found = name;
            return false;
        });
    }

    void descend(const std::string &name)
    {
        Descriptor below = openForRemoval(here, name, path.front().identity.device);
        if (!below) {
            path.back().kept.insert(name);
            return;
        }
        path.push_back(Level{name, identityOf(below), {}});
        here = std::move(below);
    }

    /// False when the tree was moved meanwhile, so that the way back leads elsewhere.
    bool ascend()
    {
        const Level done = std::move(path.back());
        path.pop_back();
        Descriptor above(::openat(here.get(), "..", folderFlags));
        if (!above || identityOf(above) != path.back().identity)
            return false;
        here = std::move(above);
        if (!done.kept.empty() || ::unlinkat(here.get(), done.name.c_str(), AT_REMOVEDIR) != 0)
            path.back().kept.insert(done.name);
        return true;
    }

    Descriptor here;
    const std::stop_token stop;
    std::vector<Level> path; // never empty
};

/// Removes everything in the folder `name` of a trash. No folder there means that nothing is to be done.
std::optional<Names> emptyFolder(const Descriptor &trash, const std::string &name, const std::stop_token &stop)
{
    Descriptor folder = openForRemoval(trash, name, identityOf(trash).device);
    if (!folder)
        return errno == ENOENT ? std::optional<Names>(std::in_place) : std::nullopt;
    return Removal(std::move(folder), stop).run();
}

/// Removes the notes on the files that are gone. Those on files that stayed are still needed to restore them.
bool removeNotes(const Descriptor &trash, const Names &filesKept, const std::stop_token &stop)
{
    if (filesKept.empty()) {
        const auto kept = emptyFolder(trash, "info", stop);
        return kept && kept->empty();
    }
    const Descriptor notes(::openat(trash.get(), "info", folderFlags));
    if (!notes)
        return false;
    Names gone;
    forEachName(notes, [&](const std::string &name) {
        constexpr std::string_view suffix = ".trashinfo";
        if (name.ends_with(suffix) && !filesKept.contains(name.substr(0, name.size() - suffix.size())))
            gone.insert(name);
        return true;
    });
    for (const auto &name : gone)
        ::unlinkat(notes.get(), name.c_str(), 0);
    return false;
}

bool emptyTrash(const Descriptor &trash, const std::stop_token &stop)
{
    const auto filesKept = emptyFolder(trash, "files", stop);
    if (!filesKept)
        return false;
    const bool emptied = removeNotes(trash, *filesKept, stop);
    ::unlinkat(trash.get(), "directorysizes", 0); // sizes of what was just removed; absent in most
    return emptied;
}

/// Whose fault it is when there is something that cannot be the user's trash: on a volume anybody may have put
/// it there, and it holds nothing of the user's; in the user's own folder it is a failure.
enum class Foreign { Ignore, Fail };

bool emptyIfThere(
    const Descriptor &parent, const std::string &name, const TrashPlaces &places, Foreign foreign, const std::stop_token &stop)
{
    const Descriptor trash(::openat(parent.get(), name.c_str(), folderFlags));
    if (!trash && errno == ENOENT)
        return true;
    const auto status = trash ? statusOf(trash) : std::nullopt;
    if (!status || status->st_uid != places.user)
        return foreign == Foreign::Ignore;
    return emptyTrash(trash, stop);
}

/// The trash that all users of a volume share counts only with the sticky bit, and never through a link.
Descriptor sharedTrash(const Descriptor &volume)
{
    Descriptor shared(::openat(volume.get(), ".Trash", folderFlags));
    const auto status = shared ? statusOf(shared) : std::nullopt;
    if (!status || !(status->st_mode & S_ISVTX))
        shared.reset();
    return shared;
}

bool emptyVolume(const std::string &folder, const TrashPlaces &places, const std::stop_token &stop)
{
    const std::string user = std::to_string(places.user);
    const Descriptor volume(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!volume)
        return true; // not for this user, so nothing of this user's is there
    bool emptied = true;
    if (const Descriptor shared = sharedTrash(volume))
        emptied = emptyIfThere(shared, user, places, Foreign::Ignore, stop);
    return emptyIfThere(volume, ".Trash-" + user, places, Foreign::Ignore, stop) && emptied;
}

// Mount tables

std::vector<std::string_view> words(std::string_view line)
{
    std::vector<std::string_view> words;
    while (!line.empty()) {
        const auto end = std::min(line.find(' '), line.size());
        if (end > 0)
            words.push_back(line.substr(0, end));
        line.remove_prefix(std::min(end + 1, line.size()));
    }
    return words;
}

/// The kernel writes blanks, line ends and backslashes as three octal digits.
std::string unescaped(std::string_view word)
{
    const auto octal = [](char c) { return c >= '0' && c <= '7'; };
    std::string text;
    for (std::size_t at = 0; at < word.size(); ++at) {
        if (word[at] == '\\' && at + 3 < word.size() && octal(word[at + 1]) && octal(word[at + 2]) && octal(word[at + 3])) {
            text.push_back(static_cast<char>((word[at + 1] - '0') * 64 + (word[at + 2] - '0') * 8 + (word[at + 3] - '0')));
            at += 3;
        } else {
            text.push_back(word[at]);
        }
    }
    return text;
}

/// File systems that hold no files of a user, or that a mere look would mount.
bool isPseudo(std::string_view type)
{
    static constexpr std::array<std::string_view, 27> pseudo{"autofs", "binfmt_misc", "bpf", "cgroup", "cgroup2", "configfs",
        "debugfs", "devpts", "devtmpfs", "efivarfs", "fusectl", "fuse.gvfsd-fuse", "fuse.portal", "fuse.snapfuse", "hugetlbfs",
        "mqueue", "nsfs", "proc", "pstore", "ramfs", "rpc_pipefs", "securityfs", "selinuxfs", "squashfs", "sysfs", "tracefs",
        "none"};
    return std::ranges::find(pseudo, type) != pseudo.end();
}

bool isReadOnly(std::string_view options) { return options == "ro" || options.starts_with("ro,"); }

std::string contentsOf(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

} // namespace

std::vector<std::string> volumesOf(std::string_view mountTable)
{
    // id parent major:minor root folder options tags… - type source options
    constexpr std::size_t folder = 4, options = 5;
    std::vector<std::string> volumes;
    while (!mountTable.empty()) {
        const auto end = std::min(mountTable.find('\n'), mountTable.size());
        const auto fields = words(mountTable.substr(0, end));
        mountTable.remove_prefix(std::min(end + 1, mountTable.size()));
        const auto dash = std::ranges::find(fields, "-");
        if (dash - fields.begin() <= static_cast<std::ptrdiff_t>(options) || fields.end() - dash < 2)
            continue;
        if (isPseudo(dash[1]) || isReadOnly(fields[options]))
            continue;
        std::string volume = unescaped(fields[folder]);
        if (std::ranges::find(volumes, volume) == volumes.end())
            volumes.push_back(std::move(volume));
    }
    return volumes;
}

bool emptyTrashFolders(const TrashPlaces &places, std::stop_token stop)
{
    bool emptied = true;
    if (!places.dataHome.empty()) {
        const Descriptor home(::open(places.dataHome.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (home)
            emptied = emptyIfThere(home, "Trash", places, Foreign::Fail, stop);
    }
    for (const auto &volume : volumesOf(contentsOf(places.mounts))) {
        if (stop.stop_requested())
            return false;
        emptied = emptyVolume(volume, places, stop) && emptied;
    }
    return emptied && !stop.stop_requested();
}

} // namespace korvane
