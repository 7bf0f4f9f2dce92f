#include "Vorrel/Platform/Linux/LinkedFacts.h"

#include "CommandCore/Commands.h"
#include "Vorrel/Platform/Linux/FolderFacts.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <unistd.h>

namespace korvane {

namespace {

constexpr int mostLinks = 40; ///< As many as the kernel follows in one path.

/// Where a link leads, by its text; nothing, with `errno`, for what is no link.
std::optional<std::string> textOf(int folder, const char *name)
{
    std::array<char, PATH_MAX> text;
    const auto size = ::readlinkat(folder, name, text.data(), text.size());
    return size > 0 ? std::optional(std::string(text.data(), static_cast<std::size_t>(size))) : std::nullopt;
}

/// Takes the first name off a path; empty at its end.
std::string takeName(std::string &path)
{
    const auto begin = std::min(path.find_first_not_of('/'), path.size());
    const auto end = std::min(path.find('/', begin), path.size());
    std::string name = path.substr(begin, end - begin);
    path.erase(0, end);
    return name;
}

/// Goes the way that the kernel would go from a folder without links, name by name, each asked only when it is known to
/// be on no such mount.
bool leadsOnto(const MountPoints &mounts, std::string folder, std::string rest)
{
    if (rest.starts_with('/'))
        folder = "/";
    for (int links = 1; links <= mostLinks;) {
        const std::string name = takeName(rest);
        if (name.empty())
            return false;
        if (name == ".")
            continue;
        std::string next = name == ".." ? deletingLastPathComponent(folder) : pathIn(folder, name);
        if (mounts.covers(next))
            return true;
        const auto text = name == ".." ? std::nullopt : textOf(AT_FDCWD, next.c_str());
        if (text) {
            ++links;
            rest = *text + '/' + rest;
            if (text->starts_with('/'))
                folder = "/";
            continue;
        }
        if (name != ".." && errno != EINVAL && errno != ENAMETOOLONG)
            return false; // who follows the link gets the same answer
        folder = std::move(next);
    }
    return false;
}

/// The path without links of the folder that a path is in; nothing when the system does not tell it.
std::optional<std::string> realFolderOf(const std::string &path)
{
    const std::unique_ptr<char, decltype(&std::free)> real(
        ::realpath(deletingLastPathComponent(path).c_str(), nullptr), &std::free);
    return real ? std::optional<std::string>(real.get()) : std::nullopt;
}

} // namespace

int followLink(const LinkPlace &link, const MountPoints &mounts, struct stat &facts)
{
    const auto text = textOf(link.folder, link.name);
    if (!text)
        return errno;
    if (leadsOnto(mounts, link.realFolder, *text))
        return 0;
    struct stat target { };
    if (::fstatat(link.folder, link.name, &target, AT_NO_AUTOMOUNT) != 0)
        return errno;
    facts = target;
    return 0;
}

bool leadsOnto(const MountPoints &mounts, const std::string &path) { return leadsOnto(mounts, "/", path); }

int linkedFacts(const std::string &path, const MountPoints &mounts, struct stat &facts)
{
    if (::fstatat(AT_FDCWD, path.c_str(), &facts, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) != 0)
        return errno;
    if (!S_ISLNK(facts.st_mode))
        return 0;
    const auto folder = realFolderOf(path);
    if (!folder)
        return errno;
    return followLink({AT_FDCWD, path.c_str(), *folder}, mounts.below(*folder), facts);
}

std::function<int(const std::string &, struct stat &)> presentLinkedFacts()
{
    return [present = std::make_shared<PresentMountPoints>()](
               const std::string &path, struct stat &facts) { return linkedFacts(path, *present->get(), facts); };
}

} // namespace korvane
