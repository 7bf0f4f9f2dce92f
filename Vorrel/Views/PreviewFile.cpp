#include "Vorrel/Views/PreviewFile.h"

#include <QFile>
#include <QMimeDatabase>

#include <algorithm>
#include <array>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace korvane {

static constexpr std::size_t headBytes = 16 * 1024; // what a kind is known by

namespace {

/// Those that a decoder is there for.
bool isPicture(const QMimeType &type)
{
    static const QStringList names{QStringLiteral("image/png"), QStringLiteral("image/apng"), QStringLiteral("image/jpeg"),
        QStringLiteral("image/gif"), QStringLiteral("image/webp"), QStringLiteral("image/bmp"), QStringLiteral("image/svg+xml"),
        QStringLiteral("image/tiff"), QStringLiteral("image/vnd.microsoft.icon"), QStringLiteral("image/x-tga"),
        QStringLiteral("image/x-xbitmap"), QStringLiteral("image/x-xpixmap"), QStringLiteral("image/x-portable-bitmap"),
        QStringLiteral("image/x-portable-graymap"), QStringLiteral("image/x-portable-pixmap"), QStringLiteral("image/x-icns"),
        QStringLiteral("image/vnd.wap.wbmp"), QStringLiteral("video/x-mng")};
    return names.contains(type.name());
}

bool isDocument(const QMimeType &type) { return type.inherits(QStringLiteral("application/pdf")); }

bool isText(const QMimeType &type) { return type.inherits(QStringLiteral("text/plain")); }

QMimeType typeByName(const QMimeDatabase &types, const QString &name)
{
    const QList<QMimeType> all = types.mimeTypesForFileName(name);
    return all.isEmpty() ? QMimeType() : all.front();
}

bool readsAsText(std::string_view head)
{
    return !head.empty() && previewText::decoded(head, previewText::Extent::Cut).has_value();
}

/// What the bytes are; where they say little, what the name says if they do not deny it.
QMimeType typeOf(const QString &name, std::string_view head)
{
    const QMimeDatabase types;
    const QMimeType named = typeByName(types, name);
    const QMimeType content = types.mimeTypeForData(QByteArray::fromRawData(head.data(), qsizetype(head.size())));
    const bool saysLittle = content.isDefault() || head.empty() || isText(content);
    if (!saysLittle)
        return named.isValid() && named.inherits(content.name()) ? named : content;
    if (!named.isValid())
        return readsAsText(head) && content.isDefault() ? types.mimeTypeForName(QStringLiteral("text/plain")) : content;
    const bool denied = !head.empty() && isText(named) != readsAsText(head);
    return denied ? (isText(named) ? types.mimeTypeForName(QStringLiteral("application/octet-stream")) : content) : named;
}

PreviewKind kindOf(const QMimeType &type, std::string_view head)
{
    if (isPicture(type))
        return PreviewKind::Picture;
    if (isDocument(type))
        return PreviewKind::Document;
    return isText(type) && readsAsText(head) ? PreviewKind::Text : PreviewKind::Other;
}

QString nameOf(const std::string &path) { return QFile::decodeName(QByteArray::fromStdString(path.substr(path.rfind('/') + 1))); }

/// Reads until `most` bytes are there or no more come.
std::string readUpTo(const Descriptor &file, std::size_t most)
{
    std::string bytes(most, '\0');
    std::size_t count = 0;
    while (count < most) {
        const ssize_t got = ::pread(file.get(), bytes.data() + count, most - count, off_t(count));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        count += std::size_t(got);
    }
    bytes.resize(count);
    return bytes;
}

void describe(PreviewFile &file, const QMimeType &type)
{
    file.kindName = type.comment();
    file.icons = {type.iconName(), type.genericIconName()};
    for (const QString &parent : type.parentMimeTypes())
        file.icons += QString(parent).replace(u'/', u'-');
    file.icons += {QStringLiteral("text-x-generic"), QStringLiteral("unknown")};
}

void readText(PreviewFile &file, const Descriptor &content)
{
    const std::string bytes = readUpTo(content, previewText::mostBytes + 1);
    file.isCut = bytes.size() > previewText::mostBytes;
    const std::string_view shown = std::string_view(bytes).substr(0, previewText::mostBytes);
    const auto text = previewText::decoded(shown, file.isCut ? previewText::Extent::Cut : previewText::Extent::Whole);
    if (text)
        file.text = previewText::lined(*text);
    else
        file.kind = PreviewKind::Other; // it only began like one
}

void readRegular(PreviewFile &file, const std::string &path)
{
    // Not blocking: what was a file a moment ago may be a pipe now.
    auto content = std::make_shared<Descriptor>(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status { };
    file.readable = *content && ::fstat(content->get(), &status) == 0 && S_ISREG(status.st_mode);
    const std::string head = file.readable ? readUpTo(*content, headBytes) : std::string();
    const QMimeType type = typeOf(nameOf(path), head);
    describe(file, type);
    file.kind = kindOf(type, head);
    if (!file.readable)
        return;
    if (file.kind == PreviewKind::Text)
        readText(file, *content);
    else if (file.kind != PreviewKind::Other)
        file.content = std::move(content);
}

const char *typeOfSpecial(mode_t mode)
{
    switch (mode & S_IFMT) {
    case S_IFIFO: return "inode/fifo";
    case S_IFSOCK: return "inode/socket";
    case S_IFBLK: return "inode/blockdevice";
    case S_IFCHR: return "inode/chardevice";
    default: return "inode/directory";
    }
}

} // namespace

PreviewKind previewKindOf(const std::string &name, std::string_view head) { return kindOf(typeOf(nameOf(name), head), head); }

PreviewFile readPreviewFile(const std::string &path)
{
    PreviewFile file;
    struct stat status { };
    file.exists = ::stat(path.c_str(), &status) == 0;
    if (!file.exists) {
        describe(file, typeOf(nameOf(path), {}));
        return file;
    }
    file.size = status.st_size;
    file.modified = double(status.st_mtim.tv_sec) + double(status.st_mtim.tv_nsec) / 1e9;
    if (S_ISREG(status.st_mode)) {
        readRegular(file, path);
        return file;
    }
    file.readable = true;
    describe(file, QMimeDatabase().mimeTypeForName(QLatin1String(typeOfSpecial(status.st_mode))));
    if (S_ISDIR(status.st_mode)) {
        file.kind = PreviewKind::Folder;
        file.icons.prepend(QStringLiteral("folder"));
    }
    return file;
}

// Folders

namespace {

class FolderWalk {
public:
    FolderWalk(Descriptor root, dev_t device, FolderSum &sum, const std::stop_token &stop) :
        root(std::move(root)), device(device), sum(sum), stop(stop)
    {
        waiting.emplace_back(".");
    }

    void run()
    {
        while (!waiting.empty() && !stop.stop_requested()) {
            const std::string folder = std::move(waiting.back());
            waiting.pop_back();
            addFolder(folder);
        }
    }

private:
    void addFolder(const std::string &folder)
    {
        const int opened = ::openat(root.get(), folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (opened < 0)
            return;
        const std::unique_ptr<DIR, int (*)(DIR *)> entries(::fdopendir(opened), ::closedir);
        if (!entries) {
            ::close(opened);
            return;
        }
        while (const dirent *entry = ::readdir(entries.get())) {
            if (stop.stop_requested())
                return;
            const std::string_view name = entry->d_name;
            if (name != "." && name != "..")
                addEntry(opened, folder, entry->d_name);
        }
    }

    void addEntry(int folder, const std::string &path, const char *name)
    {
        struct stat status { };
        if (::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) != 0)
            return;
        sum.items++;
        if (S_ISREG(status.st_mode))
            sum.bytes += status.st_size;
        else if (S_ISDIR(status.st_mode) && status.st_dev == device)
            waiting.push_back(path + "/" + name);
    }

    const Descriptor root;
    const dev_t device;
    FolderSum &sum;
    const std::stop_token &stop;
    std::vector<std::string> waiting; // relative to the root
};

} // namespace

void sumFolder(const std::string &path, FolderSum &sum, const std::stop_token &stop)
{
    Descriptor root(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status { };
    if (root && ::fstat(root.get(), &status) == 0)
        FolderWalk(std::move(root), status.st_dev, sum, stop).run();
    sum.complete = !stop.stop_requested();
}

} // namespace korvane
