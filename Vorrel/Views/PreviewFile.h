#pragma once

#include "Support/Descriptor.h"
#include "Vorrel/Views/PreviewText.h"

#include <QString>
#include <QStringList>

#include <atomic>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

/// What a preview finds out about a file. Everything here blocks for as long as the system does, which may be for good:
/// it runs on threads that nobody waits for. Any thread.
namespace korvane {

/// How a file can be shown.
enum class PreviewKind { Picture, Document, Text, Folder, Other };

struct PreviewFile {
    PreviewKind kind = PreviewKind::Other;
    bool exists = false;
    bool readable = false; ///< Or there is nothing to read in it.
    QString kindName; ///< As the desktop calls it, in the toolkit's language.
    QStringList icons; ///< Names in icon themes, the best first.
    long long size = 0; ///< Bytes; of a folder nothing of note.
    double modified = 0; ///< Seconds since 1970.
    std::shared_ptr<const Descriptor> content; ///< Of a picture or a document.
    previewText::Lines text; ///< Of a text.
    bool isCut = false; ///< The text goes on.
};

/// Looks at the file and reads it, if it is a text. Never waits for a pipe's other end, and opens no device.
PreviewFile readPreviewFile(const std::string &path);

/// How a file of that name with these first bytes can be shown: what they are counts for more than what the name says. Only
/// regular files.
PreviewKind previewKindOf(const std::string &name, std::string_view head);

/// What is in a folder, added up while others look.
struct FolderSum {
    std::atomic<long long> items = 0; ///< Files and folders at any depth.
    std::atomic<long long> bytes = 0; ///< Of the regular files.
    std::atomic<bool> complete = false;
};

/// Adds everything below the folder at `path` to `sum`, until that is complete or `stop` says so. Follows no links, and
/// enters no other file system.
void sumFolder(const std::string &path, FolderSum &sum, const std::stop_token &stop);

} // namespace korvane
