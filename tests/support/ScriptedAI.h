#pragma once

#include "CommandCore/Commands.h"
#include "CommandCore/Messages.h"
#include "Support/Clock.h"
#include "Vorrel/AI/SkillLoader.h"

#include <deque>
#include <functional>
#include <stdexcept>

/// A model, tools and skills that do what a test has set.
namespace korvane::test {

inline ModelResponse said(std::string text, std::vector<ToolCall> calls = {})
{
    return {.text = std::move(text), .toolCalls = std::move(calls), .continuation = {}};
}

inline ModelResponse wishes(std::vector<ToolCall> calls) { return said("", std::move(calls)); }

inline ToolCall wish(std::string id, std::string name, JSONValue arguments = JSONValue::Object{})
{
    return {.id = std::move(id), .name = std::move(name), .arguments = std::move(arguments)};
}

/// What a model answers, one answer after the other, and what it was asked. Outlives its providers.
struct ModelScript {
    struct Asked {
        std::vector<Message> messages;
        std::vector<ToolDefinition> tools;
        std::optional<std::string> continuation;
    };

    ModelScript &answers(ModelResponse response)
    {
        ahead.push_back([response = std::move(response)] { return response; });
        return *this;
    }
    ModelScript &fails(std::exception_ptr error)
    {
        ahead.push_back([error]() -> ModelResponse { std::rethrow_exception(error); });
        return *this;
    }
    ModelScript &fails(const AppError &error) { return fails(std::make_exception_ptr(error)); }

    std::deque<std::function<ModelResponse()>> ahead;
    std::vector<Asked> asked;
    std::vector<std::string> models; ///< The names for which a provider was made.
    Clock *clock = nullptr; ///< With one an answer takes `time`.
    Milliseconds time{1};
};

class ScriptedProvider final : public ModelProvider {
public:
    explicit ScriptedProvider(ModelScript &script) : script(script) { }

    Task<ModelResponse> chat(
        std::vector<Message> messages, std::vector<ToolDefinition> tools, std::optional<std::string> continuation) override
    {
        script.asked.push_back({std::move(messages), std::move(tools), std::move(continuation)});
        if (script.ahead.empty())
            throw std::logic_error("the model is asked once more than it answers");
        const auto answer = std::move(script.ahead.front());
        script.ahead.pop_front();
        if (script.clock)
            co_await script.clock->sleep(script.time);
        co_return answer();
    }

private:
    ModelScript &script;
};

/// A tool that notes its inputs and answers with `result`.
struct ScriptedTool final : Tool {
    explicit ScriptedTool(std::string name, ToolPermission permission = ToolPermission::read, bool requiresApproval = false)
    {
        told = {.name = std::move(name),
            .description = "What it does.",
            .inputSchema = JSONValue::schema({}, {}),
            .permission = permission,
            .requiresApproval = requiresApproval};
    }
    const ToolDefinition &definition() const override { return told; }
    Task<ToolResult> execute(JSONValue input) const override
    {
        inputs.push_back(std::move(input));
        if (onCall)
            onCall();
        if (clock)
            co_await clock->sleep(Milliseconds(1));
        if (failure)
            std::rethrow_exception(failure);
        ++finished;
        co_return ToolResult(result);
    }

    ToolDefinition told;
    JSONValue result = "done";
    std::exception_ptr failure;
    std::function<void()> onCall;
    Clock *clock = nullptr; ///< With one the work takes a millisecond.
    mutable std::vector<JSONValue> inputs;
    mutable int finished = 0;
};

/// Skills without a disk.
class ScriptedSkills final : public SkillLoader {
public:
    using SkillLoader::SkillLoader;
    Task<std::vector<Skill>> load(std::vector<std::string> paths) override
    {
        asked.push_back(paths);
        if (clock)
            co_await clock->sleep(Milliseconds(1));
        if (failure)
            std::rethrow_exception(failure);
        std::vector<Skill> found;
        for (std::string &path : paths)
            found.push_back({.name = "Skill of " + path, .description = {}, .instructions = "Do.", .path = std::move(path)});
        co_return found;
    }

    std::vector<std::vector<std::string>> asked;
    std::exception_ptr failure;
    Clock *clock = nullptr;
};

} // namespace korvane::test
