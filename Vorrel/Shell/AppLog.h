#pragma once

#include <functional>
#include <string_view>

namespace korvane {

/// The program's five loggers, of the subsystem "dev.korvane.vorrel". Any thread. Logs never hold clipboard
/// text, file paths of the user other than those of the indexed roots, queries or secrets.
class AppLog {
public:
    enum class Level { info, error };

    /// One logger; its category is its name.
    class Category {
    public:
        constexpr explicit Category(std::string_view name) : name(name) { }
        void info(std::string_view message) const;
        void error(std::string_view message) const;
        const std::string_view name;
    };

    static const Category app, command, search, mcp, database;

    /// Also hands every message to `observer`, in place of any earlier one; empty ends that. For tests.
    static void observe(std::function<void(std::string_view category, Level level, std::string_view message)> observer);
    /// Stops writing to standard error, for programs whose standard error is an interface.
    static void silence();
};

} // namespace korvane
