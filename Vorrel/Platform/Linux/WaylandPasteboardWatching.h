#pragma once

#include "Support/Clock.h"
#include "Vorrel/Platform/PasteboardWatching.h"

#include <memory>

namespace korvane {

/// The clipboard of a Wayland desktop, through the program "wl-paste". One of it stays and wakes this on each change to
/// something with a text; others are started for each answer, with a limit of size and time. Main thread only; no call
/// blocks it.
///
/// Who owns the content when it is read is not told. So an answer counts only if what is offered was the same before and
/// after, and no change was told for a while.
class WaylandPasteboardWatching final : public PasteboardWatching {
public:
    enum class Standing {
        beginning,
        following,
        missing, ///< There is no "wl-paste".
        refused, ///< The desktop lets nobody follow.
    };

    /// The most that one question takes, apart from ending the programs that it started.
    static constexpr Milliseconds patience{1600};
    /// For how long no change may be told after an answer.
    static constexpr Milliseconds quiet{150};

    /// `environment` is what programs are started with, as "NAME=value". `clock` outlives this object.
    WaylandPasteboardWatching(Executor mainThread, Executor pool, Clock &clock, std::vector<std::string> environment);
    ~WaylandPasteboardWatching() override;

    std::int64_t changeCount() const override;
    Task<std::vector<std::string>> types() override;
    Task<std::optional<std::string>> string(Form form, std::size_t limit) override;
    /// Nothing: programs are not told.
    Task<bool> mayHoldText() override;
    Task<std::optional<std::string>> frontmostApplication() override;

    Standing standing() const;

private:
    class Session;

    const std::shared_ptr<Session> session;
    TaskHandle watching;
};

} // namespace korvane
