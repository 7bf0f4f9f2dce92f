#pragma once

#include "CommandCore/Commands.h"
#include "CommandCore/IndexedFile.h"
#include "Vorrel/Platform/Platform.h"

namespace korvane {

/// Turns files into rows and does what those rows' actions do. Main thread only; every operation looks
/// first whether the file is there and throws `FileAccessFailure` when it is not.
class FileService {
public:
    explicit FileService(Platform platform) : platform(std::move(platform)) { }

    /// One row for each file, in the given order. The service must outlive the rows' actions.
    Rows results(const std::vector<FileRecord> &records) const;

    /// Opens with the default application; "No application could open this file." when there is none.
    Task<void> open(std::string path) const;
    /// Opens with the application at `application`; its errors pass through.
    Task<void> openWith(std::string path, std::string application) const;
    /// The applications that can open the file; none is no error here.
    Task<std::vector<ApplicationHandler>> openWithHandlers(std::string path) const;
    /// Lets the user choose a folder; nothing when cancelled.
    Task<std::optional<std::string>> chooseDirectory() const;

    /// Any failure to reach a file, by the system's error number.
    static FileAccessFailure::Reason reasonOf(int errorNumber);

private:
    std::string checked(const std::string &path) const;

    Platform platform;
};

} // namespace korvane
