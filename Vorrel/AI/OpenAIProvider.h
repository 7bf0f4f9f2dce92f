#pragma once

#include "CommandCore/Messages.h"
#include "Vorrel/Platform/HTTPClient.h"
#include "Vorrel/Shell/KeychainService.h"

#include <memory>
#include <string>

namespace korvane {

struct ResponsesRequest;

/// A client of the Responses interface: one HTTP request for each `chat`. Nothing is kept at the other side or in between: the
/// continuation holds the whole history of items.
///
/// Throws, looked at in this order: what the keychain throws; `configuration` without a key; `JSONError` for a continuation that
/// is none of ours; `configuration` for an endpoint that the key must not go to; `network` or `configuration` for what came back,
/// the status before the size; and what `readModelResponse` throws.
class OpenAIProvider final : public ModelProvider {
public:
    /// Where requests go to, without a slash at the end: OPENAI_BASE_URL, which ends in "/v1", or the provider's own address
    /// where it is not set or blank. `environment` is "NAME=value". Checked at each request.
    static std::string endpoint(const std::vector<std::string> &environment);
    /// A sentence for the settings about that, localised: how it can be changed, or which host takes the requests.
    static std::string endpointNote(const std::vector<std::string> &environment);

    /// `keychain` and `http` outlive the provider and its requests; without `http` nothing is reached. JSON is written and read
    /// on threads of `pool`.
    OpenAIProvider(std::string model, KeychainService &keychain, HTTPClient *http, Executor pool, std::string endpoint);

    Task<ModelResponse> chat(
        std::vector<Message> messages, std::vector<ToolDefinition> tools, std::optional<std::string> continuation) override;

private:
    Task<HTTPResponse> send(HTTPRequest request) const;

    const std::string model;
    KeychainService &keychain;
    HTTPClient *const http;
    const Executor pool;
    const std::string endpoint_;
};

} // namespace korvane
