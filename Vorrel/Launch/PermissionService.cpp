#include "Vorrel/Launch/PermissionService.h"

#include "Vorrel/Shell/L10n.h"

namespace korvane {

Task<void> PermissionService::confirm(std::string title, std::string detail) const
{
    std::string shownTitle = L10n::shown(title);
    std::string shownDetail = L10n::shown(detail);
    if (!co_await dialogs->confirm(std::move(shownTitle), std::move(shownDetail)))
        throw AppError(AppError::Kind::permission, "The operation was cancelled.");
}

Task<void> PermissionService::authorize(ActionRole role, std::string title, std::string detail) const
{
    if (role == ActionRole::destructive)
        co_await confirm(std::move(title), std::move(detail));
}

} // namespace korvane
