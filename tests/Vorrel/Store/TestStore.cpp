#include "TestStore.h"

#include <sqlite3.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace korvane::test {

namespace {

std::string newFolder()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "korvane-store-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("no folder for the test");
    return pattern;
}

std::string_view nameOf(AppError::Kind kind)
{
    switch (kind) {
    case AppError::Kind::recoverable: return "recoverable";
    case AppError::Kind::database: return "database";
    default: return "another kind";
    }
}

std::string readAll(int descriptor)
{
    std::string text;
    char buffer[4096];
    for (ssize_t count; (count = read(descriptor, buffer, sizeof buffer)) > 0;)
        text.append(buffer, std::size_t(count));
    return text;
}

} // namespace

TemporaryFolder::TemporaryFolder() : path(newFolder()) { }

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    std::filesystem::permissions(path, std::filesystem::perms::owner_all, ignored);
    std::filesystem::remove_all(path, ignored);
}

std::string contentsOf(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void writeFile(const std::string &path, const std::string &contents) { std::ofstream(path, std::ios::binary) << contents; }

bool exists(const std::string &path) { return std::filesystem::exists(std::filesystem::symlink_status(path)); }

std::string fixture(const std::string &name)
{
    const std::string text = contentsOf(std::string(KORVANE_TEST_DATA) + "/store/" + name);
    if (text.empty())
        throw std::runtime_error("no fixture " + name);
    return text;
}

OtherProgram::OtherProgram(const std::string &path) { EXPECT_EQ(sqlite3_open(path.c_str(), &handle), SQLITE_OK) << path; }

OtherProgram::~OtherProgram() { EXPECT_EQ(sqlite3_close(handle), SQLITE_OK); }

void OtherProgram::run(const std::string &script)
{
    EXPECT_EQ(sqlite3_exec(handle, script.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
        << script << ": " << sqlite3_errmsg(handle);
}

Strings OtherProgram::lines(const std::string &sql)
{
    Strings result;
    const auto add = [](void *result, int count, char **cells, char **) {
        std::string line;
        for (int i = 0; i < count; ++i)
            line += (i ? "|" : "") + std::string(cells[i] ? cells[i] : "NULL");
        static_cast<Strings *>(result)->push_back(line);
        return 0;
    };
    EXPECT_EQ(sqlite3_exec(handle, sql.c_str(), add, &result, nullptr), SQLITE_OK) << sql << ": " << sqlite3_errmsg(handle);
    return result;
}

std::string OtherProgram::line(const std::string &sql)
{
    const auto all = lines(sql);
    return all.empty() ? "no row" : all.front();
}

bool OtherProgram::isLockedOut()
{
    if (sqlite3_exec(handle, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK)
        return true;
    run("ROLLBACK");
    return false;
}

Strings schemaOf(const std::string &path)
{
    return OtherProgram(path).lines("SELECT type,name,tbl_name,sql FROM sqlite_master ORDER BY type,name");
}

std::string outcomeOf(const std::function<void()> &call)
{
    try {
        call();
        return "done";
    } catch (const Cancelled &) {
        return "cancelled";
    } catch (const AppError &error) {
        return std::string(nameOf(error.kind())) + ": " + error.errorDescription();
    }
}

std::string asOrdinaryUser(const std::function<std::string()> &work)
{
    constexpr uid_t nobody = 65534;
    int ends[2];
    if (pipe(ends) != 0)
        return "no pipe";
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        std::string answer = "still the superuser";
        if (getuid() != 0 || (setgid(nobody) == 0 && setuid(nobody) == 0)) {
            try {
                answer = work();
            } catch (const std::exception &error) {
                answer = std::string("threw: ") + error.what();
            }
        }
        _exit(write(ends[1], answer.data(), answer.size()) == ssize_t(answer.size()) ? 0 : 1);
    }
    close(ends[1]);
    std::string answer = readAll(ends[0]);
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? answer : "the process ended badly after: " + answer;
}

FullDisk::FullDisk(unsigned long long bytes)
{
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    before = limit.rlim_cur;
    limit.rlim_cur = bytes;
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
}

FullDisk::~FullDisk()
{
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = before;
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    signal(SIGXFSZ, SIG_DFL);
}

} // namespace korvane::test
