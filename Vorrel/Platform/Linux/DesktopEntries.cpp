#include "Vorrel/Platform/Linux/DesktopEntries.h"

#include "Support/ChildProcess.h"
#include "Support/Descriptor.h"
#include "Support/Text.h"
#include "Vorrel/Platform/Linux/ExecLine.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <glib.h>
#include <memory>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace korvane {

namespace {

using Strings = std::vector<std::string>;

constexpr char mainGroup[] = "Desktop Entry";
constexpr std::size_t largestEntry = 1 << 20; // bytes; a real one with all its translations has some tens of thousands

Strings split(std::string_view text, char separator)
{
    Strings parts;
    while (!text.empty()) {
        const auto end = text.find(separator);
        if (const auto part = text.substr(0, end); !part.empty())
            parts.emplace_back(part);
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
    }
    return parts;
}

/// An absolute path without slashes at its end; empty for what is none.
std::string absoluteFolder(std::string_view path)
{
    if (!path.starts_with('/'))
        return {};
    while (path.size() > 1 && path.ends_with('/'))
        path.remove_suffix(1);
    return std::string(path);
}

} // namespace

DesktopEnvironment DesktopEnvironment::from(const Environment &environment)
{
    DesktopEnvironment result;
    const auto folders = linuxUserFolders(environment);
    result.dataHome = folders.data.value_or(folders.home + "/.local/share");
    for (const auto &one : split(environment("XDG_DATA_DIRS").value_or(""), ':'))
        if (auto folder = absoluteFolder(one); !folder.empty())
            result.dataDirs.push_back(std::move(folder));
    if (result.dataDirs.empty())
        result.dataDirs = {"/usr/local/share", "/usr/share"};
    result.currentDesktop = split(environment("XDG_CURRENT_DESKTOP").value_or(""), ':');
    result.languages = linuxLanguages(environment);
    result.path = environment("PATH").value_or("");
    return result;
}

// The file

namespace {

/// The groups, keys and raw values of an entry's file. Whatever the bytes, asking is harmless.
class KeyFile {
public:
    /// Nothing when other desktops could not read it either.
    static std::optional<KeyFile> parse(std::string_view bytes)
    {
        KeyFile file;
        const auto flags = static_cast<GKeyFileFlags>(G_KEY_FILE_KEEP_TRANSLATIONS);
        // The bytes of no text at all are refused by the library with a complaint on standard error.
        if (bytes.empty() || !g_key_file_load_from_data(file.keys.get(), bytes.data(), bytes.size(), flags, nullptr))
            return std::nullopt;
        return file;
    }

    bool has(const char *group) const { return g_key_file_has_group(keys.get(), group); }

    /// The value with its general escapes undone; unknown escapes stand for themselves, since many
    /// files quote for a shell alone.
    std::optional<std::string> text(const char *group, const std::string &key) const
    {
        const auto raw = rawValue(group, key);
        return raw ? std::optional(unescaped(*raw)) : std::nullopt;
    }

    bool flag(const char *group, const std::string &key) const
    {
        const auto raw = rawValue(group, key);
        return raw && (*raw == "true" || *raw == "1");
    }

    /// The elements of a list; nothing when the key is absent.
    std::optional<Strings> list(const char *group, const std::string &key) const
    {
        const auto raw = rawValue(group, key);
        if (!raw)
            return std::nullopt;
        Strings elements;
        std::string element;
        for (std::size_t at = 0; at < raw->size(); ++at) {
            if ((*raw)[at] == ';') {
                elements.push_back(std::exchange(element, {}));
                continue;
            }
            element += (*raw)[at];
            if ((*raw)[at] == '\\' && at + 1 < raw->size())
                element += (*raw)[++at];
        }
        if (!element.empty())
            elements.push_back(std::move(element));
        for (auto &one : elements)
            one = unescaped(one);
        return elements;
    }

    /// The value in the first of the languages that the file has, else the one without a language.
    std::string localized(const char *group, const std::string &key, const Strings &languages) const
    {
        for (const auto &language : languages)
            for (const auto &form : formsOf(language))
                if (const auto value = text(group, key + "[" + form + "]");
                    value && isValidUTF8(*value) && !trimmed(*value).empty())
                    return std::string(trimmed(*value));
        const auto plain = displayable(text(group, key).value_or(""));
        return std::string(trimmed(plain));
    }

private:
    KeyFile() : keys(g_key_file_new(), &g_key_file_free) { }

    std::optional<std::string> rawValue(const char *group, const std::string &key) const
    {
        const std::unique_ptr<char, decltype(&g_free)> value(
            g_key_file_get_value(keys.get(), group, key.c_str(), nullptr), &g_free);
        return value ? std::optional<std::string>(value.get()) : std::nullopt;
    }

    static std::string unescaped(std::string_view raw)
    {
        std::string text;
        for (std::size_t at = 0; at < raw.size(); ++at) {
            if (raw[at] != '\\' || at + 1 == raw.size()) {
                text += raw[at];
                continue;
            }
            switch (raw[++at]) {
            case 's': text += ' '; break;
            case 'n': text += '\n'; break;
            case 't': text += '\t'; break;
            case 'r': text += '\r'; break;
            case '\\': text += '\\'; break;
            case ';': text += ';'; break;
            default: (text += '\\') += raw[at];
            }
        }
        return text;
    }

    /// The ways in which a file may name a locale, the most exact first: "de_AT@euro", "de_AT",
    /// "de@euro", "de".
    static Strings formsOf(std::string_view locale)
    {
        const auto at = locale.find('@');
        const std::string modifier(at == std::string_view::npos ? std::string_view{} : locale.substr(at));
        locale = locale.substr(0, locale.substr(0, at).find('.')).substr(0, at);
        const auto underscore = locale.find('_');
        const std::string language(locale.substr(0, underscore));
        const std::string country(underscore == std::string_view::npos ? std::string_view{} : locale.substr(underscore));
        Strings forms;
        for (const auto &form : {language + country + modifier, language + country, language + modifier, language})
            if (!form.empty() && std::find(forms.begin(), forms.end(), form) == forms.end())
                forms.push_back(form);
        return forms;
    }

    std::unique_ptr<GKeyFile, decltype(&g_key_file_free)> keys;
};

bool contains(const Strings &list, const std::string &one) { return std::find(list.begin(), list.end(), one) != list.end(); }

/// Whether the entry belongs on the running desktop. The desktop's most specific name that either list
/// mentions decides.
bool belongsHere(const KeyFile &file, const Strings &currentDesktop)
{
    const auto only = file.list(mainGroup, "OnlyShowIn");
    const auto never = file.list(mainGroup, "NotShowIn");
    for (const auto &desktop : currentDesktop) {
        if (only && contains(*only, desktop))
            return true;
        if (never && contains(*never, desktop))
            return false;
    }
    return !only;
}

bool canBeTried(const KeyFile &file, const std::string &searchPath)
{
    const auto program = file.text(mainGroup, "TryExec");
    return !program || program->empty() || findProgram(*program, searchPath);
}

/// Whether something can be started: a command line that may be processed, or, without one, by D-Bus.
bool startable(const std::string &exec, bool dbusActivatable)
{
    return exec.empty() ? dbusActivatable : ExecLine::parse(exec).has_value();
}

std::vector<DesktopAction> readActions(const KeyFile &file, const DesktopEntry &entry, const Strings &languages)
{
    std::vector<DesktopAction> actions;
    for (const auto &id : file.list(mainGroup, "Actions").value_or(Strings{})) {
        const std::string group = "Desktop Action " + id;
        const bool known = std::any_of(actions.begin(), actions.end(), [&](const auto &one) { return one.id == id; });
        if (id.empty() || known || !file.has(group.c_str()))
            continue;
        DesktopAction action{id, file.localized(group.c_str(), "Name", languages), file.text(group.c_str(), "Exec").value_or(""),
            file.localized(group.c_str(), "Icon", languages)};
        if (!action.name.empty() && startable(action.exec, entry.dbusActivatable))
            actions.push_back(std::move(action));
    }
    return actions;
}

} // namespace

std::optional<DesktopEntry> DesktopEntry::parse(std::string_view bytes, const DesktopEnvironment &environment)
{
    const auto file = KeyFile::parse(bytes);
    if (!file || !file->has(mainGroup))
        return std::nullopt;
    DesktopEntry entry;
    // Looked at first: an entry of the user's that only hides the machine's has often nothing else.
    entry.masks = file->flag(mainGroup, "Hidden") || file->flag(mainGroup, "NoDisplay");
    entry.name = file->localized(mainGroup, "Name", environment.languages);
    entry.exec = file->text(mainGroup, "Exec").value_or("");
    entry.dbusActivatable = file->flag(mainGroup, "DBusActivatable");
    const bool application = file->text(mainGroup, "Type") == "Application" && !entry.name.empty();
    if (!entry.masks && (!application || !startable(entry.exec, entry.dbusActivatable)))
        return std::nullopt;
    entry.icon = file->localized(mainGroup, "Icon", environment.languages);
    entry.workingDirectory = file->text(mainGroup, "Path").value_or("");
    entry.windowClass = file->text(mainGroup, "StartupWMClass").value_or("");
    entry.terminal = file->flag(mainGroup, "Terminal");
    entry.shown = belongsHere(*file, environment.currentDesktop) && canBeTried(*file, environment.path);
    entry.actions = readActions(*file, entry, environment.languages);
    return entry;
}

namespace {

/// The bytes of a small regular file, or none of "/dev/null". Never waits for a writer.
std::optional<std::string> readSmallFile(const std::string &path)
{
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status { };
    if (!file || ::fstat(file.get(), &status) != 0)
        return std::nullopt;
    if (S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3))
        return std::string();
    if (!S_ISREG(status.st_mode))
        return std::nullopt;
    std::string bytes;
    std::vector<char> part(65536);
    while (bytes.size() <= largestEntry) {
        const auto count = ::read(file.get(), part.data(), part.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return std::nullopt;
        if (count == 0)
            return bytes;
        bytes.append(part.data(), static_cast<std::size_t>(count));
    }
    return std::nullopt;
}

} // namespace

std::optional<DesktopEntry> DesktopEntry::read(const std::string &path, const DesktopEnvironment &environment)
{
    const auto bytes = readSmallFile(path);
    if (!bytes)
        return std::nullopt;
    if (bytes->empty()) {
        DesktopEntry mask;
        mask.masks = true;
        return mask;
    }
    return parse(*bytes, environment);
}

// The source

std::vector<std::string> DesktopEntries::roots() const
{
    // The preferred ones first, so that of two mentions of a folder the preferred one stays.
    Strings folders{environment.dataHome};
    const Strings exports{
        environment.dataHome + "/flatpak/exports/share", "/var/lib/flatpak/exports/share", "/var/lib/snapd/desktop"};
    for (const auto &folder : exports)
        if (!contains(environment.dataDirs, folder))
            folders.push_back(folder);
    for (const auto &folder : environment.dataDirs)
        if (!contains(folders, folder))
            folders.push_back(folder);
    std::reverse(folders.begin(), folders.end());
    for (auto &folder : folders)
        folder += "/applications";
    return folders;
}

std::string desktopIdentifier(const std::string &root, const std::string &path)
{
    std::string below = path;
    if (path.starts_with(root + "/"))
        below = path.substr(root.size() + 1);
    if (below.ends_with(".desktop"))
        below.resize(below.size() - std::string_view(".desktop").size());
    std::replace(below.begin(), below.end(), '/', '-');
    return below;
}

std::optional<ApplicationEntry> DesktopEntries::read(const std::string &root, const std::string &path) const
{
    const auto entry = DesktopEntry::read(path, environment);
    if (!entry)
        return std::nullopt;
    return ApplicationEntry{entry->name, desktopIdentifier(root, path), !entry->masks && entry->shown};
}

std::vector<ApplicationOwnAction> DesktopEntries::actions(const std::string &path) const
{
    std::vector<ApplicationOwnAction> actions;
    if (const auto entry = DesktopEntry::read(path, environment))
        for (const auto &action : entry->actions)
            actions.push_back({action.id, action.name});
    return actions;
}

namespace {

std::string lowerCase(std::string text)
{
    for (char &letter : text)
        if (letter >= 'A' && letter <= 'Z')
            letter = static_cast<char>(letter - 'A' + 'a');
    return text;
}

/// Files below a folder, in no order; what cannot be read is left out.
std::vector<std::string> entriesBelow(const std::string &root)
{
    namespace fs = std::filesystem;
    constexpr int deepest = 4; // folders
    std::vector<std::string> paths;
    std::error_code failed;
    for (fs::recursive_directory_iterator at(root, fs::directory_options::skip_permission_denied, failed), end;
         !failed && at != end; at.increment(failed)) {
        if (at.depth() >= deepest)
            at.disable_recursion_pending();
        if (at->path().extension() == ".desktop")
            paths.push_back(at->path().native());
    }
    return paths;
}

} // namespace

std::map<std::string, std::string> DesktopEntries::identifiersByWindowClass() const
{
    std::map<std::string, std::string> told, guessed;
    for (const auto &root : roots())
        for (const auto &path : entriesBelow(root)) {
            const auto entry = DesktopEntry::read(path, environment);
            if (!entry || entry->masks)
                continue;
            const std::string id = desktopIdentifier(root, path);
            guessed[lowerCase(id)] = id;
            guessed.try_emplace(lowerCase(id.substr(id.rfind('.') + 1)), id);
            if (!entry->windowClass.empty())
                told[lowerCase(entry->windowClass)] = id;
        }
    told.merge(guessed);
    return told;
}

} // namespace korvane
