#include "Vorrel/AI/OpenAIProvider.h"

#include "CommandCore/Commands.h"
#include "Support/Memory.h"
#include "Support/Text.h"
#include "Support/URL.h"
#include "Vorrel/AI/ResponsesFormat.h"
#include "Vorrel/Shell/L10n.h"

#include <algorithm>
#include <charconv>

namespace korvane {

namespace {

constexpr const char *ownEndpoint = "https://api.openai.com/v1";
constexpr std::size_t bodyLimit = 8'000'000;
constexpr const char *unsafeEndpoint =
    L10n::key("The AI provider's address must begin with https://, or with http:// on this computer. Check OPENAI_BASE_URL.");
constexpr const char *rejectedKey = L10n::key("The provider rejected your API key or model access.");

/// Whether `host` is four decimal numbers of which the first is 127. Other spellings of addresses are not for us to guess.
bool isLoopbackAddress(std::string_view host)
{
    for (int i = 0; i < 4; ++i) {
        const auto dot = host.find('.');
        const std::string_view part = host.substr(0, dot);
        int number = -1;
        const auto read = std::from_chars(part.data(), part.data() + part.size(), number);
        const bool plain = read.ec == std::errc() && read.ptr == part.data() + part.size() && part.size() <= 3;
        const bool leadingZero = part.size() > 1 && part[0] == '0';
        if (!plain || leadingZero || number < 0 || number > 255 || (i == 0 && number != 127) || (dot == host.npos) != (i == 3))
            return false;
        host.remove_prefix(i == 3 ? part.size() : dot + 1);
    }
    return host.empty();
}

bool isThisMachine(const std::string &host)
{
    return lowercased(host) == "localhost" || host == "[::1]" || isLoopbackAddress(host);
}

/// Whether the key may go there: never in the clear over a network, and nowhere that the address does not plainly say.
bool isSafe(const std::string &endpoint)
{
    const bool plain =
        std::ranges::all_of(endpoint, [](char c) { return c > ' ' && c != '@' && c != '?' && c != '#' && c != '\\'; });
    const auto parts = parsedURL(endpoint);
    if (!plain || !parts || parts->host.empty())
        return false;
    return parts->scheme == "https" || (parts->scheme == "http" && isThisMachine(parts->host));
}

/// Whether a key can stand in a header: a line end in it would begin another one.
bool isOneLine(const std::string &key)
{
    return std::ranges::all_of(key, [](unsigned char c) { return c >= 0x20 && c != 0x7f; });
}

HTTPRequest requestTo(const std::string &endpoint, const std::string &key, const std::string &body)
{
    if (!isOneLine(key))
        throw AppError(AppError::Kind::configuration, rejectedKey);
    if (!isSafe(endpoint))
        throw AppError(AppError::Kind::configuration, unsafeEndpoint);
    HTTPRequest request{.url = endpoint + "/responses", .headers = {}, .body = body, .bodyLimit = bodyLimit};
    request.headers.emplace_back("Authorization", "Bearer " + key);
    request.headers.emplace_back("Content-Type", "application/json");
    return request;
}

[[noreturn]] void failUnreachable()
{
    throw AppError(AppError::Kind::network, "Could not reach the AI provider. Check your connection.");
}

/// What else the server says is not read.
void checkStatus(int status)
{
    if (status >= 200 && status <= 299)
        return;
    if (status == 401 || status == 403)
        throw AppError(AppError::Kind::configuration, rejectedKey);
    if (status == 429)
        throw AppError(AppError::Kind::network, "The provider rate limit or account quota was reached.");
    // The number makes it a sentence that no table can have.
    std::string sentence = "The AI request failed (HTTP ";
    sentence.append(std::to_string(status)).append("). Check the model in Settings.");
    throw AppError(AppError::Kind::network, std::move(sentence));
}

void checkResponse(const HTTPResponse &response)
{
    checkStatus(response.status);
    if (response.bodyTooLarge)
        throw AppError(AppError::Kind::network, "The AI response is too large.");
}

struct Wiping {
    explicit Wiping(std::string &secret) : secret(secret) { }
    ~Wiping() { wipe(secret); }
    Wiping(const Wiping &) = delete;
    Wiping &operator=(const Wiping &) = delete;
    std::string &secret;
};

} // namespace

std::string OpenAIProvider::endpoint(const std::vector<std::string> &environment)
{
    constexpr std::string_view variable = "OPENAI_BASE_URL=";
    std::string_view address;
    for (const std::string &one : environment) {
        if (one.starts_with(variable))
            address = trimmed(std::string_view(one).substr(variable.size()));
    }
    while (address.ends_with('/'))
        address.remove_suffix(1);
    return std::string(address.empty() ? ownEndpoint : address);
}

std::string OpenAIProvider::endpointNote(const std::vector<std::string> &environment)
{
    const std::string address = endpoint(environment);
    if (address == ownEndpoint)
        return L10n::text("The variable OPENAI_BASE_URL names another server with the same interface.");
    if (!isSafe(address))
        return L10n::text(unsafeEndpoint);
    return L10n::format("Requests go to %@, as OPENAI_BASE_URL says.", parsedURL(address)->host);
}

OpenAIProvider::OpenAIProvider(
    std::string model, KeychainService &keychain, HTTPClient *http, Executor pool, std::string endpoint) :
    model(std::move(model)),
    keychain(keychain), http(http), pool(std::move(pool)), endpoint_(std::move(endpoint))
{
}

Task<ModelResponse> OpenAIProvider::chat(
    std::vector<Message> messages, std::vector<ToolDefinition> tools, std::optional<std::string> continuation)
{
    std::string key = (co_await keychain.get(KeychainService::providerAccount)).value_or("");
    const Wiping wiping(key);
    if (key.empty())
        throw AppError(AppError::Kind::configuration, "Add your API key in Settings → AI first.");

    auto write = [model = model, messages = std::move(messages), tools = std::move(tools),
                     continuation = std::move(continuation)](
                     std::stop_token) { return makeResponsesRequest(model, messages, tools, continuation); };
    ResponsesRequest asked = co_await runAside(pool, std::move(write));
    HTTPRequest request = requestTo(endpoint_, key, asked.body);
    wipe(key);
    HTTPResponse response = co_await send(std::move(request));

    auto read = [response = std::move(response), asked = std::move(asked)](std::stop_token) mutable {
        checkResponse(response);
        return readModelResponse(response.body, std::move(asked));
    };
    co_return co_await runAside(pool, std::move(read));
}

Task<HTTPResponse> OpenAIProvider::send(HTTPRequest request) const
{
    if (!http)
        failUnreachable();
    try {
        co_return co_await http->post(std::move(request));
    } catch (const HTTPFailure &failure) {
        if (failure.reason() == HTTPFailure::Reason::notHTTP)
            throw AppError(AppError::Kind::network, "The AI provider returned an invalid response.");
        failUnreachable();
    } catch (const Cancelled &) {
        throw;
    } catch (const std::exception &) { // of the system: no thread can be made, for instance
        failUnreachable();
    }
}

} // namespace korvane
