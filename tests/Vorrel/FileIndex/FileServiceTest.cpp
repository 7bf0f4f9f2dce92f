#include "Vorrel/FileIndex/FileService.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"
#include "tests/support/HeadlessDesktop.h"

#include <gtest/gtest.h>

#include <ctime>

using namespace korvane;
using namespace korvane::test;
using Reason = FileAccessFailure::Reason;

namespace {

FileRecord fileAt(const std::string &path) { return {.name = lastPathComponent(path), .path = path}; }

struct Files : HeadlessDesktop {
    explicit Files(const std::string &home = "/home/ada")
    {
        folders.home = home;
        service.emplace(platform());
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }
    ~Files() { loop.shutDown(); }
    Row row(FileRecord record) { return service->results({std::move(record)}).front(); }
    std::string subtitle(FileRecord record) { return row(std::move(record))->subtitle.value_or(""); }

    /// Runs one action of the row of a file.
    void run(const std::string &path, const std::string &id)
    {
        const Row held = row(fileAt(path));
        for (const CommandAction &action : held->actions)
            if (action.id == id)
                return await(loop, action.execute());
        throw std::logic_error("no action " + id);
    }
    /// The sentence with which an action fails.
    std::string failureOf(const std::string &path, const std::string &id)
    {
        try {
            run(path, id);
        } catch (const AppError &error) {
            return error.errorDescription();
        }
        return "";
    }
    template <class T> std::optional<Reason> reasonOf(Task<T> task)
    {
        try {
            await(loop, std::move(task));
        } catch (const FileAccessFailure &failure) {
            return failure.reason();
        }
        return std::nullopt;
    }

    std::optional<FileService> service;
};

} // namespace

TEST(FileService, ARowTellsTypeSizeDateAndPlace)
{
    Files files;
    const Row row = files.row(
        {.name = "report.pdf", .path = "/home/ada/Documents/report.pdf", .size = 1'250'000, .modified = 1'700'000'000.5});
    EXPECT_EQ(row->id, "file:/home/ada/Documents/report.pdf");
    EXPECT_EQ(row->title, "report.pdf");
    EXPECT_EQ(row->subtitle, "PDF · 1.3 MB · Nov 14, 2023, 10:13 PM · ~/Documents/report.pdf");
    EXPECT_TRUE(row->keywords.empty());
    EXPECT_EQ(row->kind, ResultKind::file);
    EXPECT_FALSE(row->keepsOpen);
    EXPECT_EQ(row->icon, CommandIcon::file("/home/ada/Documents/report.pdf"));
    EXPECT_EQ(row->preview, PreviewResource::file("/home/ada/Documents/report.pdf"));
    EXPECT_FALSE(row->previewText);
}

TEST(FileService, ARowHasItsFiveActionsInTheirOrder)
{
    using enum ActionDismissal;
    const struct {
        const char *id, *title;
        std::optional<ActionKey> key;
        ActionDismissal dismissal;
        ActionFlow flow;
        ActionRole role;
    } expected[] = {
        {"open", "Open", {}, inherited, ActionFlow::direct(), ActionRole::normal},
        {"openWith", "Open With…", {}, keepOpen, ActionFlow::openWith("/home/ada/a b.txt"), ActionRole::normal},
        {"preview", "Quick Look", ActionKey::preview, keepOpen, ActionFlow::preview("/home/ada/a b.txt"), ActionRole::normal},
        {"reveal", "Show in Finder", ActionKey::reveal, inherited, ActionFlow::direct(), ActionRole::normal},
        {"copyPath", "Copy Path", ActionKey::copyPath, keepOpen, ActionFlow::direct(), ActionRole::write},
    };
    Files files;
    const Row row = files.row(fileAt("/home/ada/a b.txt"));
    ASSERT_EQ(row->actions.size(), std::size(expected));
    for (std::size_t i = 0; i < std::size(expected); ++i) {
        const CommandAction &action = row->actions[i];
        SCOPED_TRACE(expected[i].id);
        EXPECT_EQ(action.id, expected[i].id);
        EXPECT_EQ(action.title, expected[i].title);
        EXPECT_EQ(action.key, expected[i].key);
        EXPECT_EQ(action.dismissal, expected[i].dismissal);
        EXPECT_EQ(action.flow, expected[i].flow);
        EXPECT_EQ(action.role, expected[i].role);
        EXPECT_FALSE(action.shortcut);
    }
}

TEST(FileService, OpeningAndRevealingHandOnTheWholePath)
{
    Files files;
    const DiskFolder disk;
    const std::string path = disk.file("a\xff b.txt");
    files.run(path, "open");
    files.run(path, "reveal");
    EXPECT_EQ(files.workspace.opened, Strings{path});
    EXPECT_EQ(files.workspace.revealed, Strings{path});
}

TEST(FileService, WhatNothingOpensIsToldSo)
{
    Files files;
    files.workspace.refuses = true;
    EXPECT_EQ(files.failureOf("/", "open"), "No application could open this file.");
}

TEST(FileService, TheCopiedPathIsThePathByteByByteWhetherOrNotTheFileIsThere)
{
    Files files;
    files.run("/home/ada/gone \xff.txt", "copyPath");
    EXPECT_EQ(files.pasteboard.text, "/home/ada/gone \xff.txt");
    files.pasteboard.refuses = true;
    EXPECT_EQ(files.failureOf("/x", "copyPath"), "Could not update the clipboard.");
}

TEST(FileService, EveryActionThatNeedsTheFileFindsOutThatItHasGone)
{
    Files files;
    const std::string gone = "/nonexistent/gone.txt";
    const auto reason = [&](auto task) { return files.reasonOf(std::move(task)); };
    EXPECT_EQ(reason(files.service->open(gone)), Reason::missing);
    EXPECT_EQ(reason(files.service->reveal(gone)), Reason::missing);
    EXPECT_EQ(reason(files.service->openWith(gone, "/a.desktop")), Reason::missing);
    EXPECT_EQ(reason(files.service->openWithHandlers(gone)), Reason::missing);
    EXPECT_TRUE(files.workspace.opened.empty());
    EXPECT_TRUE(files.workspace.revealed.empty());
    EXPECT_TRUE(files.workspace.openedWith.empty());
}

TEST(FileService, APathIsMadeWholeBeforeTheFileIsLookedFor)
{
    const DiskFolder disk;
    Files files(disk.path);
    const std::string file = disk.file("sub/a.txt");
    EXPECT_EQ(files.service->url("~/sub/a.txt"), file);
    EXPECT_EQ(files.service->url("~"), disk.path);
    EXPECT_EQ(files.service->url(disk.path + "//sub/./../sub/a.txt"), file);
    EXPECT_EQ(files.service->url(disk.path + "/sub/"), disk.path + "/sub");
    EXPECT_EQ(files.service->url("/"), "/");
}

TEST(FileService, WhyAFileCannotBeReachedIsToldByTheErrorOfTheSystem)
{
    const DiskFolder disk;
    Files files;
    const auto reason = [&](const std::string &path) { return files.reasonOf(files.service->open(path)); };
    EXPECT_EQ(reason(disk.file("a") + "/below"), Reason::missing);
    EXPECT_EQ(reason(""), Reason::missing);
    EXPECT_EQ(reason(disk.link("round", disk / "round")), Reason::unavailable);
    EXPECT_EQ(reason(disk.file("a") + std::string("\0b", 2)), Reason::unavailable);
}

TEST(FileService, TheFolderIsChosenInThePanelForScopes)
{
    Files files;
    files.dialogs.accept({"/home/ada/Documents"});
    EXPECT_EQ(await(files.loop, files.service->chooseDirectory()), "/home/ada/Documents");
    files.dialogs.refuse();
    EXPECT_EQ(await(files.loop, files.service->chooseDirectory()), std::nullopt);
    const Dialogs::Choice &choice = files.dialogs.asked().front().choice;
    EXPECT_EQ(choice.title, "Choose a Folder to Search");
    EXPECT_EQ(choice.prompt, "Search Here");
    EXPECT_EQ(choice.message, "Choose a folder to narrow results to that scope. Search still covers every indexed root.");
    EXPECT_EQ(choice.directory, "/home/ada");
    EXPECT_TRUE(choice.folders);
    EXPECT_FALSE(choice.multiple);
}

TEST(FileService, AFolderIsCalledAFolderAndHasNoSize)
{
    Files files;
    EXPECT_EQ(files.subtitle({.name = "a.b", .path = "/srv/a.b", .isDirectory = true, .size = 4096, .modified = 1'700'000'000}),
        "Folders · Nov 14, 2023, 10:13 PM · /srv/a.b");
}

TEST(FileService, AFileWithoutAnExtensionIsAFile)
{
    Files files;
    EXPECT_EQ(files.subtitle({.name = "README", .path = "/srv/README", .size = 12}), "File · 12 bytes · /srv/README");
    EXPECT_EQ(files.subtitle({.name = ".profile", .path = "/srv/.profile"}), "File · Zero KB · /srv/.profile");
    EXPECT_EQ(files.subtitle({.name = "end.", .path = "/srv/end."}), "File · Zero KB · /srv/end.");
}

TEST(FileService, OfTwoExtensionsTheLastOneIsShownInUpperCase)
{
    Files files;
    EXPECT_EQ(files.subtitle({.name = "a.tar.gz", .path = "/srv/a.tar.gz", .size = 1}), "GZ · 1 byte · /srv/a.tar.gz");
}

TEST(FileService, WithoutADateThereIsNoEmptyPieceInTheMiddle)
{
    Files files;
    EXPECT_EQ(files.subtitle({.name = "a.txt", .path = "/srv/a.txt", .size = 1}), "TXT · 1 byte · /srv/a.txt");
}

TEST(FileService, TheHomeFolderIsATildeInTheSubtitleAlone)
{
    Files files;
    const Row row = files.row({.name = "ada", .path = "/home/ada", .isDirectory = true});
    EXPECT_EQ(row->subtitle, "Folders · ~");
    EXPECT_EQ(row->id, "file:/home/ada");
    EXPECT_EQ(files.subtitle({.name = "x", .path = "/home/adamant/x"}), "File · Zero KB · /home/adamant/x");
}

TEST(FileService, WhatIsNotTextIsShownWithReplacementsAndKeptInTheIdentifier)
{
    Files files;
    const Row row = files.row({.name = "a\xff.txt", .path = "/srv/a\xff.txt", .size = 1});
    EXPECT_EQ(row->title, "a\uFFFD.txt");
    EXPECT_EQ(row->subtitle, "TXT · 1 byte · /srv/a\uFFFD.txt");
    EXPECT_EQ(row->id, "file:/srv/a\xff.txt");
}

TEST(FileRecord, ItsJSONHasTheFieldNamesAndLeavesOutAnUnknownDate)
{
    EXPECT_EQ((FileRecord{.name = "a", .path = "/a", .isDirectory = true, .size = 3, .modified = 1.5}).json(),
        JSONValue(JSONValue::Object{{"isDirectory", true}, {"modified", 1.5}, {"name", "a"}, {"path", "/a"}, {"size", 3.0}}));
    EXPECT_EQ((FileRecord{.name = "\xff", .path = "/\xff"}).json(),
        JSONValue(JSONValue::Object{
            {"isDirectory", false}, {"name", "\uFFFD"}, {"path", "/\uFFFD"}, {"pathBytes", "L/8="}, {"size", 0.0}}));
}

TEST(IndexedFile, PathsComeApartAtTheirLastSlash)
{
    EXPECT_EQ(lastPathComponent("/a/b.txt"), "b.txt");
    EXPECT_EQ(lastPathComponent("/a/b/"), "b");
    EXPECT_EQ(lastPathComponent("/"), "/");
    EXPECT_EQ(lastPathComponent(""), "");
    EXPECT_EQ(lastPathComponent("a"), "a");
    EXPECT_EQ(deletingLastPathComponent("/a/b.txt"), "/a");
    EXPECT_EQ(deletingLastPathComponent("/a//b"), "/a");
    EXPECT_EQ(deletingLastPathComponent("/a/"), "/");
    EXPECT_EQ(deletingLastPathComponent("/a"), "/");
    EXPECT_EQ(deletingLastPathComponent("/"), "/");
    EXPECT_EQ(deletingLastPathComponent("a"), "");
}
