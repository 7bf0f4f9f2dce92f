#pragma once

#include "CommandCore/JSONValue.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

/// The records of the Model Context Protocol (modelcontextprotocol.io) that the program keeps or reads. Platform-free.
namespace korvane {

/// How a server is reached. In this form the user writes it, and in this form it is stored.
struct MCPServerConfiguration {
    enum class Transport {
        stdio, ///< A child process, over its standard input and output.
        streamableHTTP ///< A reserved name; nothing connects by it yet.
    };
    using Texts = std::map<std::string, std::string>;

    std::string id; ///< Part of the names of its tools.
    std::string name;
    Transport transport = Transport::stdio;
    std::string command; ///< Absolute path of the executable.
    std::vector<std::string> args;
    Texts env; ///< Variables in plain text. No stored server has any.
    Texts secretEnvironment; ///< Names of variables, to accounts of the keychain.
    std::optional<std::string> url; ///< For `streamableHTTP` alone.

    /// All keys but an absent `url`.
    JSONValue json() const;
    /// Only "name" has to be there; without an "id" a fresh one is made, null counts as absent, and other keys are not looked
    /// at. Throws `JSONError` for a missing name and for a member of another type.
    static MCPServerConfiguration fromJSON(const JSONValue &json);
    bool operator==(const MCPServerConfiguration &) const = default;
};

/// One entry of a server's list of tools.
struct MCPToolDescription {
    std::string name;
    std::optional<std::string> description;
    JSONValue inputSchema; ///< Any value, null too.

    /// Throws `JSONError` for a missing name or schema, and for a text that is none.
    static MCPToolDescription fromJSON(const JSONValue &json);
};

/// One page of a server's list of tools; what else the server sends with it is ignored.
struct MCPToolList {
    std::vector<MCPToolDescription> tools;
    std::optional<std::string> nextCursor; ///< Where the next page begins; nothing on the last.

    /// Throws `JSONError` for a missing list, an entry that is no tool and a cursor that is no text.
    static MCPToolList fromJSON(const JSONValue &json);
};

} // namespace korvane
