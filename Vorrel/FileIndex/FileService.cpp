#include "Vorrel/FileIndex/FileService.h"

#include "Support/Text.h"
#include "Vorrel/Shell/L10n.h"

#include <cerrno>
#include <filesystem>
#include <sys/stat.h>

namespace korvane {

Rows FileService::results(const std::vector<IndexedFile> &files) const
{
    Rows rows;
    rows.reserve(files.size());
    for (const IndexedFile &file : files) {
        rows.push_back(makeRow({
            .id = "file:" + file.path,
            .title = displayable(file.name),
            .subtitle = displayable(file.path),
            .icon = CommandIcon::file(file.path),
            .preview = PreviewResource::file(file.path),
            .actions = {{.id = "open", .title = L10n::key("Open"), .execute = [this, path = file.path] { return open(path); }}},
        }));
    }
    return rows;
}

FileAccessFailure::Reason FileService::reasonOf(int errorNumber)
{
    using enum FileAccessFailure::Reason;
    switch (errorNumber) {
    case EACCES:
    case EPERM: return permission;
    case ENOENT:
    case ENOTDIR: return missing;
    case EIO:
    case ENODEV:
    case ESTALE: return offline;
    default: return unavailable;
    }
}

std::string FileService::checked(const std::string &path) const
{
    const std::string whole = std::filesystem::path(platform.folders.expandingTilde(path)).lexically_normal().string();
    struct stat status;
    if (::stat(whole.c_str(), &status) != 0)
        throw FileAccessFailure(reasonOf(errno));
    return whole;
}

Task<void> FileService::open(std::string path) const
{
    auto opened = platform.workspace.open(checked(path));
    if (!co_await std::move(opened))
        throw AppError(AppError::Kind::recoverable, "No application could open this file.");
}

Task<void> FileService::openWith(std::string path, std::string application) const
{
    co_await platform.workspace.openWith(checked(path), std::move(application));
}

Task<std::vector<ApplicationHandler>> FileService::openWithHandlers(std::string path) const
{
    co_return co_await platform.workspace.handlers(checked(path));
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
