#pragma once

#include "Support/Observed.h"
#include "Vorrel/FileIndex/FilePreviewAccess.h"
#include "Vorrel/Launch/ApplicationService.h"
#include "Vorrel/Platform/Platform.h"

#include <map>

namespace korvane {

/// Runs the flows that need a window of the system on top of the palette, and tells through
/// `isPresenting` that the palette must not hide while such a window stands. Main thread only.
class ActionCoordinator {
public:
    /// The ports outlive the coordinator. `asking` is how the system is asked whether a file opens.
    explicit ActionCoordinator(const Platform &platform, FilePreviewAccess::Asking asking = {});
    /// Closes the preview. A flow that is under way ends as cancelled.
    ~ActionCoordinator();
    ActionCoordinator(const ActionCoordinator &) = delete;

    /// Shows the file at `path`, which may begin with a tilde, once the system has said that it opens; closes the preview
    /// when one stands, and does nothing while an earlier file is still being asked for. Throws `FileAccessFailure`, and
    /// `Cancelled` when `reset` came first or no window can be shown.
    Task<void> togglePreview(std::string path);

    /// Asks for what the application at `path` is to open (a folder when `folders`, otherwise two files) and
    /// launches it with `arguments` and the choice. A choice is made once for the life of the process.
    /// Throws `Cancelled` when the user cancels, `recoverable` "Choose exactly two files to compare." for a
    /// wrong number, and what the launch throws.
    Task<void> collectAndOpen(
        std::string path, std::vector<std::string> arguments, bool folders, ApplicationService &applications);

    /// Ends what runs and closes what stands, but for a panel that waits for its own answer.
    void reset();

    bool isPresenting() const { return _isPresenting; }
    bool checkingAccess() const { return _checkingAccess; }
    /// Whether a file is asked for or shown: what Escape ends first, also while the window has no keyboard yet.
    bool previewing() const { return _checkingAccess || previewURL; }

    Observed<bool> _isPresenting{false};
    Observed<bool> _checkingAccess{false};

private:
    Task<void> awaitAccess(std::string path);
    static Task<void> carry(FilePreviewAccess &access, std::string path, Continuation<void> done);
    void present(const std::string &path);
    bool handleKey(const KeyPress &key);
    void closePreview();
    void finishPreview();
    void leaveRequest(const std::string &request);
    Task<std::vector<std::string>> collect(bool folders);

    Dialogs &dialogs;
    PreviewWindow *const preview;
    const Executor mainThread;
    const UserFolders folders;

    FilePreviewAccess access;
    TaskHandle accessTask;
    std::optional<std::string> previewRequest; // the newest; an answer to any other comes too late
    std::optional<std::string> previewURL; // the file that the window shows
    std::function<void()> returnWindow; // gives the keyboard back
    std::map<std::string, std::vector<std::string>> collected; // by application and base arguments
    // Owns nothing; what waits holds it weakly, as it may wake when the coordinator has gone.
    std::shared_ptr<ActionCoordinator> itself{this, [](ActionCoordinator *) {}};
};

} // namespace korvane
