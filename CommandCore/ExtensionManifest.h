#pragma once

#include "CommandCore/JSONValue.h"

#include <optional>
#include <string>
#include <vector>

namespace korvane {

/// What an extension says of itself. The format is settled; nothing in the program reads extensions yet.
struct ExtensionManifest {
    struct Command {
        std::string name; ///< Identifier.
        std::string title;
        std::string mode; ///< How it runs.

        JSONValue json() const;
        static Command fromJSON(const JSONValue &json);
        bool operator==(const Command &) const = default;
    };
    struct Tool {
        std::string name; ///< Identifier.
        std::string description;
        std::optional<JSONValue> inputSchema;

        JSONValue json() const;
        static Tool fromJSON(const JSONValue &json);
        bool operator==(const Tool &) const = default;
    };

    std::string name; ///< Identifier of the extension.
    std::string title;
    std::string version;
    std::vector<Command> commands;
    std::vector<Tool> tools;

    /// The names of the fields are the keys; an absent schema has none.
    JSONValue json() const;
    /// Throws `JSONError` for a missing key and one of another type; does not look at further ones. A schema of null counts as
    /// absent.
    static ExtensionManifest fromJSON(const JSONValue &json);
    bool operator==(const ExtensionManifest &) const = default;
};

} // namespace korvane
