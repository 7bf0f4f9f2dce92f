#include "CommandCore/Commands.h"

namespace korvane {

std::string AppError::friendly(const std::exception_ptr &error)
{
    try {
        std::rethrow_exception(error);
    } catch (const Cancelled &) {
        return "Operation cancelled.";
    } catch (const AppError &known) {
        return known.errorDescription();
    } catch (...) {
        return "The operation could not be completed. Please try again or check permissions.";
    }
}

std::string_view rawValue(ActionKey key)
{
    switch (key) {
    case ActionKey::preview: return "preview";
    case ActionKey::reveal: return "reveal";
    case ActionKey::copyPath: return "copyPath";
    }
    return {};
}

std::string_view label(ActionKey key)
{
    switch (key) {
    case ActionKey::preview: return "⌘ Y";
    case ActionKey::reveal: return "⌘ ↵";
    case ActionKey::copyPath: return "⌘ ⇧ C";
    }
    return {};
}

std::string_view rawValue(ActionRole role)
{
    switch (role) {
    case ActionRole::normal: return "normal";
    case ActionRole::write: return "write";
    case ActionRole::destructive: return "destructive";
    }
    return {};
}

std::string_view rawValue(ResultKind kind)
{
    switch (kind) {
    case ResultKind::application: return "Applications";
    case ResultKind::command: return "Commands";
    case ResultKind::file: return "Files";
    case ResultKind::shortcut: return "Shortcuts";
    case ResultKind::other: return "Results";
    }
    return {};
}

std::string_view rawValue(SearchCategory category)
{
    switch (category) {
    case SearchCategory::all: return "All";
    case SearchCategory::applications: return "Applications";
    case SearchCategory::files: return "Files";
    case SearchCategory::shortcuts: return "Shortcuts";
    }
    return {};
}

namespace {

ResultKind kindOf(std::string_view id)
{
    if (id.starts_with("app:"))
        return ResultKind::application;
    if (id.starts_with("file:"))
        return ResultKind::file;
    if (id.starts_with("shortcut:"))
        return ResultKind::shortcut;
    return ResultKind::command;
}

} // namespace

CommandResult::CommandResult(CommandResultFields fields) :
    id(std::move(fields.id)), title(std::move(fields.title)), subtitle(std::move(fields.subtitle)),
    keywords(std::move(fields.keywords)), icon(std::move(fields.icon)), actions(std::move(fields.actions)),
    previewText(std::move(fields.previewText)), keepsOpen(fields.keepsOpen), kind(fields.kind.value_or(kindOf(id))),
    preview(std::move(fields.preview))
{
    if (!preview && previewText)
        preview = PreviewResource::text(*previewText);
}

} // namespace korvane
