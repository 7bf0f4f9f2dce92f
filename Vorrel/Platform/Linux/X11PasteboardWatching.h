#pragma once

#include "Support/Clock.h"
#include "Vorrel/Platform/PasteboardWatching.h"

#include <functional>
#include <memory>

namespace korvane {

/// The clipboard of an X display, followed on a connection of its own.
///
/// The server tells of each change; a look at `changeCount` costs nothing. Answers of other programs are waited for without
/// holding anybody up, and no more of a content comes over than the caller takes. Main thread only; no call blocks it.
class X11PasteboardWatching final : public PasteboardWatching {
public:
    /// The most that one question takes, whatever the owner does.
    static constexpr Milliseconds patience{2000};
    /// Finds the application of a window by the names of its class, its own first and then its kind's.
    using Identify = std::function<Task<std::optional<std::string>>(std::vector<std::string> classes)>;

    /// Begins to connect, on `pool`; what is copied before that has succeeded is not told. `display` is as in $DISPLAY.
    /// `clock` outlives this object.
    X11PasteboardWatching(Executor mainThread, Executor pool, Clock &clock, std::string display, Identify identify);
    ~X11PasteboardWatching() override;

    std::int64_t changeCount() const override;
    Task<std::vector<std::string>> types() override;
    Task<std::optional<std::string>> string(Form form, std::size_t limit) override;
    Task<bool> mayHoldText() override;
    Task<std::optional<std::string>> frontmostApplication() override;
    /// What the server knows at the moment of its answer, for whoever gets the content by another way.
    struct Mark {
        std::int64_t change = 0; ///< As `changeCount`.
        bool maybeSecret = false; ///< What is there is marked, or nobody told in time that it is not.
        bool operator==(const Mark &) const = default;
    };
    Task<Mark> mark();
    /// Whether the server has promised to tell of changes.
    bool following() const;

private:
    class Display;
    class Question;

    static Task<void> follow(std::shared_ptr<Display> display, Executor pool, std::string name);

    const Executor mainThread;
    const Identify identify;
    std::shared_ptr<Display> display;
    TaskHandle reading;
};

} // namespace korvane
