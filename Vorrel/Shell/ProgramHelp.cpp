#include "Vorrel/Shell/ProgramHelp.h"

#include <algorithm>
#include <string_view>

namespace korvane {

namespace {

constexpr std::string_view usage = R"(Usage: korvane [OPTION]…

Starts Korvane, which waits in the tray. Where it runs already, its palette is shown or hidden,
and the options do not count.

  --show                    shows the palette as soon as Korvane is ready
  --settings                shows the settings
  --rebuild-index           scans all indexed folders anew
  --keychain-selftest       checks that the keyring lets Korvane read what it has kept, and ends
  --keychain-selftest-clean
                            removes what that check has kept, and ends
  --help                    this text
  --version                 the version

Exit status: 0 ended by the user, or handed on to the Korvane that runs; 1 there is no display.
)";

} // namespace

std::optional<std::string> answerInsteadOfStarting(const std::vector<std::string> &arguments)
{
    const auto given = [&arguments](std::string_view flag) { return std::ranges::find(arguments, flag) != arguments.end(); };
    if (given("--help"))
        return std::string(usage);
    if (given("--version"))
        return "korvane " KORVANE_VERSION "\n";
    return std::nullopt;
}

} // namespace korvane
