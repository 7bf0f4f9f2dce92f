#pragma once

#include <chrono>
#include <random>
#include <string>
#include <vector>

namespace korvane::test {

/// Changes what is below some folders as people and programs do, by chance and always the same way for one seed.
class RandomChanges {
public:
    /// `outside` is a folder that is not indexed, for what is moved away and comes back.
    RandomChanges(std::vector<std::string> roots, std::string outside, unsigned seed);

    /// That many: new files and folders, writes, renames, moves of files and of whole folders, deletions, moves out of
    /// the roots and into them, renames that change nothing but the case, links.
    void make(int count);

private:
    std::string anyFolder(); ///< Also a root.
    std::string anyEntry(bool folder); ///< Empty when there is none.
    std::string newName();
    int below(int limit) { return int(random() % unsigned(limit)); }

    void createFile();
    void createFolder();
    void write();
    void rename(bool folder);
    void move(bool folder);
    void remove(bool folder);
    void moveOut();
    void moveIn();
    void changeCase(bool folder);
    void touch();
    void link();

    const std::vector<std::string> roots;
    const std::string outside, target;
    std::mt19937 random;
    int names = 0;
};

/// How the store differs from the disk once nothing more changes in it for the better, waiting at most `patience`
/// for the process that follows the disk; empty as soon as they are equal.
std::string differenceAfterCatchingUp(
    const std::string &store, const std::vector<std::string> &roots, std::chrono::seconds patience);

} // namespace korvane::test
