#include "Vorrel/FileIndex/FileService.h"

#include "Support/Text.h"
#include "Vorrel/FileIndex/FilePreviewAccess.h"
#include "Vorrel/Shell/Formats.h"
#include "Vorrel/Shell/L10n.h"

#include <cerrno>
#include <filesystem>
#include <sys/stat.h>

namespace korvane {

namespace {

/// The part of the name behind its last point, in upper case; empty without one.
std::string typeOf(const std::string &name)
{
    const auto point = name.rfind('.');
    return point == name.npos || point == 0 ? std::string() : uppercased(name.substr(point + 1));
}

/// What it is, when it was changed, where it is.
std::string subtitleOf(const FileRecord &record, const UserFolders &folders)
{
    const std::string language = L10n::languageInUse();
    std::string subtitle;
    if (record.isDirectory) {
        subtitle = L10n::text("Folders");
    } else {
        const std::string type = displayable(typeOf(record.name));
        subtitle = (type.empty() ? L10n::text("File") : type) + " · " + formattedByteCount(record.size, language);
    }
    if (record.modified)
        subtitle += " · " + formattedDate(*record.modified, language);
    return subtitle + " · " + displayable(folders.abbreviatingWithTilde(record.path));
}

} // namespace

Rows FileService::results(const std::vector<FileRecord> &records) const
{
    Rows rows;
    rows.reserve(records.size());
    for (const FileRecord &record : records) {
        rows.push_back(makeRow({
            .id = "file:" + record.path,
            .title = displayable(record.name),
            .subtitle = subtitleOf(record, platform.folders),
            .icon = CommandIcon::file(record.path),
            .preview = PreviewResource::file(record.path),
            .actions = actionsOf(record.path),
        }));
    }
    return rows;
}

std::vector<CommandAction> FileService::actionsOf(const std::string &path) const
{
    using enum ActionDismissal;
    return {
        {.id = "open", .title = L10n::key("Open"), .execute = [this, path] { return open(path); }},
        {.id = "openWith", .title = L10n::key("Open With…"), .dismissal = keepOpen, .flow = ActionFlow::openWith(path)},
        {.id = "preview",
            .title = L10n::key("Quick Look"),
            .key = ActionKey::preview,
            .dismissal = keepOpen,
            .flow = ActionFlow::preview(path)},
        {.id = "reveal",
            .title = L10n::key("Show in Finder"),
            .key = ActionKey::reveal,
            .execute = [this, path] { return reveal(path); }},
        {.id = "copyPath",
            .title = L10n::key("Copy Path"),
            .key = ActionKey::copyPath,
            .dismissal = keepOpen,
            .role = ActionRole::write,
            .execute = [this, path] { return copyPath(path); }},
    };
}

std::string FileService::url(const std::string &path) const
{
    if (path.find('\0') != path.npos)
        throw FileAccessFailure(FileAccessFailure::Reason::unavailable); // the system would see what stands before the zero
    std::error_code nowhere; // leaves an empty path, which is missing
    auto whole = std::filesystem::absolute(platform.folders.expandingTilde(path), nowhere).lexically_normal();
    if (!whole.has_filename())
        whole = whole.parent_path();
    struct stat status;
    if (::stat(whole.c_str(), &status) != 0)
        throw FileAccessFailure(FilePreviewAccess::reasonOf(errno));
    return whole.native();
}

Task<void> FileService::open(std::string path) const
{
    auto opened = platform.workspace.open(url(path));
    if (!co_await std::move(opened))
        throw AppError(AppError::Kind::recoverable, "No application could open this file.");
}

Task<void> FileService::openWith(std::string path, std::string application) const
{
    co_await platform.workspace.openWith(url(path), std::move(application));
}

Task<void> FileService::reveal(std::string path) const { co_await platform.workspace.reveal(url(path)); }

Task<void> FileService::copyPath(std::string path) const { co_await platform.pasteboard.copy(std::move(path)); }

Task<std::vector<ApplicationHandler>> FileService::openWithHandlers(std::string path) const
{
    co_return co_await platform.workspace.handlers(url(path));
}

Task<std::optional<std::string>> FileService::chooseDirectory() const
{
    Dialogs::Choice choice;
    choice.folders = true;
    choice.title = L10n::shown("Choose a Folder to Search");
    choice.prompt = L10n::shown("Search Here");
    choice.message = L10n::shown("Choose a folder to narrow results to that scope. Search still covers every indexed root.");
    choice.directory = platform.folders.home;
    const auto chosen = co_await platform.dialogs.choose(choice);
    if (!chosen || chosen->empty())
        co_return std::nullopt;
    co_return chosen->front();
}

} // namespace korvane
