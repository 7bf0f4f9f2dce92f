#include "tests/index/RandomChanges.h"

#include "tests/index/DiskIndex.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <thread>

namespace korvane::test {

namespace fs = std::filesystem;

namespace {

enum class Kind { folder, other, any };

/// What is directly in a folder, in one order: that of the file system is no part of the seed.
std::vector<fs::path> entriesOf(const fs::path &folder, Kind kind)
{
    std::vector<fs::path> entries;
    std::error_code ignored;
    for (const auto &entry : fs::directory_iterator(folder, ignored)) {
        const bool isFolder = !entry.is_symlink(ignored) && entry.is_directory(ignored); // known without asking the disk
        if (kind == Kind::any || isFolder == (kind == Kind::folder))
            entries.push_back(entry.path());
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

std::string otherCase(std::string name)
{
    for (char &c : name)
        if (std::isalpha(static_cast<unsigned char>(c)))
            c = char(std::isupper(static_cast<unsigned char>(c)) ? std::tolower(c) : std::toupper(c));
    return name;
}

} // namespace

RandomChanges::RandomChanges(std::vector<std::string> roots, std::string outside, unsigned seed) :
    roots(std::move(roots)), outside(std::move(outside)), target(this->outside + ".target"), random(seed)
{
    std::ofstream(target) << "what links lead to";
}

void RandomChanges::make(int count)
{
    for (int i = 0; i < count; ++i) {
        switch (below(20)) {
        case 0:
        case 1:
        case 2:
        case 3:
        case 4: createFile(); break;
        case 5:
        case 6: createFolder(); break;
        case 7:
        case 8:
        case 9: write(); break;
        case 10: rename(false); break;
        case 11: rename(true); break;
        case 12: move(false); break;
        case 13: move(true); break;
        case 14: remove(false); break;
        case 15: below(6) == 0 ? remove(true) : remove(false); break;
        case 16: moveOut(); break;
        case 17: moveIn(); break;
        case 18: changeCase(below(2) == 0); break;
        default: below(2) == 0 ? touch() : link(); break;
        }
    }
}

std::string RandomChanges::newName()
{
    static constexpr const char *words[] = {"report", "Photo", "notes", "Übersicht", "data", "draft", "财务", "Song"};
    static constexpr const char *endings[] = {"", ".txt", ".pdf", ".JPG", ".tar.gz"};
    return std::string(words[below(8)]) + " " + std::to_string(++names) + endings[below(5)];
}

std::string RandomChanges::anyFolder()
{
    fs::path folder = roots[std::size_t(below(int(roots.size())))];
    for (int depth = below(5); depth > 0; --depth) {
        const std::vector<fs::path> folders = entriesOf(folder, Kind::folder);
        if (folders.empty())
            break;
        folder = folders[std::size_t(below(int(folders.size())))];
    }
    return folder;
}

std::string RandomChanges::anyEntry(bool folder)
{
    for (int attempt = 0; attempt < 4; ++attempt) {
        const std::vector<fs::path> entries = entriesOf(anyFolder(), folder ? Kind::folder : Kind::other);
        if (!entries.empty())
            return entries[std::size_t(below(int(entries.size())))];
    }
    return {};
}

void RandomChanges::createFile() { std::ofstream(anyFolder() + "/" + newName()) << std::string(std::size_t(below(300)), 'x'); }

void RandomChanges::createFolder()
{
    fs::path folder = anyFolder() + "/" + newName();
    for (int depth = below(3); depth >= 0; --depth) {
        fs::create_directories(folder);
        for (int files = below(4); files > 0; --files)
            std::ofstream(folder / newName()) << "x";
        folder /= newName();
    }
}

void RandomChanges::write()
{
    const std::string file = anyEntry(false);
    if (!file.empty() && fs::is_regular_file(fs::symlink_status(file)))
        std::ofstream(file, below(2) ? std::ios::app : std::ios::trunc) << std::string(std::size_t(below(500)), 'y');
}

void RandomChanges::rename(bool folder)
{
    const fs::path entry = anyEntry(folder);
    std::error_code ignored;
    if (!entry.empty())
        fs::rename(entry, entry.parent_path() / newName(), ignored);
}

void RandomChanges::move(bool folder)
{
    const fs::path entry = anyEntry(folder);
    std::error_code ignored; // a folder cannot be moved into itself
    if (!entry.empty())
        fs::rename(entry, fs::path(anyFolder()) / entry.filename(), ignored);
}

void RandomChanges::remove(bool folder)
{
    const fs::path entry = anyEntry(folder);
    std::error_code ignored;
    if (!entry.empty())
        fs::remove_all(entry, ignored);
}

void RandomChanges::moveOut()
{
    const fs::path entry = anyEntry(below(4) == 0);
    std::error_code ignored;
    if (!entry.empty())
        fs::rename(entry, outside + "/" + newName(), ignored);
}

void RandomChanges::moveIn()
{
    const std::vector<fs::path> entries = entriesOf(outside, Kind::any);
    std::error_code ignored;
    if (!entries.empty())
        fs::rename(entries[std::size_t(below(int(entries.size())))], anyFolder() + "/" + newName(), ignored);
}

void RandomChanges::changeCase(bool folder)
{
    const fs::path entry = anyEntry(folder);
    std::error_code ignored;
    if (!entry.empty())
        fs::rename(entry, entry.parent_path() / otherCase(entry.filename()), ignored);
}

void RandomChanges::touch()
{
    const std::string file = anyEntry(false);
    const timespec times[2] = {{1'600'000'000 + below(1'000'000), 0}, {1'600'000'000 + below(1'000'000), 0}};
    if (!file.empty())
        ::utimensat(AT_FDCWD, file.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

/// A link to a file that lies where nothing changes: the facts of a link are those of its target, and nothing tells
/// the place of a link of what happens there.
void RandomChanges::link()
{
    std::error_code ignored;
    fs::create_symlink(target, anyFolder() + "/" + newName(), ignored);
}

std::string differenceAfterCatchingUp(
    const std::string &store, const std::vector<std::string> &roots, std::chrono::seconds patience)
{
    const Facts disk = onDisk(roots);
    const auto end = std::chrono::steady_clock::now() + patience;
    for (;;) {
        const std::string text = difference(disk, inStore(store));
        if (text.empty() || std::chrono::steady_clock::now() > end)
            return text;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

} // namespace korvane::test
