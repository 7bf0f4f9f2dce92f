#include "CommandCore/CommandRegistry.h"

#include <algorithm>

namespace korvane {

namespace {

using Commands = CommandRegistry::Commands;

constexpr auto identifier = [](const std::shared_ptr<const Command> &command) -> const std::string & { return command->id(); };

/// Where the identifier is, or belongs.
Commands::const_iterator position(const Commands &commands, std::string_view id)
{
    return std::ranges::lower_bound(commands, id, std::less<>(), identifier);
}

bool holds(const Commands &commands, Commands::const_iterator at, std::string_view id)
{
    return at != commands.end() && (*at)->id() == id;
}

/// The family by identifier. Throws when it is not one family of distinct members.
Commands sortedFamily(std::string_view prefix, Commands family)
{
    std::ranges::sort(family, std::less<>(), identifier);
    const auto foreign = [&](const std::string &id) { return !id.starts_with(prefix); };
    if (std::ranges::any_of(family, foreign, identifier)
        || std::ranges::adjacent_find(family, std::equal_to<>(), identifier) != family.end())
        throw AppError(AppError::Kind::configuration, "Invalid or duplicate command identifier.");
    return family;
}

} // namespace

void CommandRegistry::registerCommand(std::shared_ptr<const Command> command)
{
    const auto at = position(sorted, command->id());
    if (holds(sorted, at, command->id()))
        throw AppError(AppError::Kind::configuration, "Duplicate command identifier.");
    sorted.insert(at, std::move(command));
    ++_revision;
}

void CommandRegistry::replace(std::string_view prefix, const Commands &family)
{
    const Commands members = sortedFamily(prefix, family);
    // In byte order a family stands together, so the new one takes the place of the old.
    const auto begin = position(sorted, prefix);
    const auto end =
        std::partition_point(begin, sorted.cend(), [&](const auto &command) { return command->id().starts_with(prefix); });

    Commands all;
    all.reserve(sorted.size() + members.size());
    all.insert(all.end(), sorted.cbegin(), begin);
    all.insert(all.end(), members.begin(), members.end());
    all.insert(all.end(), end, sorted.cend());
    sorted = std::move(all);
    ++_revision;
}

Rows CommandRegistry::results() const
{
    Rows rows;
    rows.reserve(sorted.size());
    for (const auto &command : sorted)
        rows.push_back(command->result(CommandContext{}));
    return rows;
}

Row CommandRegistry::result(std::string_view id) const
{
    const auto at = position(sorted, id);
    return holds(sorted, at, id) ? (*at)->result(CommandContext{}) : nullptr;
}

} // namespace korvane
