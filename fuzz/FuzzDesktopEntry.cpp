#include "Vorrel/Platform/Linux/DesktopEntries.h"
#include "Vorrel/Platform/Linux/ExecLine.h"

#include <cstdint>
#include <cstdlib>

using namespace korvane;

namespace {

void require(bool holds)
{
    if (!holds)
        std::abort();
}

/// A command line is either refused or gives a program and keeps what the user typed.
void tryCommandLine(std::string_view value)
{
    const auto line = ExecLine::parse(value);
    if (!line)
        return;
    const auto plain = line->words({});
    require(!plain.empty() && !plain.front().empty());
    const auto typed = line->words({.arguments = {"first", "second"}});
    require(typed.size() == plain.size() + 2);
    require(typed.front() == plain.front());
    line->words({.target = ExecLine::Target{"/a b", "file:///a%20b"}, .name = "%f", .icon = "i", .location = "/x"});
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const DesktopEnvironment environment{
        .dataHome = {}, .dataDirs = {}, .currentDesktop = {"GNOME"}, .languages = {"de_AT.UTF-8@euro", "fr"}, .path = "/nowhere"};
    const std::string_view bytes(reinterpret_cast<const char *>(data), size);
    tryCommandLine(bytes);
    if (const auto entry = DesktopEntry::parse(bytes, environment)) {
        require(entry->masks || !entry->name.empty());
        require(entry->masks || entry->dbusActivatable || ExecLine::parse(entry->exec));
        for (const auto &action : entry->actions)
            require(!action.id.empty() && !action.name.empty());
        tryCommandLine(entry->exec);
    }
    return 0;
}
