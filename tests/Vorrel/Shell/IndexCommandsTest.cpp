#include "TestTool.h"

#include "Support/FileLock.h"

#include <algorithm>
#include <atomic>

using namespace korvane;
using namespace korvane::test;

namespace {

/// A tool over a home folder that holds a few files.
struct IndexCommands : TestTool {
    IndexCommands()
    {
        std::filesystem::create_directories(home);
        std::filesystem::create_directories(root + "/projects");
        walker->addFile(home + "/report.pdf", 1200, 1'700'000'000);
        walker->addFile(home + "/Docs/report draft.txt", 10, 1'700'000'000.25);
        walker->addFolder(home + "/Docs/reports");
        walker->addFile(root + "/projects/plan.txt");
    }

    /// The index by a plain sight: every path in it.
    Strings indexed()
    {
        run({"files", "path:/", "--json"});
        Strings paths;
        const JSONValue list = JSONValue::parse(out); // kept while its parts are looked at
        for (const JSONValue &file : *list.array())
            paths.push_back(*file["path"].string());
        std::ranges::sort(paths);
        return paths;
    }
    std::string idOf(const std::string &path)
    {
        run({"index", "roots", "--json"});
        const JSONValue list = JSONValue::parse(out);
        for (const JSONValue &one : *list.array())
            if (one["path"] == JSONValue(path))
                return *one["id"].string();
        return {};
    }

    const std::string home = root + "/home";
};

} // namespace

TEST_F(IndexCommands, QueryPrintsTheCanonicalText)
{
    EXPECT_EQ(run({"query", "sort:relevance KIND:image  report \"path:My Documents\" ext:.PDF,,docx."}), 0);
    EXPECT_EQ(out, "report \"path:My Documents\" ext:pdf,docx kind:image\n");
    EXPECT_EQ(run({"query", ""}), 0);
    EXPECT_EQ(out, "\n");
    EXPECT_EQ(run({"query", "kind:pet"}), 1);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "Use kind:file, folder, document, image, media or other.\n");
    EXPECT_EQ(run({"query", "--json", "a"}), 0);
    EXPECT_EQ(out, "[{\"query\":\"a\"}]\n");
}

TEST_F(IndexCommands, WithoutAnIndexThereAreNoFilesAndNoStoreIsMade)
{
    EXPECT_EQ(run({"files", "report"}), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(run({"index", "status"}), 0);
    EXPECT_EQ(out, "files\t0\nroots\t0\nrunning\tno\n");
    EXPECT_FALSE(std::filesystem::exists(root + "/data"));
}

TEST_F(IndexCommands, RebuildIndexesTheDefaultRootsAndWaitsUntilItIsDone)
{
    EXPECT_EQ(run({"index", "rebuild"}), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
    EXPECT_EQ(walker->roots().size(), 1u) << "an empty index is scanned once, not twice";
    EXPECT_EQ(
        indexed(), (Strings{home + "/Docs", home + "/Docs/report draft.txt", home + "/Docs/reports", home + "/report.pdf"}));
    EXPECT_EQ(run({"index", "status", "--json"}), 0);
    EXPECT_EQ(out, "[{\"files\":4,\"roots\":1,\"running\":false}]\n");
    walker->remove(home + "/report.pdf");
    EXPECT_EQ(run({"index", "rebuild"}), 0);
    EXPECT_EQ(walker->roots().size(), 2u);
    EXPECT_EQ(indexed().size(), 3u);
}

TEST_F(IndexCommands, FilesPrintsPathsBestFirst)
{
    ASSERT_EQ(run({"index", "rebuild"}), 0);
    EXPECT_EQ(run({"files", "report"}), 0);
    EXPECT_EQ(out, home + "/report.pdf\n" + home + "/Docs/reports\n" + home + "/Docs/report draft.txt\n");
    EXPECT_EQ(run({"files", "report", "--limit", "1"}), 0);
    EXPECT_EQ(out, home + "/report.pdf\n");
    EXPECT_EQ(run({"files", "report", "--in", "Docs", "--limit=5"}), 0) << "a relative folder is one of the working directory";
    EXPECT_EQ(out, home + "/Docs/reports\n" + home + "/Docs/report draft.txt\n");
    EXPECT_EQ(run({"files", "draft", "--json"}), 0);
    const JSONValue::Object file{{"isDirectory", false}, {"modified", 1'700'000'000.25}, {"name", "report draft.txt"},
        {"path", home + "/Docs/report draft.txt"}, {"size", 10.0}};
    EXPECT_EQ(JSONValue::parse(out), JSONValue(JSONValue::Array{file}));
}

TEST_F(IndexCommands, FilesGivesAtMostAHundred)
{
    for (int i = 0; i < 120; ++i)
        walker->addFile(home + "/many/same" + std::to_string(i));
    ASSERT_EQ(run({"index", "rebuild"}), 0);
    EXPECT_EQ(run({"files", "same", "--limit", "1000"}), 0);
    EXPECT_EQ(std::ranges::count(out, '\n'), 100);
}

TEST_F(IndexCommands, AFolderThatIsNotIndexedIsTold)
{
    ASSERT_EQ(run({"index", "rebuild"}), 0);
    EXPECT_EQ(run({"files", "path:/elsewhere"}), 1);
    EXPECT_EQ(err, "This folder is not indexed. Add it in Settings → File Index.\n");
}

TEST_F(IndexCommands, AddBringsTheDefaultRootsFirstAndThenTheFolder)
{
    EXPECT_EQ(run({"index", "add", "../projects/"}), 0) << err;
    const std::string printed = out;
    EXPECT_EQ(printed, idOf(root + "/projects") + "\n");
    EXPECT_EQ(run({"index", "roots"}), 0);
    EXPECT_EQ(std::ranges::count(out, '\n'), 2);
    EXPECT_EQ(idOf(root + "/projects").size(), 36u);
    EXPECT_EQ(idOf(home).size(), 36u);
    EXPECT_EQ(run({"files", "plan"}), 0);
    EXPECT_EQ(out, root + "/projects/plan.txt\n");
}

TEST_F(IndexCommands, AFolderThatDoesNotExistIsNotAdded)
{
    EXPECT_EQ(run({"index", "add", "nowhere"}), 1);
    EXPECT_EQ(err, "There is no folder " + home + "/nowhere.\n");
    EXPECT_FALSE(std::filesystem::exists(root + "/data"));
}

TEST_F(IndexCommands, RemoveForgetsARootAndItsFiles)
{
    ASSERT_EQ(run({"index", "add", root + "/projects"}), 0);
    EXPECT_EQ(run({"index", "remove", idOf(home)}), 0);
    EXPECT_EQ(indexed(), Strings{root + "/projects/plan.txt"});
    EXPECT_EQ(run({"index", "remove", "none"}), 1);
    EXPECT_EQ(err, "There is no root with the identifier none.\n");
}

TEST_F(IndexCommands, ARootThatCannotBeReadIsAFailureAndKeepsWhatWasIndexed)
{
    ASSERT_EQ(run({"index", "rebuild"}), 0);
    walker->makeUnreadable(home);
    EXPECT_EQ(run({"index", "rebuild"}), 1);
    EXPECT_EQ(err, "Indexed · 4 files, some folders unreadable. Check File & Folder permissions.\n");
    EXPECT_EQ(indexed().size(), 4u);
}

TEST_F(IndexCommands, TheyAreRefusedWhileKorvaneRuns)
{
    std::filesystem::create_directories(root + "/data/Korvane");
    const auto instance = FileLock::tryTake(root + "/data/Korvane/korvane.lock");
    for (const Strings &command :
        {Strings{"index", "rebuild"}, Strings{"index", "add", root + "/projects"}, Strings{"index", "remove", "x"}}) {
        EXPECT_EQ(run(command), 1);
        EXPECT_EQ(err, "Korvane runs and keeps the index itself. Quit it first.\n");
    }
    EXPECT_EQ(run({"index", "status"}), 0);
    EXPECT_EQ(out, "files\t0\nroots\t0\nrunning\tyes\n");
    EXPECT_FALSE(FileLock::isTaken(root + "/data/Korvane/korvane.index.lock"));
}

TEST_F(IndexCommands, TheyAreRefusedWhileAnotherProgramWorksOnTheIndex)
{
    std::filesystem::create_directories(root + "/data/Korvane");
    const auto other = FileLock::tryTake(root + "/data/Korvane/korvane.index.lock");
    EXPECT_EQ(run({"index", "rebuild"}), 1);
    EXPECT_EQ(err, "Another program works on the index. Try again when it has ended.\n");
}

TEST_F(IndexCommands, ProgressIsShownOnATerminalAndClearedAtTheEnd)
{
    showsProgress = true;
    EXPECT_EQ(run({"index", "rebuild"}), 0);
    ASSERT_FALSE(progress.empty());
    EXPECT_EQ(progress.back(), "");
}

TEST_F(IndexCommands, ProgressTellsTheCountTheRateAndTheRoot)
{
    ASSERT_EQ(run({"index", "rebuild"}), 0);
    ASSERT_EQ(run({"index", "add", root + "/projects"}), 0);
    /// Stands still but for what the test gives it.
    struct GivenTime : SystemClock {
        double uptime() const override { return seconds; }
        std::atomic<double> seconds = 0;
    } given;
    time = &given;
    showsProgress = true;
    walker->holdBefore(root + "/projects/plan.txt");
    struct Line {
        double seconds;
        std::string text;
    };
    std::vector<Line> lines;
    // A quarter of a second passes with every turn of the loop, from when only the held walk is under way.
    bool released = false;
    std::function<void()> turn = [&] {
        for (; lines.size() < progress.size(); lines.push_back({given.seconds, progress[lines.size()]})) { }
        if (!lines.empty() && lines.back().text.starts_with("4 ") && !std::exchange(released, true))
            walker->release();
        if (released)
            return;
        if (walker->underWay() == 1)
            given.seconds = given.seconds + 0.25;
        runLater(desktop->loop.executor(), turn);
    };
    runLater(desktop->loop.executor(), turn);
    EXPECT_EQ(run({"index", "rebuild"}), 0);
    time = &clock;
    ASSERT_FALSE(lines.empty());
    const Line &last = lines.back();
    const auto rate = (long long)(4 / last.seconds);
    EXPECT_EQ(last.text, "4 · " + std::to_string(rate) + "/s · " + home);
    EXPECT_EQ(progress.back(), "");
    showsProgress = false;
    progress.clear();
    EXPECT_EQ(run({"index", "rebuild"}), 0);
    EXPECT_TRUE(progress.empty());
}

TEST_F(IndexCommands, SearchPrintsFileRowsBehindTheOthers)
{
    ASSERT_EQ(run({"index", "rebuild"}), 0);
    EXPECT_EQ(run({"search", "report.pdf"}), 0);
    EXPECT_EQ(out.substr(0, out.find('\t', 5)), "file\tfile:" + home + "/report.pdf");
    EXPECT_NE(out.find("PDF · 1 KB · Nov 14, 2023"), std::string::npos) << out;
    EXPECT_EQ(run({"search", "kind:pet"}), 1);
    EXPECT_EQ(err, "Use kind:file, folder, document, image, media or other.\n");
}

TEST_F(IndexCommands, WrongUsageOfTheIndexCommandsIsTold)
{
    for (const Strings &wrong : {Strings{"index"}, Strings{"index", "dance"}, Strings{"index", "add"},
             Strings{"index", "status", "x"}, Strings{"index", "rebuild", "x"}, Strings{"files"},
             Strings{"files", "a", "--limit", "0"}, Strings{"files", "a", "--limit", "many"},
             Strings{"files", "a", "--category", "all"}, Strings{"query"}, Strings{"search", "a", "--in", "x"}}) {
        SCOPED_TRACE(testing::PrintToString(wrong));
        EXPECT_EQ(run(wrong), 2);
        EXPECT_EQ(out, "");
    }
}
