#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace korvane::test {

/// A new folder on the disk, removed with everything in it. Names are relative to it.
class DiskFolder {
public:
    DiskFolder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "korvane-test-XXXXXX").native();
        if (!::mkdtemp(pattern.data()))
            throw std::runtime_error("no temporary folder");
        path = pattern;
    }
    ~DiskFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    DiskFolder(const DiskFolder &) = delete;
    DiskFolder &operator=(const DiskFolder &) = delete;

    std::string operator/(const std::string &name) const { return path + "/" + name; }

    std::string folder(const std::string &name) const
    {
        std::filesystem::create_directories(*this / name);
        return *this / name;
    }
    std::string file(const std::string &name, const std::string &bytes = "") const
    {
        const std::string whole = *this / name;
        std::filesystem::create_directories(std::filesystem::path(whole).parent_path());
        std::ofstream(whole, std::ios::binary) << bytes;
        return whole;
    }
    /// A shell script that can be run.
    std::string script(const std::string &name, const std::string &body) const
    {
        const auto whole = file(name, "#!/bin/sh\n" + body + "\n");
        std::filesystem::permissions(whole, std::filesystem::perms::owner_all);
        return whole;
    }
    std::string link(const std::string &name, const std::string &target) const
    {
        std::filesystem::create_directories(std::filesystem::path(*this / name).parent_path());
        std::filesystem::create_symlink(target, *this / name);
        return *this / name;
    }
    /// Empty for what is not there.
    std::string contents(const std::string &name) const
    {
        std::ifstream in(*this / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    std::string path;
};

} // namespace korvane::test
