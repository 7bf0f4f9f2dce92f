#include "Vorrel/Platform/Linux/ShortcutFolder.h"

#include "Support/ChildProcess.h"
#include "Support/Text.h"
#include "Vorrel/Platform/Linux/Launcher.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace korvane {

namespace {

namespace fs = std::filesystem;

bool isProgram(const fs::path &file)
{
    struct stat facts { };
    return ::stat(file.c_str(), &facts) == 0 && S_ISREG(facts.st_mode) && ::access(file.c_str(), X_OK) == 0;
}

/// Whether nothing in it is without a sign of its own, or changes how the rest is read.
bool showsWhole(const std::string &name)
{
    static constexpr std::string_view hidden[] = {
        "\t", "\n", "\u200B", "\u200C", "\u200D", "\u200E", "\u200F", "\u2028", "\u2029", "\u2060", "\uFEFF"};
    return withoutControls(name) == name
        && std::ranges::none_of(hidden, [&](std::string_view one) { return name.find(one) != std::string::npos; });
}

bool isName(const std::string &name)
{
    return !name.empty() && !name.starts_with('-') && trimmed(name) == name && isValidUTF8(name) && showsWhole(name);
}

int complain(const std::string &sentence)
{
    std::fprintf(stderr, "%s\n", sentence.c_str());
    return 1;
}

int list(const ShortcutFolder &folder)
{
    for (const auto &name : folder.names())
        std::printf("%s\n", name.c_str());
    return std::fflush(stdout) == 0 ? 0 : 1;
}

int run(const std::string &file, const Environment &environment)
{
    if (const auto home = nonEmpty(environment, "HOME"); !home || ::chdir(home->c_str()) != 0)
        return complain("The home folder cannot be entered.");
    const char *const words[] = {file.c_str(), nullptr};
    ::execv(file.c_str(), const_cast<char *const *>(words));
    const char *const shellWords[] = {"/bin/sh", file.c_str(), nullptr};
    if (errno == ENOEXEC) // a script that names no interpreter
        ::execv(shellWords[0], const_cast<char *const *>(shellWords));
    return complain(file + ": " + std::strerror(errno));
}

int view(const std::string &file)
{
    // The folder and not the file: opening an executable file means running it in some file managers.
    const std::string folder = fs::path(file).parent_path();
    try {
        spawnDetachedProcess({{"xdg-open", folder}, environmentSnapshot(), {}});
    } catch (const std::system_error &error) {
        return complain(std::string("xdg-open: ") + error.code().message());
    }
    return 0;
}

} // namespace

std::vector<ShortcutFolder::Shortcut> ShortcutFolder::shortcuts() const
{
    std::vector<fs::path> files;
    std::error_code failure;
    for (fs::directory_iterator at(path, failure), end; !failure && at != end; at.increment(failure))
        files.push_back(at->path());
    std::ranges::sort(files);
    std::vector<Shortcut> found;
    for (const auto &file : files) {
        const std::string name = file.stem();
        const bool known = std::ranges::find(found, name, &Shortcut::name) != found.end();
        if (!known && !file.filename().native().starts_with('.') && isName(name) && isProgram(file))
            found.push_back({name, file});
    }
    std::ranges::stable_sort(found, [](const auto &a, const auto &b) { return compareNames(a.name, b.name) < 0; });
    return found;
}

std::vector<std::string> ShortcutFolder::names() const
{
    std::vector<std::string> names;
    for (auto &shortcut : shortcuts())
        names.push_back(std::move(shortcut.name));
    return names;
}

std::optional<std::string> ShortcutFolder::file(const std::string &name) const
{
    for (auto &shortcut : shortcuts())
        if (shortcut.name == name)
            return std::move(shortcut.file);
    return std::nullopt;
}

int runShortcutsTool(const std::vector<std::string> &arguments)
{
    const Environment environment = variablesOf(environmentSnapshot());
    const auto folder = ShortcutFolder::below(linuxUserFolders(environment).home);
    if (arguments.size() == 1 && arguments[0] == "list")
        return list(folder);
    if (arguments.size() != 2 || (arguments[0] != "run" && arguments[0] != "view")) {
        std::fputs("usage: korvane-shortcuts list | run NAME | view NAME\n", stderr);
        return 2;
    }
    const auto file = folder.file(arguments[1]);
    if (!file)
        return complain("There is no shortcut \"" + displayable(arguments[1]) + "\".");
    return arguments[0] == "run" ? run(*file, environment) : view(*file);
}

} // namespace korvane
