// What JSON costs beside the library's own tree, and what a look for skills costs:
//   korvane_bench_json [RUNS]
// Ends with 1 when a limit is exceeded.
#include "CommandCore/JSONValue.h"
#include "Vorrel/AI/SkillLoader.h"
#include "bench/Table.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdlib>
#include <random>
#include <stdexcept>

using namespace korvane;
using namespace korvane::bench;

namespace {

constexpr double readingLimit = 1.2, writingLimit = 1.0; // of the library's time
constexpr int roots = 3, skillsOfRoot = 200;
constexpr double scanLimit = 100; // milliseconds: what a person takes for at once

double millisecondsOf(const std::function<void()> &work)
{
    const auto began = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - began).count();
}

void require(bool holds, const char *why)
{
    if (!holds)
        throw std::runtime_error(why);
}

/// A body as models and servers send it: messages with longer texts, objects with a few members, numbers, paths.
std::string body(std::size_t size)
{
    std::mt19937 random(7); // any fixed number
    const auto number = [&random](int most) { return std::to_string(random() % unsigned(most)); };
    const char *words[] = {"tide ", "harbour ", "Übersicht ", "潮汐 ", "a\\\"quote\\\" ", "\\n", "\\/usr\\/share ", "report "};
    std::string text = "[";
    while (text.size() < size) {
        std::string content;
        for (unsigned i = random() % 60; i > 0; --i)
            content += words[random() % std::size(words)];
        text += text.size() > 1 ? "," : "";
        text += R"({"role":"assistant","id":"call_)" + number(1'000'000) + R"(","content":")" + content + R"(","size":)"
            + number(1'000'000'000) + R"(,"modified":17)" + number(100'000'000) + "." + number(1'000'000) + R"(,"isDirectory":)"
            + (random() % 2 ? "true" : "false") + R"(,"path":"\/home\/ada\/file-)" + number(100'000) + R"(.txt","tags":[)"
            + number(100) + ",null,\"" + number(1000) + "\"]}";
    }
    return text + "]";
}

/// One line of the table. True when the limit is kept.
bool compare(
    Table &table, const std::string &what, const std::vector<double> &ours, const std::vector<double> &theirs, double limit)
{
    const double ratio = median(ours) / median(theirs);
    table.add({what, number(median(ours), 2), number(median(theirs), 2), number(ratio, 2), number(limit, 1),
        ratio <= limit ? "kept" : "EXCEEDED"});
    return ratio <= limit;
}

bool measureJSON(Table &table, std::size_t megabytes, int runs)
{
    const std::string text = body(megabytes << 20);
    std::vector<double> reading, theirReading, writing, theirWriting;
    for (int i = 0; i < runs; ++i) { // in turn, so that both meet the same weather
        JSONValue tree;
        nlohmann::json theirTree;
        std::string written, theirs;
        reading.push_back(millisecondsOf([&] { tree = JSONValue::parse(text); }));
        theirReading.push_back(millisecondsOf([&] { theirTree = nlohmann::json::parse(text); }));
        writing.push_back(millisecondsOf([&] { written = tree.encodedString(); }));
        theirWriting.push_back(millisecondsOf([&] { theirs = theirTree.dump(); }));
        require(tree.array()->size() == theirTree.size(), "not the same tree");
    }
    const std::string size = std::to_string(megabytes) + " MB";
    const bool read = compare(table, "read " + size, reading, theirReading, readingLimit);
    return compare(table, "written " + size, writing, theirWriting, writingLimit) && read;
}

bool measureSkills(int runs)
{
    const test::DiskFolder folder;
    std::vector<std::string> places;
    for (int root = 0; root < roots; ++root) {
        places.push_back(folder / std::to_string(root));
        for (int skill = 0; skill < skillsOfRoot; ++skill)
            folder.file(std::to_string(root) + "/skill-" + std::to_string(skill) + "/SKILL.md",
                "---\nname: Skill " + std::to_string(skill) + "\ndescription: >\n  What it\n  is for\n---\n"
                    + std::string(4000, 'x'));
    }
    MainLoop loop;
    ThreadPool pool(1);
    SkillLoader loader;
    std::vector<double> times;
    for (int i = 0; i < runs; ++i)
        times.push_back(millisecondsOf([&] {
            require(test::await(loop, loader.scan(places)).skills.size() == roots * skillsOfRoot, "skills are missing");
        }));
    pool.join();
    const bool kept = percentile95(times) <= scanLimit;
    Table table({"3 roots of 200 skills of 4 KB", "Median ms", "p95 ms", "Limit ms", ""});
    table.add({"a scan, files in memory", number(median(times), 1), number(percentile95(times), 1), number(scanLimit, 0),
        kept ? "kept" : "EXCEEDED"});
    table.print();
    return kept;
}

} // namespace

int main(int count, char **words)
try {
    const int runs = count > 1 ? std::atoi(words[1]) : 41;
    require(runs > 0, "usage: korvane_bench_json [RUNS]");
    Table table({"Median of " + std::to_string(runs), "Korvane ms", "Library ms", "Ratio", "Limit", ""});
    bool kept = measureJSON(table, 1, runs);
    kept = measureJSON(table, 8, runs) && kept;
    table.print();
    std::puts("");
    kept = measureSkills(runs) && kept;
    return kept ? 0 : 1;
} catch (const std::exception &error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
}
