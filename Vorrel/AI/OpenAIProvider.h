#pragma once

#include "CommandCore/Messages.h"
#include "Vorrel/Shell/KeychainService.h"

#include <memory>
#include <string>

namespace korvane {

/// A client of the Responses interface (https://platform.openai.com/docs/api-reference/responses): one HTTP request for each
/// `chat`. Nothing is kept at the other side or in between: the continuation holds the whole history of items. The tools have
/// names by their position there.
class OpenAIProvider final : public ModelProvider {
public:
    /// Where requests go to, without a slash at the end: "https://HOST/v1", plain http to this machine alone.
    static std::string endpoint(const std::vector<std::string> &environment);

    /// `keychain` outlives the provider and its requests; requests run on threads of `pool`.
    OpenAIProvider(std::string model, KeychainService &keychain, Executor pool, std::string endpoint);

    Task<ModelResponse> chat(
        std::vector<Message> messages, std::vector<ToolDefinition> tools, std::optional<std::string> continuation) override;

private:
    const std::string model;
    KeychainService &keychain;
    const Executor pool;
    const std::string endpoint_;
};

} // namespace korvane
