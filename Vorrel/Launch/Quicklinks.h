#pragma once

#include "CommandCore/CommandRegistry.h"
#include "Vorrel/Platform/Workspace.h"
#include "Vorrel/Store/Repositories.h"

#include <string>

namespace korvane {

namespace Quicklinks {

/// The address without white space around it. Throws `configuration` "Quicklinks must use http, https or file addresses."
/// for anything else. Asked when a link is saved and again each time it is opened, so that a row of the store cannot open
/// any other scheme.
std::string validatedURL(std::string_view text);

} // namespace Quicklinks

/// A quicklink as a row. Main thread only.
class QuicklinkCommand final : public Command {
public:
    /// `workspace` outlives the command and its row.
    QuicklinkCommand(Quicklink link, Workspace &workspace);

    const std::string &id() const override { return row->id; }
    Row result(const CommandContext &) const override { return row; }
    bool isFixed() const override { return true; }

    const Quicklink link;

private:
    Row row;
};

} // namespace korvane
