#include "Vorrel/Palette/ActionCoordinator.h"

#include "Support/UUID.h"
#include "Vorrel/Shell/L10n.h"

namespace korvane {

namespace {

Dialogs::Choice choiceOf(bool folders)
{
    Dialogs::Choice choice;
    choice.folders = folders;
    choice.multiple = !folders;
    choice.title = folders ? L10n::shown("Choose a Folder") : L10n::shown("Choose Two Files");
    if (!folders)
        choice.message = L10n::shown(
            "Select exactly two files. Use Shift + arrow keys to extend the selection. Cancel returns to your search.");
    return choice;
}

/// What throws when the coordinator has gone.
std::shared_ptr<ActionCoordinator> locked(const std::weak_ptr<ActionCoordinator> &weak)
{
    auto self = weak.lock();
    if (!self)
        throw Cancelled();
    return self;
}

} // namespace

ActionCoordinator::ActionCoordinator(const Platform &platform, FilePreviewAccess::Asking asking) :
    dialogs(platform.dialogs), preview(platform.preview), mainThread(platform.mainThread), folders(platform.folders),
    access(platform.mainThread, platform.clock, std::move(asking))
{
}

ActionCoordinator::~ActionCoordinator()
{
    itself.reset();
    if (previewURL)
        preview->close();
}

// The preview

Task<void> ActionCoordinator::togglePreview(std::string path)
{
    if (previewURL) {
        closePreview();
        co_return;
    }
    if (_checkingAccess)
        co_return;
    const std::weak_ptr<ActionCoordinator> weak = itself;
    const std::string request = newUUID();
    previewRequest = request;
    _checkingAccess = true;
    _isPresenting = true;
    path = folders.expandingTilde(path);
    std::exception_ptr failure;
    try {
        co_await awaitAccess(path);
        if (locked(weak)->previewRequest != request)
            throw Cancelled();
        co_await throwIfCancelled();
        present(path);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!weak.expired())
        leaveRequest(request);
    if (failure)
        std::rethrow_exception(failure);
}

/// The check as a task of its own, which `reset` ends.
Task<void> ActionCoordinator::awaitAccess(std::string path)
{
    std::function<void(Continuation<void>)> begin = [&](Continuation<void> done) {
        accessTask = spawn(mainThread, carry(access, std::move(path), std::move(done)));
    };
    co_await suspend<void>(std::move(begin));
}

Task<void> ActionCoordinator::carry(FilePreviewAccess &access, std::string path, Continuation<void> done)
{
    std::exception_ptr failure;
    try {
        co_await access.check(std::move(path));
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure)
        done.fail(std::move(failure));
    else
        done.resume();
}

void ActionCoordinator::present(const std::string &path)
{
    auto back = preview ? preview->keyWindow() : nullptr;
    if (!back)
        throw Cancelled();
    PreviewWindow::Events events{
        .keyPressed = [this](const KeyPress &key) { return handleKey(key); },
        .closed = [this] { finishPreview(); },
    };
    if (!preview->show(path, std::move(events)))
        throw Cancelled();
    returnWindow = std::move(back);
    previewURL = path;
}

void ActionCoordinator::leaveRequest(const std::string &request)
{
    if (previewRequest == request) {
        accessTask.cancel();
        _checkingAccess = false;
    }
    if (!previewURL && !_checkingAccess)
        _isPresenting = false;
}

/// The two keys that close the preview do so in its window, too.
bool ActionCoordinator::handleKey(const KeyPress &key)
{
    if (key.key != KeyPress::Key::Escape && !key.isCommand('y'))
        return false;
    closePreview();
    return true;
}

void ActionCoordinator::closePreview()
{
    preview->close();
    finishPreview();
}

void ActionCoordinator::finishPreview()
{
    if (!previewURL)
        return;
    previewURL.reset();
    // The palette may hide again only once it has the keyboard.
    std::exchange(returnWindow, nullptr)();
    _isPresenting = false;
}

void ActionCoordinator::reset()
{
    accessTask.cancel();
    previewRequest.reset();
    _checkingAccess = false;
    if (previewURL)
        closePreview();
    _isPresenting = false;
}

// Files for an application

Task<void> ActionCoordinator::collectAndOpen(
    std::string path, std::vector<std::string> arguments, bool folders, ApplicationService &applications)
{
    std::string key = path;
    for (const std::string &argument : arguments)
        key += '\0' + argument;
    if (!collected.contains(key)) {
        auto chosen = co_await collect(folders);
        collected.emplace(key, std::move(chosen));
    }
    const auto &known = collected.at(key);
    arguments.insert(arguments.end(), known.begin(), known.end());
    co_await applications.open(std::move(path), std::move(arguments));
}

/// Returns only while the coordinator lives.
Task<std::vector<std::string>> ActionCoordinator::collect(bool folders)
{
    const std::weak_ptr<ActionCoordinator> weak = itself;
    std::optional<std::vector<std::string>> chosen;
    std::exception_ptr failure;
    _isPresenting = true;
    try {
        chosen = co_await dialogs.choose(choiceOf(folders));
    } catch (...) {
        failure = std::current_exception();
    }
    locked(weak)->_isPresenting = false;
    if (failure)
        std::rethrow_exception(failure);
    if (!chosen)
        throw Cancelled();
    if (chosen->size() != (folders ? 1U : 2U))
        throw AppError(AppError::Kind::recoverable, "Choose exactly two files to compare.");
    co_return *std::move(chosen);
}

} // namespace korvane
