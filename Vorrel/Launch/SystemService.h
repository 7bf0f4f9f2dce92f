#pragma once

#include "Vorrel/Platform/Platform.h"

namespace korvane {

/// The built-in commands that act on the system. Main thread only. Failures are `AppError`s whose
/// sentences name where the user can mend them.
class SystemService {
public:
    explicit SystemService(Platform platform) : platform(std::move(platform)) { }

    /// Opens a folder in the file manager; a leading tilde is the home folder.
    Task<void> openDirectory(std::string path) const;
    Task<void> lockScreen() const;
    Task<void> sleep() const;
    Task<void> emptyTrash() const;

private:
    Platform platform;
};

} // namespace korvane
