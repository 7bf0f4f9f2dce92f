#include "tests/index/DiskIndex.h"

#include "CommandCore/Commands.h"
#include "Vorrel/Platform/Linux/LinkedFacts.h"
#include "Vorrel/Shell/AppLog.h"

#include <cmath>
#include <filesystem>
#include <sys/stat.h>

namespace korvane::test {

namespace fs = std::filesystem;

DiskIndex::DiskIndex(const std::string &store, std::vector<std::string> roots, bool follows)
{
    AppLog::silence();
    const UserFolders folders{.home = "/nowhere", .data = std::nullopt};
    const Executor executor = pool.executor();
    auto database = await(loop, Database::open(executor, store, Database::Access::readWrite));
    auto searches = await(loop, Database::open(executor, store, Database::Access::readOnly));
    if (follows) {
        snapshot = std::make_unique<IndexSnapshot>(worker.executor(), executor, store, clock);
        events = std::make_shared<InotifyFileEvents>(worker.executor(), clock, *snapshot, InotifyFileEvents::Settings());
    }
    walker = std::make_unique<LinuxDirectoryWalker>([events = events](const std::string &folder) {
        if (events)
            events->entered(folder);
    });
    service = std::make_shared<FileIndexService>(FileIndexService::Ports{
        .mainThread = loop.executor(),
        .pool = executor,
        .clock = clock,
        .folders = folders,
        .places = {.defaultRoots = {}, .skippedPrefixes = {}, .aliasPrefix = {}},
        .database = std::move(database),
        .searchDatabase = std::move(searches),
        .scanner = std::make_unique<DiskFileScanner>(loop.executor(), clock, *walker, folders),
        .watcher = events.get(),
        .attributes = std::make_shared<DiskFileAttributes>(presentLinkedFacts()),
    });
    for (const std::string &root : roots)
        await(loop, service->repository.addRoot(root));
    await(loop, service->start());
}

DiskIndex::~DiskIndex()
{
    await(loop, service->stop());
    service.reset();
    loop.shutDown();
    pool.join();
}

void DiskIndex::settle()
{
    loop.runUntil([this] { return !service->busy(); });
}

void DiskIndex::rebuild()
{
    service->rebuild();
    settle();
}

void DiskIndex::serve()
{
    for (;;)
        loop.runUntil([] { return false; });
}

Process::Process(const std::function<void()> &work) : child(::fork())
{
    if (child != 0)
        return;
    try {
        work();
    } catch (const std::exception &error) {
        std::fprintf(stderr, "A process ended: %s\n", error.what());
        ::_exit(1);
    }
    ::_exit(0);
}

Process::~Process() { kill(); }

bool Process::kill()
{
    if (child <= 0)
        return false;
    int status = 0;
    ::kill(child, SIGKILL);
    ::waitpid(child, &status, 0);
    child = -1;
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

bool Process::finish()
{
    int status = 0;
    ::waitpid(child, &status, 0);
    child = -1;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

Facts onDisk(const std::vector<std::string> &roots)
{
    Facts facts;
    for (const std::string &root : roots) {
        const auto options = fs::directory_options::skip_permission_denied;
        for (const auto &entry : fs::recursive_directory_iterator(root, options)) {
            struct stat status;
            if (::stat(entry.path().c_str(), &status) != 0)
                continue;
            const bool folder = S_ISDIR(status.st_mode);
            facts.emplace(entry.path().native(), Fact{folder, folder ? 0 : status.st_size, status.st_mtim.tv_sec});
        }
    }
    return facts;
}

namespace {

/// The answer of one query over a connection of its own.
std::vector<SQLRow> ask(const std::string &store, Database::Access access, const std::string &sql)
{
    MainLoop loop;
    const auto database = await(loop, Database::open(loop.executor(), store, access));
    auto rows = await(loop, database->rows(sql));
    await(loop, database->close());
    return rows;
}

} // namespace

Facts inStore(const std::string &store)
{
    Facts facts;
    for (const SQLRow &row : ask(store, Database::Access::readOnly, "SELECT path,is_directory,size,modified FROM file_index")) {
        const bool folder = row.at("is_directory") == "1";
        facts.emplace(row.at("path"),
            Fact{folder, folder ? 0 : std::stoll(row.at("size")), (long long)(std::floor(std::stod(row.at("modified"))))});
    }
    return facts;
}

std::string difference(const Facts &disk, const Facts &store)
{
    std::string text;
    int count = 0;
    const auto tell = [&](const std::string &line) {
        if (++count <= 10)
            text += line + "\n";
    };
    const auto words = [](const Fact &fact) {
        return (fact.isDirectory ? "folder, " : "file of " + std::to_string(fact.size) + ", ") + std::to_string(fact.modified);
    };
    for (const auto &[path, fact] : disk) {
        const auto known = store.find(path);
        if (known == store.end())
            tell("not indexed: " + path);
        else if (known->second != fact)
            tell("differs: " + path + " is a " + words(fact) + " and indexed as a " + words(known->second));
    }
    for (const auto &[path, fact] : store)
        if (!disk.contains(path))
            tell("indexed, but gone: " + path);
    return count > 10 ? text + "and " + std::to_string(count - 10) + " more\n" : text;
}

std::string damage(const std::string &store)
{
    const auto pages = ask(store, Database::Access::readWrite, "SELECT integrity_check AS value FROM pragma_integrity_check");
    if (pages.size() != 1 || pages[0].at("value") != "ok")
        return "pages: " + pages.front().at("value");
    MainLoop loop;
    const auto database = await(loop, Database::open(loop.executor(), store, Database::Access::readWrite));
    try {
        await(loop, database->execute("INSERT INTO file_index_fts(file_index_fts,rank) VALUES('integrity-check',1)"));
    } catch (const AppError &) {
        return "the table of names differs from the rows";
    }
    return {};
}

} // namespace korvane::test
