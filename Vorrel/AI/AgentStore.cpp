#include "Vorrel/AI/AgentStore.h"

namespace korvane {

Task<std::vector<Agent>> AgentRepository::load() const { co_return std::vector<Agent>(); }

AgentStore::AgentStore(Parts parts) : parts(std::move(parts)) { }

Task<void> AgentStore::load()
{
    _agents = co_await parts.repository.load();
    onChange();
}

} // namespace korvane
