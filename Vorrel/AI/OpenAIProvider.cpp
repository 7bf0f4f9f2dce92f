#include "Vorrel/AI/OpenAIProvider.h"

#include "CommandCore/Commands.h"

namespace korvane {

std::string OpenAIProvider::endpoint(const std::vector<std::string> &) { return "https://api.openai.com/v1"; }

OpenAIProvider::OpenAIProvider(std::string model, KeychainService &keychain, Executor pool, std::string endpoint) :
    model(std::move(model)), keychain(keychain), pool(std::move(pool)), endpoint_(std::move(endpoint))
{
}

Task<ModelResponse> OpenAIProvider::chat(std::vector<Message>, std::vector<ToolDefinition>, std::optional<std::string>)
{
    throw AppError(AppError::Kind::network, "Could not reach the AI provider. Check your connection.");
    co_return ModelResponse();
}

} // namespace korvane
