#pragma once

#include "CommandCore/Commands.h"
#include "CommandCore/IndexedFile.h"
#include "Vorrel/Platform/Platform.h"

namespace korvane {

/// Turns files into rows and does what those rows' actions do. Main thread only; every operation on a file
/// but `copyPath` looks first whether it is there and throws `FileAccessFailure` when it is not.
class FileService {
public:
    explicit FileService(Platform platform) : platform(std::move(platform)) { }

    /// One row for each file, in the given order. The service must outlive the rows' actions.
    Rows results(const std::vector<FileRecord> &records) const;

    /// The absolute path without "..", doubled slashes and one at its end, for a path that may begin with a tilde. Asks the
    /// system whether the file is there, which blocks for as long as that takes: for one path at the user's command.
    std::string url(const std::string &path) const;

    /// Opens with the default application; "No application could open this file." when there is none.
    Task<void> open(std::string path) const;
    /// Opens with the application at `application`; its errors pass through.
    Task<void> openWith(std::string path, std::string application) const;
    /// Shows the file in a window of the file manager.
    Task<void> reveal(std::string path) const;
    /// Puts the path as it is, byte by byte, on the clipboard; "Could not update the clipboard." when that is refused.
    Task<void> copyPath(std::string path) const;
    /// The applications that can open the file; none is no error here.
    Task<std::vector<ApplicationHandler>> openWithHandlers(std::string path) const;
    /// Lets the user choose a folder; nothing when cancelled.
    Task<std::optional<std::string>> chooseDirectory() const;

private:
    std::vector<CommandAction> actionsOf(const std::string &path) const;

    Platform platform;
};

} // namespace korvane
