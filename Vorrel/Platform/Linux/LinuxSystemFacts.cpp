#include "Vorrel/Platform/Linux/LinuxSystemFacts.h"

#include <fstream>
#include <sys/utsname.h>

namespace korvane {

namespace {

/// The value of a line "PRETTY_NAME=…", which the shell could read; empty without one.
std::string prettyName(const std::string &releaseFile)
{
    constexpr std::string_view key = "PRETTY_NAME=";
    std::ifstream file(releaseFile);
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with(key))
            continue;
        std::string value;
        for (const char byte : line.substr(key.size()))
            if (byte != '"' && byte != '\'' && byte != '\\')
                value += byte;
        return value;
    }
    return {};
}

} // namespace

SystemFacts linuxSystemFacts(const Environment &environment, const std::string &releaseFile)
{
    utsname kernel{};
    ::uname(&kernel);
    const std::string name = prettyName(releaseFile);
    const auto languages = linuxLanguages(environment);
    return {.version = name + (name.empty() ? "" : ", ") + kernel.sysname + " " + kernel.release,
        .architecture = kernel.machine,
        .language = languages.empty() ? "unknown" : languages.front()};
}

} // namespace korvane
