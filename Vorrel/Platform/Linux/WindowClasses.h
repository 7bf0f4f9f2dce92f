#pragma once

#include "Support/Clock.h"
#include "Vorrel/Platform/Linux/DesktopEntries.h"

#include <map>
#include <optional>

namespace korvane {

/// Which application a window belongs to. Any thread asks; the files are read on the pool, at the first question and again
/// when a class is unknown, at most once a minute.
class WindowClasses {
public:
    /// `clock` and `entries` outlive this object and the questions.
    WindowClasses(Executor pool, Clock &clock, const DesktopEntries &entries) :
        actor(std::move(pool)), clock(clock), entries(entries)
    {
    }

    /// The identifier of the application; `classes` are the two names of the window, its own and its kind's, which counts more.
    Task<std::optional<std::string>> identify(std::vector<std::string> classes);

private:
    static constexpr double renewal = 60; // seconds

    Actor actor;
    Clock &clock;
    const DesktopEntries &entries;
    std::map<std::string, std::string> known; // on the actor
    std::optional<double> readAt; // on the actor; uptime
};

} // namespace korvane
