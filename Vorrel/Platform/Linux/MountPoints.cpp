#include "Vorrel/Platform/Linux/MountPoints.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <poll.h>

namespace korvane {

namespace fs = std::filesystem;

namespace {

/// Served by other machines: a call may wait for one that has gone.
constexpr std::array networkTypes{"9p", "afs", "beegfs", "ceph", "cifs", "coda", "davfs", "gfs", "gfs2", "glusterfs", "gpfs",
    "lustre", "ncp", "ncpfs", "nfs", "nfs4", "ocfs2", "orangefs", "pvfs2", "smb3", "smbfs", "sshfs"};

/// What the kernel or a service shows as files. To look into an autofs is to ask for a mount.
constexpr std::array pseudoTypes{"autofs", "binder", "binfmt_misc", "bpf", "cgroup", "cgroup2", "configfs", "cpuset", "debugfs",
    "devpts", "devtmpfs", "efivarfs", "functionfs", "fusectl", "hugetlbfs", "mqueue", "nfsd", "nsfs", "proc", "pstore", "resctrl",
    "rpc_pipefs", "securityfs", "selinuxfs", "smackfs", "sysfs", "tracefs"};

/// Programs that serve files of this machine. Any other may speak to a network, and hang with it.
constexpr std::array localFuseTypes{"fuse.bindfs", "fuse.cryfs", "fuse.encfs", "fuse.exfat", "fuse.fuse-overlayfs",
    "fuse.gocryptfs", "fuse.mergerfs", "fuse.ntfs", "fuse.ntfs-3g", "fuse.securefs", "fuse.unionfs", "fuse.unionfs-fuse",
    "fuse.zfs-fuse"};

constexpr int deepestStack = 8; // devices upon devices

struct Mount {
    int identifier = 0;
    int parent = 0;
    unsigned major = 0;
    unsigned minor = 0;
    std::string path;
    std::string type;
};

bool isOneOf(const auto &names, std::string_view name) { return std::ranges::find(names, name) != names.end(); }

bool isStoreOfThisMachine(std::string_view type)
{
    if (type == "fuse" || type.starts_with("fuse."))
        return isOneOf(localFuseTypes, type);
    return !isOneOf(networkTypes, type) && !isOneOf(pseudoTypes, type);
}

/// The text up to the next `separator`, which is taken away with it.
std::string_view take(std::string_view &rest, char separator)
{
    const auto end = rest.find(separator);
    const auto taken = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    return taken;
}

template <class Number> bool parse(std::string_view text, Number &number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

bool isOctal(char digit) { return digit >= '0' && digit <= '7'; }

/// Spaces, tabs, newlines and backslashes stand in the table as a backslash and three octal digits.
std::string unescaped(std::string_view text)
{
    std::string plain;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '\\' && at + 3 < text.size() && isOctal(text[at + 1]) && isOctal(text[at + 2]) && isOctal(text[at + 3])) {
            plain += static_cast<char>((text[at + 1] - '0') * 64 + (text[at + 2] - '0') * 8 + (text[at + 3] - '0'));
            at += 3;
        } else {
            plain += text[at];
        }
    }
    return plain;
}

/// One line of the table; nothing when it is not one.
std::optional<Mount> mountOf(std::string_view line)
{
    Mount mount;
    if (!parse(take(line, ' '), mount.identifier) || !parse(take(line, ' '), mount.parent))
        return std::nullopt;
    std::string_view numbers = take(line, ' ');
    if (!parse(take(numbers, ':'), mount.major) || !parse(numbers, mount.minor))
        return std::nullopt;
    take(line, ' '); // where in its file system the mount begins
    mount.path = unescaped(take(line, ' '));
    const auto optionalEnd = line.find(" - "); // after the options and any number of optional fields
    if (!mount.path.starts_with('/') || optionalEnd == std::string_view::npos)
        return std::nullopt;
    line.remove_prefix(optionalEnd + 3);
    mount.type = unescaped(take(line, ' '));
    return mount;
}

bool liesBelow(std::string_view path, std::string_view folder)
{
    if (folder == "/")
        return path.size() > 1;
    return path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/';
}

/// All mounts of a table, by their identifiers.
class MountTable {
public:
    explicit MountTable(std::string_view mountInfo)
    {
        while (!mountInfo.empty()) {
            if (const auto mount = mountOf(take(mountInfo, '\n')))
                mounts.insert_or_assign(mount->identifier, *mount);
        }
        for (const auto &[identifier, mount] : mounts)
            mountedOn[mount.parent].push_back(&mount);
    }

    const std::map<int, Mount> &all() const { return mounts; }

    /// Whether a path leads to it: nothing is mounted over it nor over a folder on the way to it.
    bool isReachable(const Mount &mount) const
    {
        const auto over = mountedOn.find(mount.identifier);
        const bool covered = over != mountedOn.end() && std::ranges::any_of(over->second, [&](const Mount *other) {
            return other != &mount && other->path == mount.path;
        });
        return !covered && !isBuried(mount);
    }

private:
    bool isBuried(const Mount &lowest) const
    {
        const Mount *mount = &lowest;
        for (std::size_t steps = 0; steps <= mounts.size(); ++steps) {
            const bool buried = std::ranges::any_of(
                mountedOn.at(mount->parent), [&](const Mount *other) { return liesBelow(mount->path, other->path); });
            if (buried)
                return true;
            const auto parent = mounts.find(mount->parent);
            if (parent == mounts.end() || &parent->second == mount)
                return false;
            mount = &parent->second;
        }
        return false;
    }

    std::map<int, Mount> mounts;
    std::map<int, std::vector<const Mount *>> mountedOn;
};

std::string contentsOf(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

/// Whether the device described in a folder of sysfs, or one that it is made of, can be taken out.
bool canBeTakenOut(const fs::path &device, int depth = 0)
{
    std::error_code ignored;
    const fs::path described = fs::canonical(device, ignored);
    if (described.empty() || depth > deepestStack)
        return false;
    // A partition has no such file, but its disk above it has. Disks behind USB call themselves fixed.
    if (contentsOf(described / "removable").starts_with('1') || contentsOf(described.parent_path() / "removable").starts_with('1')
        || described.native().find("/usb") != std::string::npos)
        return true;
    for (fs::directory_iterator part(described / "slaves", ignored); part != fs::directory_iterator(); part.increment(ignored)) {
        if (canBeTakenOut(part->path(), depth + 1))
            return true;
    }
    return false;
}

bool isRemovableDevice(unsigned major, unsigned minor)
{
    return canBeTakenOut("/sys/dev/block/" + std::to_string(major) + ":" + std::to_string(minor));
}

constexpr char ownTable[] = "/proc/self/mountinfo";

} // namespace

MountPoints MountPoints::read() { return {contentsOf(ownTable), isRemovableDevice}; }

MountPoints::MountPoints(std::string_view mountInfo, const IsRemovable &isRemovable)
{
    const MountTable table(mountInfo);
    for (const auto &[identifier, mount] : table.all()) {
        const bool indexed = isStoreOfThisMachine(mount.type) && !isRemovable(mount.major, mount.minor);
        if (!indexed && table.isReachable(mount))
            excluded.push_back(mount.path);
    }
    std::ranges::sort(excluded);
    excluded.erase(std::unique(excluded.begin(), excluded.end()), excluded.end());
}

MountPoints MountPoints::below(std::string_view root) const
{
    MountPoints rest;
    std::ranges::copy_if(excluded, std::back_inserter(rest.excluded),
        [root](const std::string &mount) { return mount != root && !liesBelow(root, mount); });
    return rest;
}

bool MountPoints::excludes(std::string_view path) const { return std::ranges::binary_search(excluded, path); }

bool MountPoints::someBelow(std::string_view folder) const
{
    const std::string prefix = folder == "/" ? "/" : std::string(folder) + "/";
    const auto first = std::ranges::upper_bound(excluded, prefix);
    return first != excluded.end() && first->starts_with(prefix);
}

bool MountPoints::covers(std::string_view path) const
{
    return std::ranges::any_of(excluded, [path](const std::string &mount) { return path == mount || liesBelow(path, mount); });
}

std::shared_ptr<const MountPoints> PresentMountPoints::get()
{
    const std::scoped_lock lock(mutex);
    if (haveChanged())
        last = std::make_shared<const MountPoints>(MountPoints::read());
    return last;
}

bool PresentMountPoints::haveChanged()
{
    if (!table)
        table.reset(::open(ownTable, O_RDONLY | O_CLOEXEC));
    pollfd changes{table.get(), POLLPRI, 0};
    const bool known = last && table && ::poll(&changes, 1, 0) == 0;
    return !known;
}

} // namespace korvane
