#include "Vorrel/Launch/SystemService.h"

#include "CommandCore/Commands.h"

namespace korvane {

Task<void> SystemService::openDirectory(std::string path) const
{
    std::string folder = platform.folders.expandingTilde(path);
    if (!co_await platform.system.openFolder(std::move(folder)))
        throw AppError(AppError::Kind::recoverable, "Finder could not open this folder.");
}

Task<void> SystemService::lockScreen() const
{
    switch (co_await platform.system.lockScreen()) {
    case SystemOutcome::done: co_return;
    case SystemOutcome::refused:
        throw AppError(AppError::Kind::permission,
            "Enable Korvane in System Settings → Privacy & Security → Accessibility to lock the screen.");
    case SystemOutcome::unavailable: throw AppError(AppError::Kind::toolExecution, "Could not create the lock-screen event.");
    }
}

Task<void> SystemService::sleep() const
{
    switch (co_await platform.system.sleep()) {
    case SystemOutcome::done: co_return;
    case SystemOutcome::refused: throw AppError(AppError::Kind::permission, "macOS did not allow this sleep request.");
    case SystemOutcome::unavailable: throw AppError(AppError::Kind::permission, "Power management is unavailable.");
    }
}

Task<void> SystemService::emptyTrash() const
{
    if (co_await platform.system.emptyTrash() != SystemOutcome::done)
        throw AppError(
            AppError::Kind::permission, "Finder could not empty the Trash. Check Automation permissions and try again.");
}

} // namespace korvane
