#pragma once

#include "CommandCore/Commands.h"

#include <unordered_map>

namespace korvane {

/// What past use of a row contributes to its rank.
struct CommandUsage {
    std::int64_t count = 0; ///< How many times actions of the row ran to success.
    double lastUsed = 0; ///< Seconds since 1970 when the last of those ended.
    bool operator==(const CommandUsage &) const = default;
};

using UsageByIdentifier = std::unordered_map<std::string, CommandUsage>;

/// The live set of commands. Main thread only.
class CommandRegistry {
public:
    using Commands = std::vector<std::shared_ptr<const Command>>;

    /// Adds one command. Throws `configuration` "Duplicate command identifier." and changes nothing when
    /// its identifier is present. (Its name elsewhere, `register`, is a word of the language.)
    void registerCommand(std::shared_ptr<const Command> command);

    /// Swaps the whole family of commands whose identifiers begin with `prefix`, all or nothing. Throws
    /// `configuration` "Invalid or duplicate command identifier." and changes nothing when a new one
    /// lacks the prefix or occurs twice. An empty family removes the old one.
    void replace(std::string_view prefix, const Commands &family);

    /// The row of every command, built anew, in the order of `commands`.
    Rows results() const;
    /// The row of one command; nothing for an unknown identifier.
    Row result(std::string_view id) const;

    /// All commands, by identifier in byte order. Nothing may depend on that order but speed.
    const Commands &commands() const { return sorted; }
    /// Another number after each change of the set; zero before the first.
    std::uint64_t revision() const { return _revision; }

private:
    Commands sorted;
    std::uint64_t _revision = 0;
};

} // namespace korvane
