#include "Vorrel/FileIndex/FileService.h"
#include "tests/support/HeadlessDesktop.h"

#include <gtest/gtest.h>

#include <ctime>

using namespace korvane;
using namespace korvane::test;

namespace {

struct Files : HeadlessDesktop {
    Files()
    {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }
    ~Files() { loop.shutDown(); }
    Row row(FileRecord record) { return service.results({std::move(record)}).front(); }
    std::string subtitle(FileRecord record) { return row(std::move(record))->subtitle.value_or(""); }

    FileService service{platform()};
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
    EXPECT_EQ(row->actions.front().id, "open");
    EXPECT_EQ(row->actions.front().title, "Open");
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
