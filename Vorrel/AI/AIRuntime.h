#pragma once

#include "CommandCore/Agent.h"
#include "CommandCore/Messages.h"
#include "CommandCore/Skill.h"

#include <functional>

namespace korvane {

/// The loop of a request: asks the model, runs the tools that it wants, and asks again with their results, until it answers
/// without a wish. Bounded: eight answers, eight wishes in one, 200,000 bytes of instructions, 256,000 bytes of one result. Every
/// failure ends the run, that of a tool and a refusal too: no error is ever told to the model. Main thread only.
class AIRuntime {
public:
    /// `registry` outlives the runtime and its runs.
    explicit AIRuntime(const ToolRegistry &registry) : registry(registry) { }

    /// Told what the run does: "Thinking…", or "Running NAME…".
    using Status = std::function<void(std::string text)>;

    /// `skills` are those that `agent` names, resolved; without an agent every registered tool may be used. `provider` outlives
    /// the run. The result has the request, the model's texts and the tools' results, an agent's instructions first. Throws what
    /// is wrong with the agent before anything is asked, the limits' sentences, and what the provider and tools throw.
    Task<Conversation> run(
        std::string query, ModelProvider &provider, std::optional<Agent> agent, std::vector<Skill> skills, Status status) const;

private:
    const ToolRegistry &registry;
};

} // namespace korvane
