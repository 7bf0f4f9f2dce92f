// Requests to a model: the palette's side of them.
#include "Support/Text.h"
#include "Vorrel/Palette/PaletteState.h"
#include "Vorrel/Shell/L10n.h"

namespace korvane {

namespace {

using Role = Message::Role;

constexpr char storeSql[] = "INSERT INTO conversations(id,messages,updated_at) VALUES(?,?,?)";

/// What the model has said, a paragraph for each time that it spoke.
std::string answerOf(const Conversation &conversation)
{
    std::string text;
    for (const Message &message : conversation.messages)
        if (message.role == Role::assistant)
            text += (text.empty() ? "" : "\n\n") + message.content;
    return text;
}

/// What was asked and answered. Instructions and what tools have read are nobody's to keep.
std::string exchangeOf(const Conversation &conversation)
{
    JSONValue::Array exchange;
    for (const Message &message : conversation.messages)
        if (message.role == Role::user || message.role == Role::assistant)
            exchange.push_back(message.json());
    return JSONValue(std::move(exchange)).encodedString();
}

Task<std::vector<Skill>> skillsOf(const std::optional<Agent> &agent, SkillLoader &loader)
{
    if (!agent)
        co_return std::vector<Skill>();
    try {
        co_return co_await loader.load(agent->skills);
    } catch (const Cancelled &) {
        throw;
    } catch (const std::exception &) {
        // The loader's own sentence tells of a file that the user has not asked for here.
    }
    throw AppError(AppError::Kind::configuration, "A selected skill is missing or invalid. Scan Skills and update the Agent.");
}

Task<void> store(AppServices &services, const Conversation &conversation)
{
    std::vector<SQLValue> values{conversation.id, exchangeOf(conversation), services.platform.clock.now()};
    co_await services.database->execute(storeSql, std::move(values));
}

} // namespace

std::string PaletteState::aiIntroduction() const
{
    if (!activeAgent())
        return L10n::text("Describe an action, then press Return.\n\nTry: 帮我打开 Safari\n\nTool operations appear for approval "
                          "when required.");
    const std::string request =
        L10n::text("Enter a request for ") + activeAgent()->name + L10n::text(", then press Return.") + "\n\n";
    if (activeAgent()->tools.empty())
        return request + L10n::text("This Agent has no access to tools.");
    return request + L10n::text("This Agent can use ") + std::to_string(activeAgent()->tools.size())
        + L10n::text(" selected tools. Permission approvals still apply.");
}

void PaletteState::askAI()
{
    if (_busy || trimmed(query()).empty())
        return;
    if (!services.preferences().preferences->aiEnabled) {
        _error = L10n::key("Enable AI Requests and save an API key in Settings → AI.");
        return;
    }
    _busy = true;
    _error = std::nullopt;
    _errorRecovery = FailureRecovery();
    _aiOutput = std::string();
    aiTask = spawn(
        services.platform.mainThread, answer(weak_from_this(), services, Request{query(), activeAgent(), _sessionGeneration}));
}

Task<void> PaletteState::answer(std::weak_ptr<PaletteState> weak, AppServices &services, Request request)
{
    std::exception_ptr failure;
    try {
        const Conversation conversation = co_await converse(weak, services, request);
        co_await throwIfCancelled();
        if (const auto self = weak.lock())
            self->_aiOutput = answerOf(conversation);
        co_await store(services, conversation);
    } catch (const Cancelled &) {
        // Said by whoever has cancelled.
    } catch (...) {
        failure = std::current_exception();
    }
    if (co_await isCancelled())
        failure = nullptr; // however what was interrupted calls its end
    if (const auto self = weak.lock())
        self->endAnswer(failure, request.generation);
}

Task<Conversation> PaletteState::converse(std::weak_ptr<PaletteState> weak, AppServices &services, const Request &request)
{
    std::vector<Skill> skills = co_await skillsOf(request.agent, services.agents().loader());
    const std::string model = request.agent ? request.agent->model : services.preferences().preferences->model;
    const std::unique_ptr<ModelProvider> provider = services.makeProvider(model);
    AIRuntime::Status status = [weak](std::string text) {
        if (const auto self = weak.lock())
            self->_aiStatus = std::move(text);
    };
    co_return co_await services.ai().run(request.query, *provider, request.agent, std::move(skills), std::move(status));
}

void PaletteState::endAnswer(const std::exception_ptr &failure, int generation)
{
    if (failure && generation == _sessionGeneration) {
        services.diagnostics.recordError(DiagnosticsService::Category::ai);
        _error = AppError::friendly(failure);
    }
    _busy = false;
    _aiStatus = std::string();
}

} // namespace korvane
