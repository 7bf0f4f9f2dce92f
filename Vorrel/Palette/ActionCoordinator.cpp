#include "Vorrel/Palette/ActionCoordinator.h"

#include "Vorrel/Shell/L10n.h"

namespace korvane {

Task<void> ActionCoordinator::togglePreview(std::string)
{
    throw Cancelled();
    co_return;
}

Task<void> ActionCoordinator::collectAndOpen(
    std::string path, std::vector<std::string> arguments, bool folders, ApplicationService &applications)
{
    std::string key = path;
    for (const std::string &argument : arguments)
        key += '\0' + argument;
    auto known = collected.find(key);
    if (known == collected.end()) {
        Dialogs::Choice choice;
        choice.folders = folders;
        choice.multiple = !folders;
        choice.title = folders ? L10n::shown("Choose a Folder") : L10n::shown("Choose Two Files");
        if (!folders)
            choice.message = L10n::shown(
                "Select exactly two files. Use Shift + arrow keys to extend the selection. Cancel returns to your search.");
        std::optional<std::vector<std::string>> chosen;
        std::exception_ptr failure;
        _isPresenting = true;
        try {
            chosen = co_await dialogs.choose(choice);
        } catch (...) {
            failure = std::current_exception();
        }
        _isPresenting = false;
        if (failure)
            std::rethrow_exception(failure);
        if (!chosen)
            throw Cancelled();
        if (chosen->size() != (folders ? 1u : 2u))
            throw AppError(AppError::Kind::recoverable, "Choose exactly two files to compare.");
        known = collected.emplace(std::move(key), *std::move(chosen)).first;
    }
    arguments.insert(arguments.end(), known->second.begin(), known->second.end());
    co_await applications.open(std::move(path), std::move(arguments));
}

void ActionCoordinator::reset() { _checkingAccess = false; }

} // namespace korvane
