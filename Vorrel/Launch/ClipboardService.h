#pragma once

#include "CommandCore/Commands.h"
#include "Support/Clock.h"
#include "Support/Observed.h"
#include "Vorrel/Platform/Pasteboard.h"
#include "Vorrel/Platform/PasteboardWatching.h"
#include "Vorrel/Store/ClipboardRepository.h"

#include <memory>
#include <optional>

namespace korvane {

/// The history of copied texts. Main thread only.
///
/// Every 0.65 seconds it looks whether the clipboard has changed, and keeps what is a text and is not marked as secret,
/// passing or made by a program. What was there before it began is not kept, nor what was copied while it was off.
class ClipboardService : public std::enable_shared_from_this<ClipboardService> {
public:
    /// Keeps nothing and finds nothing.
    ClipboardService() = default;
    /// `clock`, `watching` and `pasteboard` outlive the service and its rows. Without `watching` nothing new is kept.
    ClipboardService(
        Executor mainThread, Clock &clock, ClipboardRepository repository, PasteboardWatching *watching, Pasteboard &pasteboard);
    virtual ~ClipboardService() = default;

    virtual void start(); ///< Begins to look. Once.
    virtual void stop(); ///< Ends the watcher.
    /// One look. A failure to keep what was found goes to `error`; the change is then lost.
    Task<void> capture();
    /// Rows of the entries that contain the text, the newest first, at most 500. Throws what the repository throws.
    virtual Task<Rows> search(std::string query);
    /// Why nothing new is kept here, a key of `L10n`; nothing while it is.
    virtual std::optional<std::string> obstacle() const { return watching ? watching->obstacle.get() : std::nullopt; }

    bool enabled = true; ///< Whether what is copied is kept.
    int maximumItems = 500; ///< How many entries are kept, 1 to 10,000.
    Observed<std::optional<std::string>> error; ///< The last failure's sentence; a success does not clear it.

private:
    static Task<void> watch(std::weak_ptr<ClipboardService> weak, Clock &clock);
    Task<std::optional<std::string>> wantedText();
    Row rowOf(ClipboardEntry entry) const;

    const Executor mainThread;
    Clock *const clock = nullptr;
    const std::optional<ClipboardRepository> repository;
    PasteboardWatching *const watching = nullptr;
    Pasteboard *const pasteboard = nullptr;
    std::int64_t lastCount = 0;
    TaskHandle watcher;
};

} // namespace korvane
