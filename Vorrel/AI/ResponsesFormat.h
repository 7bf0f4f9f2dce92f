#pragma once

#include "CommandCore/Messages.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

/// What is written to and read from the Responses interface (https://platform.openai.com/docs/api-reference/responses). Does no
/// input or output. Pure functions; any thread.
namespace korvane {

/// One request as its response is read by.
struct ResponsesRequest {
    std::string body; ///< JSON.
    JSONValue::Array input; ///< The whole history of items, this request's included.
    std::map<std::string, std::string, std::less<>> toolNames; ///< By the name that the model knows: "tool_" and the position.
};

/// Throws `JSONError` for a continuation that is no array in JSON and for numbers that JSON cannot express.
ResponsesRequest makeResponsesRequest(const std::string &model, const std::vector<Message> &messages,
    const std::vector<ToolDefinition> &tools, const std::optional<std::string> &continuation);

/// Reads the body of a response to `request`. Throws `network` "The model did not complete its response. Try a shorter request.",
/// `toolExecution` "The model returned an invalid tool call.", and `JSONError` for what is no JSON, the arguments of a call
/// included.
ModelResponse readModelResponse(const std::string &body, ResponsesRequest request);

} // namespace korvane
