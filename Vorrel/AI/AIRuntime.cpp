#include "Vorrel/AI/AIRuntime.h"

#include "CommandCore/Commands.h"
#include "Support/Text.h"
#include "Vorrel/Shell/L10n.h"

#include <algorithm>
#include <set>

namespace korvane {

namespace {

constexpr int mostSteps = 8;
constexpr std::size_t mostCallsInStep = 8;
constexpr std::size_t largestInstructions = 200'000; // bytes
constexpr std::size_t largestResult = 256'000; // bytes
constexpr std::size_t shownName = 200; // characters of a tool's, which its server has made

/// Skills by their identity: their order and repeats in the Agent's list do not count.
void requireSkillsOf(const Agent &agent, const std::vector<Skill> &skills)
{
    std::set<std::string> given;
    for (const Skill &skill : skills)
        given.insert(skill.id());
    if (given != std::set<std::string>(agent.skills.begin(), agent.skills.end()))
        throw AppError(AppError::Kind::configuration, "Agent skills could not be resolved.");
}

std::string instructionsOf(const Agent &agent, const std::vector<Skill> &skills)
{
    std::string text = agent.systemPrompt;
    const char *before = "\n\nSelected skill instructions:\n";
    for (const Skill &skill : skills) {
        text += before + ("Skill: " + skill.name) + "\n" + skill.instructions;
        before = "\n\n";
    }
    if (text.size() > largestInstructions)
        throw AppError(AppError::Kind::configuration, "Agent instructions are too large.");
    return text;
}

/// What the run may use, in the registry's order. A run never starts with less than its Agent was given.
std::vector<ToolDefinition> toolsOf(const std::optional<Agent> &agent, std::vector<ToolDefinition> registered)
{
    if (!agent)
        return registered;
    for (const std::string &name : agent->tools)
        if (std::ranges::find(registered, name, &ToolDefinition::name) == registered.end())
            throw AppError(
                AppError::Kind::configuration, "An Agent tool is unavailable. Connect its server or update the Agent.");
    std::erase_if(registered,
        [&agent](const ToolDefinition &tool) { return std::ranges::find(agent->tools, tool.name) == agent->tools.end(); });
    return registered;
}

/// One run: what it has said and seen so far.
class Run {
public:
    Run(const ToolRegistry &registry, std::vector<ToolDefinition> tools, const AIRuntime::Status &status) :
        registry(registry), tools(std::move(tools)), status(status)
    {
    }

    Task<void> carry(ModelProvider &provider)
    {
        std::vector<Message> request = conversation.messages;
        std::optional<std::string> continuation;
        for (int step = 0; step < mostSteps; ++step) {
            co_await throwIfCancelled();
            status(L10n::key("Thinking…"));
            ModelResponse response = co_await provider.chat(std::move(request), tools, std::move(continuation));
            continuation = std::move(response.continuation);
            if (!response.text.empty())
                conversation.messages.push_back({.role = Message::Role::assistant, .content = std::move(response.text)});
            if (response.toolCalls.empty())
                co_return;
            if (response.toolCalls.size() > mostCallsInStep)
                throw AppError(AppError::Kind::toolExecution, "The model requested too many operations at once.");
            request.clear();
            for (ToolCall &call : response.toolCalls) {
                request.push_back(co_await resultOf(std::move(call)));
                conversation.messages.push_back(request.back());
            }
        }
        throw AppError(AppError::Kind::toolExecution, "The AI reached its eight-step limit. Please narrow the request.");
    }

    Conversation conversation;

private:
    Task<Message> resultOf(ToolCall call)
    {
        if (!seen.insert(call.id).second)
            throw AppError(AppError::Kind::toolExecution, "The model repeated an operation identifier.");
        if (std::ranges::find(tools, call.name, &ToolDefinition::name) == tools.end())
            throw AppError(AppError::Kind::permission, "This tool is not enabled for the current Agent.");
        status("Running " + std::string(boundedBeginning(call.name, shownName)) + "…");
        const ToolResult result = co_await registry.call(call.name, std::move(call.arguments));
        std::string text = result.value.encodedString();
        if (text.size() > largestResult)
            throw AppError(AppError::Kind::toolExecution, "Tool output is too large to send to the model.");
        co_return Message{.role = Message::Role::tool, .content = std::move(text), .toolCallID = std::move(call.id)};
    }

    const ToolRegistry &registry;
    const std::vector<ToolDefinition> tools;
    const AIRuntime::Status &status;
    std::set<std::string> seen; ///< Identifiers of calls.
};

} // namespace

Task<Conversation> AIRuntime::run(
    std::string query, ModelProvider &provider, std::optional<Agent> agent, std::vector<Skill> skills, Status status) const
{
    std::vector<Message> opening;
    if (agent) {
        requireSkillsOf(*agent, skills);
        opening.push_back({.role = Message::Role::system, .content = instructionsOf(*agent, skills)});
    }
    opening.push_back({.role = Message::Role::user, .content = std::move(query)});
    Run run(registry, toolsOf(agent, registry.definitions()), status);
    run.conversation.messages = std::move(opening);
    co_await run.carry(provider);
    co_return std::move(run.conversation);
}

} // namespace korvane
