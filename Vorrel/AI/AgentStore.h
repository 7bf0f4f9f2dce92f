#pragma once

#include "CommandCore/Agent.h"
#include "Support/Task.h"

#include <functional>

namespace korvane {

/// The user's Agents. Main thread only.
class AgentStore {
public:
    virtual ~AgentStore() = default;
    virtual Task<void> load() { co_return; }
    virtual const std::vector<Agent> &agents() const { return none; }

    std::function<void()> onChange = [] {};

private:
    std::vector<Agent> none;
};

} // namespace korvane
