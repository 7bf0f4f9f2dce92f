#include "Vorrel/AI/AgentStore.h"

#include "CommandCore/Commands.h"
#include "Support/Text.h"
#include "Support/UUID.h"
#include "Vorrel/Shell/L10n.h"
#include "Vorrel/Store/SQLCells.h"

namespace korvane {

namespace {

constexpr std::size_t longestPrompt = 100'000; // bytes

constexpr char loadSql[] = "SELECT configuration FROM agents ORDER BY id";
constexpr char saveSql[] = "INSERT INTO agents(id,configuration) VALUES(?,?) "
                           "ON CONFLICT(id) DO UPDATE SET configuration=excluded.configuration";

Agent agentFrom(const SQLRow &row)
{
    const auto *configuration = text(row, "configuration");
    if (!configuration)
        throw AppError(AppError::Kind::database, "Agent configuration is missing.");
    return Agent::fromJSON(JSONValue::parse(*configuration));
}

Agent newDraft() { return {.id = newUUID(), .name = L10n::text("New Agent")}; }

} // namespace

Task<std::vector<Agent>> AgentRepository::load() const
{
    const auto rows = co_await database->rows(loadSql);
    std::vector<Agent> agents;
    agents.reserve(rows.size());
    for (const SQLRow &row : rows)
        agents.push_back(agentFrom(row));
    co_return agents;
}

Task<void> AgentRepository::save(Agent agent) const
{
    if (trimmed(agent.name).empty() || trimmed(agent.model).empty() || agent.systemPrompt.size() > longestPrompt)
        throw AppError(AppError::Kind::configuration, "Enter a name, model, and prompt under 100 KB.");
    std::vector<SQLValue> values{agent.id, agent.json().encodedString()};
    co_await database->execute(saveSql, std::move(values));
}

AgentStore::AgentStore(Parts parts) : draft(newDraft()), parts(std::move(parts)) { }

Task<void> AgentStore::load()
{
    confined.check();
    _agents = co_await parts.repository.load();
    onChange();
}

void AgentStore::newAgent()
{
    confined.check();
    draft = newDraft();
    message = std::nullopt;
}

void AgentStore::save()
{
    confined.check();
    if (working)
        return;
    working = true;
    task = spawn(parts.mainThread, saveTask(weak_from_this(), parts.repository, draft));
}

Task<void> AgentStore::saveTask(Weak weak, AgentRepository repository, Agent agent)
{
    std::optional<std::string> failure;
    try {
        co_await repository.save(std::move(agent));
        if (const auto store = weak.lock())
            co_await store->load();
    } catch (const Cancelled &) {
        co_return; // the store is gone
    } catch (...) {
        failure = AppError::friendly(std::current_exception());
    }
    if (const auto store = weak.lock()) {
        store->message = failure ? *failure : L10n::key("Agent saved. Search its name in the command window.");
        store->working = false;
    }
}

void AgentStore::scanSkills()
{
    confined.check();
    if (working)
        return;
    working = true;
    task = spawn(parts.mainThread, scanTask(weak_from_this(), parts.loader, SkillLocations::roots(parts.folders)));
}

Task<void> AgentStore::scanTask(Weak weak, std::shared_ptr<SkillLoader> loader, std::vector<std::string> roots)
{
    SkillLoader::Scan scan = co_await loader->scan(std::move(roots));
    const auto store = weak.lock();
    if (!store)
        co_return;
    const std::string count = std::to_string(scan.skills.size());
    store->skills = std::move(scan.skills);
    store->warnings = std::move(scan.warnings);
    store->message =
        L10n::format("Found %lld skills. Select only skills you trust; their instructions are sent with Agent requests.", count);
    store->working = false;
}

std::vector<Subscription> AgentStore::observe(const std::function<void()> &changed)
{
    std::vector<Subscription> subscriptions;
    const auto add = [&](auto &...fields) { (subscriptions.push_back(fields.observe(changed)), ...); };
    add(_agents, skills, warnings, draft, message, working);
    return subscriptions;
}

} // namespace korvane
