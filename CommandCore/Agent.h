#pragma once

#include "CommandCore/JSONValue.h"

#include <string>
#include <vector>

namespace korvane {

/// A configured assistant: how the model is addressed and what it may use.
struct Agent {
    std::string id; ///< Upper-case UUID.
    std::string name;
    std::string icon = "sparkles"; ///< Name of a symbol.
    std::string systemPrompt;
    std::string model = "gpt-4.1-mini";
    std::vector<std::string> tools; ///< Names; empty means that it may use none.
    std::vector<std::string> skills; ///< Paths.

    /// With exactly these seven keys.
    JSONValue json() const;
    /// Throws `JSONError` for a missing key and one of another type; does not look at further ones.
    static Agent fromJSON(const JSONValue &json);
    bool operator==(const Agent &) const = default;
};

} // namespace korvane
