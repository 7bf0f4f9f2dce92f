#include "Vorrel/AI/SkillLoader.h"

#include "CommandCore/Commands.h"
#include "CommandCore/IndexedFile.h"
#include "Support/Descriptor.h"
#include "Support/Text.h"
#include "Vorrel/Shell/L10n.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <optional>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace korvane {

namespace fs = std::filesystem;

namespace {

constexpr const char *fileName = "SKILL.md";
constexpr std::size_t mostEntries = 200; // of one root
constexpr std::size_t largestFile = 64'000; // bytes

// The text

std::string_view withoutBlanksAround(std::string_view text)
{
    constexpr std::string_view blanks = " \t";
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    return text.substr(0, text.find_last_not_of(blanks) + 1);
}

/// The lines, without their ends, which are line feeds with or without a carriage return before them.
std::vector<std::string_view> linesOf(std::string_view text)
{
    std::vector<std::string_view> lines;
    for (;;) {
        const auto end = text.find('\n');
        auto line = text.substr(0, end);
        if (end != text.npos && line.ends_with('\r'))
            line.remove_suffix(1);
        lines.push_back(line);
        if (end == text.npos)
            return lines;
        text.remove_prefix(end + 1);
    }
}

std::string_view withoutQuotes(std::string_view value)
{
    for (const char mark : {'"', '\''})
        if (value.size() >= 2 && value.starts_with(mark) && value.ends_with(mark))
            return value.substr(1, value.size() - 2);
    return value;
}

/// What stands in front of a skill: a few forms of key and value, line by line. Everything else is passed over.
class Frontmatter {
public:
    void add(std::string_view line)
    {
        if (block && (line.starts_with(' ') || line.starts_with('\t'))) {
            block->append(" ").append(withoutBlanksAround(line));
            return;
        }
        block = nullptr;
        const auto colon = line.find(':');
        auto *field = colon == line.npos ? nullptr : fieldNamed(withoutBlanksAround(line.substr(0, colon)));
        if (!field)
            return;
        const auto value = withoutBlanksAround(line.substr(colon + 1));
        if (value == ">" || value == "|" || value == ">-" || value == "|-")
            block = &field->emplace();
        else
            *field = withoutQuotes(value);
    }

    std::optional<std::string> name, description;

private:
    std::optional<std::string> *fieldNamed(std::string_view key)
    {
        if (key == "name")
            return &name;
        return key == "description" ? &description : nullptr;
    }

    std::string *block = nullptr; ///< The field that indented lines go on with.
};

// The disk

[[noreturn]] void refuseKind() { throw AppError(AppError::Kind::configuration, "Skill must be a regular file."); }

/// Whether something is there, or where a link leads to.
bool exists(const std::string &path)
{
    struct stat status;
    return ::stat(path.c_str(), &status) == 0;
}

Descriptor openRegularFile(const std::string &path)
{
    struct stat status;
    const bool whole = path.find('\0') == path.npos; // the system would see what stands before the zero
    if (!whole || ::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
        refuseKind();
    // What has taken the place of the file since must not hold the reader up, as a pipe without a writer would.
    Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
    if (!file && errno != ELOOP)
        throw std::system_error(errno, std::generic_category());
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        refuseKind();
    return file;
}

/// At most one byte more than a skill may have.
std::string readBeginning(const Descriptor &file)
{
    std::string bytes(largestFile + 1, '\0');
    std::size_t size = 0;
    while (size < bytes.size()) {
        const auto count = ::read(file.get(), bytes.data() + size, bytes.size() - size);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            throw std::system_error(errno, std::generic_category());
        if (count == 0)
            break;
        size += std::size_t(count);
    }
    bytes.resize(size);
    return bytes;
}

std::string textOf(const std::string &path)
{
    std::string bytes = readBeginning(openRegularFile(path));
    if (bytes.size() > largestFile || !isValidUTF8(bytes))
        throw AppError(AppError::Kind::configuration, "Skill must be UTF-8 and at most 64 KB.");
    return bytes;
}

/// What is directly in a folder and not hidden, by path. Throws when the folder cannot be read.
std::vector<std::string> entriesOf(const std::string &root)
{
    std::vector<std::string> entries;
    for (const auto &entry : fs::directory_iterator(root))
        if (!entry.path().filename().native().starts_with('.'))
            entries.push_back(entry.path().native());
    std::ranges::sort(entries);
    return entries;
}

/// Nobody waits for the work any more.
void throwIfStopped(const std::stop_token &stop)
{
    if (stop.stop_requested())
        throw Cancelled();
}

/// One look through the roots.
class Search {
public:
    explicit Search(std::stop_token stop) : stop(std::move(stop)) { }

    void searchRoot(const std::string &root)
    {
        if (!exists(root))
            return;
        std::vector<std::string> entries;
        try {
            entries = entriesOf(root);
        } catch (const std::exception &) {
            scan.warnings.push_back(L10n::format("Cannot read skill folder: %@", displayable(root)));
            return;
        }
        if (entries.size() > mostEntries) {
            scan.warnings.push_back(
                L10n::format("Only the first 200 entries in %@ were scanned.", displayable(lastPathComponent(root))));
            entries.resize(mostEntries);
        }
        look(root);
        for (const std::string &entry : entries) {
            throwIfStopped(stop);
            look(entry);
        }
    }

    SkillLoader::Scan result()
    {
        for (auto &[path, skill] : found)
            scan.skills.push_back(std::move(skill));
        return std::move(scan);
    }

private:
    void look(const std::string &folder)
    {
        const std::string file = beginningBelow(folder) + fileName;
        if (!exists(file))
            return;
        try {
            const std::string text = textOf(file);
            Skill skill = SkillLoader::parse(text, fs::canonical(file).native());
            found.insert_or_assign(skill.path, std::move(skill));
        } catch (const std::exception &) {
            const std::string why = L10n::text(AppError::friendly(std::current_exception()));
            scan.warnings.push_back(displayable(lastPathComponent(folder)) + ": " + why);
        }
    }

    const std::stop_token stop;
    std::map<std::string, Skill> found; ///< By path.
    SkillLoader::Scan scan;
};

} // namespace

std::vector<std::string> SkillLocations::roots(const UserFolders &folders)
{
    std::vector<std::string> roots;
    for (const char *root : {"~/.config/korvane/skills", "~/.claude/skills", "~/.config/agents/skills"})
        roots.push_back(folders.expandingTilde(root));
    return roots;
}

Skill SkillLoader::parse(std::string_view text, std::string path)
{
    const auto lines = linesOf(text);
    constexpr std::string_view fence = "---";
    const auto closing = std::find(lines.begin() + 1, lines.end(), fence);
    if (lines.front() != fence || closing == lines.end())
        throw AppError(AppError::Kind::configuration, "SKILL.md needs name and description frontmatter.");
    Frontmatter front;
    std::for_each(lines.begin() + 1, closing, [&front](std::string_view line) { front.add(line); });
    const std::string description(withoutBlanksAround(front.description.value_or("")));
    if (!front.name || front.name->empty() || description.empty())
        throw AppError(AppError::Kind::configuration, "SKILL.md requires a name and description.");
    std::string body;
    std::for_each(closing + 1, lines.end(), [&body](std::string_view line) { body.append(line).push_back('\n'); });
    const std::string instructions(trimmed(body));
    if (instructions.empty())
        throw AppError(AppError::Kind::configuration, "SKILL.md has no instructions.");
    return {.name = *front.name, .description = description, .instructions = instructions, .path = std::move(path)};
}

Task<SkillLoader::Scan> SkillLoader::scan(std::vector<std::string> roots)
{
    auto work = [roots = std::move(roots)](std::stop_token stop) {
        Search search(stop);
        for (const std::string &root : roots)
            search.searchRoot(root);
        return search.result();
    };
    co_return co_await runAside(detached, std::move(work));
}

Task<std::vector<Skill>> SkillLoader::load(std::vector<std::string> paths)
{
    auto work = [paths = std::move(paths)](std::stop_token stop) {
        std::vector<Skill> skills;
        for (const std::string &path : paths) {
            throwIfStopped(stop);
            if (lastPathComponent(path) != fileName)
                throw AppError(AppError::Kind::configuration, "Select a SKILL.md file.");
            skills.push_back(parse(textOf(path), path));
        }
        return skills;
    };
    co_return co_await runAside(detached, std::move(work));
}

} // namespace korvane
