#pragma once

#include "CommandCore/Agent.h"
#include "CommandCore/Tools.h"
#include "Support/MainLoop.h"
#include "Support/Observed.h"
#include "Vorrel/AI/SkillLoader.h"
#include "Vorrel/Store/Database.h"

#include <functional>
#include <memory>
#include <optional>

namespace korvane {

/// The stored Agents, one JSON document each.
class AgentRepository {
public:
    explicit AgentRepository(std::shared_ptr<Database> database) : database(std::move(database)) { }

    /// In the order of their identifiers. Throws `database` "Agent configuration is missing." for a row without text, `JSONError`
    /// for one that is no Agent, and what the store throws.
    Task<std::vector<Agent>> load() const;
    /// Adds the Agent or replaces the one of its identifier. Throws `configuration` "Enter a name, model, and prompt under 100
    /// KB." for an Agent that cannot be used, and `database` "Could not save local data."
    Task<void> save(Agent agent) const;

private:
    std::shared_ptr<Database> database;
};

/// The user's Agents, the one that is being edited and the skills that it may be given. Main thread only; held by a shared
/// pointer, which its tasks hold weakly.
class AgentStore : public std::enable_shared_from_this<AgentStore> {
public:
    struct Parts {
        Executor mainThread;
        UserFolders folders;
        const ToolRegistry &tools; ///< Outlives the store.
        AgentRepository repository;
        std::shared_ptr<SkillLoader> loader; ///< Shared with scans, which may outlive the store.
    };
    explicit AgentStore(Parts parts);
    virtual ~AgentStore() = default;

    /// Reads the Agents and tells `onChange`. Throws what the repository throws.
    virtual Task<void> load();
    void newAgent(); ///< Begins a new draft and clears the message.
    void save(); ///< Stores the draft and loads again; how it ended stands in `message`. Nothing while `working`.
    void scanSkills(); ///< Looks for skills; what it found stands in `message`. Nothing while `working`.

    const std::vector<Agent> &agents() const { return _agents; }
    SkillLoader &loader() { return *parts.loader; }
    const ToolRegistry &tools() const { return parts.tools; } ///< What may be allowed to an Agent.

    /// Calls `changed` after a change of any observed property.
    [[nodiscard]] std::vector<Subscription> observe(const std::function<void()> &changed);

    // Observed. The message is English, a key of `L10n`, or already localised where it holds a number.
    Observed<std::vector<Agent>> _agents; ///< As last loaded.
    Observed<std::vector<Skill>> skills; ///< Of the last scan, as the next.
    Observed<std::vector<std::string>> warnings; ///< Localised.
    Observed<Agent> draft;
    Observed<std::optional<std::string>> message;
    Observed<bool> working{false};

    std::function<void()> onChange = [] {};

private:
    using Weak = std::weak_ptr<AgentStore>;
    static Task<void> saveTask(Weak weak, AgentRepository repository, Agent agent);
    static Task<void> scanTask(Weak weak, std::shared_ptr<SkillLoader> loader, std::vector<std::string> roots);

    const Parts parts;
    MainThreadOnly confined;
    TaskHandle task;
};

} // namespace korvane
