// What the cache of icons holds, to the byte.
#include "Vorrel/Views/IconStore.h"
#include "Support/MainLoop.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>

namespace korvane::test {

namespace {

constexpr int side = 16;
constexpr qsizetype symbolBytes = 4 * side * side;

/// One symbol in a colour of its own. Pictures from the cache are the same picture, with the same key.
qint64 shown(IconStore &store, int colour) { return store.symbol("folder", side, 1, QColor::fromRgb(colour, 0, 0)).cacheKey(); }

std::shared_ptr<IconStore> storeOf(MainLoop &loop, qsizetype limit)
{
    return std::make_shared<IconStore>(loop.executor(), loop.executor(), limit);
}

/// A picture with a desktop entry that names it.
std::string entryIn(const QTemporaryDir &folder, const QString &name)
{
    const auto write = [](const QString &path, const QByteArray &text) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text);
    };
    const QString picture = folder.filePath(name + ".svg"), entry = folder.filePath(name + ".desktop");
    write(picture, "<svg xmlns='http://www.w3.org/2000/svg' viewBox='0 0 512 512'><rect width='512' height='512'/></svg>");
    write(entry, "[Desktop Entry]\nIcon=" + picture.toUtf8() + "\n");
    return entry.toStdString();
}

} // namespace

TEST(IconCache, IsFullAtItsLimitAndNotBefore)
{
    MainLoop loop;
    const auto store = storeOf(loop, 3 * symbolBytes);
    const qint64 first = shown(*store, 1), second = shown(*store, 2), third = shown(*store, 3);
    EXPECT_EQ(store->bytes(), 3 * symbolBytes);
    EXPECT_EQ(shown(*store, 1), first);
    EXPECT_EQ(shown(*store, 2), second);
    EXPECT_EQ(shown(*store, 3), third);

    const auto smaller = storeOf(loop, 3 * symbolBytes - 1);
    for (const int colour : {1, 2, 3})
        shown(*smaller, colour);
    EXPECT_EQ(smaller->bytes(), 2 * symbolBytes);
}

TEST(IconCache, WhatWasNotShownForTheLongestTimeGoesFirst)
{
    MainLoop loop;
    const auto store = storeOf(loop, 3 * symbolBytes);
    const qint64 first = shown(*store, 1), second = shown(*store, 2), third = shown(*store, 3);
    shown(*store, 1); // again, so that the second is now the oldest
    shown(*store, 4);
    EXPECT_EQ(store->bytes(), 3 * symbolBytes);
    EXPECT_EQ(shown(*store, 1), first);
    EXPECT_EQ(shown(*store, 3), third);
    EXPECT_NE(shown(*store, 2), second) << "drawn anew";
}

TEST(IconCache, AnIconOfAFileTakesTheBytesOfItsShownSizeFromTheSameLimit)
{
    MainLoop loop;
    QTemporaryDir folder;
    const std::string path = entryIn(folder, "large");
    constexpr qsizetype iconBytes = 4 * 48 * 48; // 24 units with two pixels each, whatever the file's size
    const auto store = storeOf(loop, iconBytes + symbolBytes);
    const qint64 symbol = shown(*store, 1);
    QPixmap icon;
    ASSERT_EQ(store->file(path, 24, 2, icon), IconStore::Look::Loading);
    loop.runUntil([&] { return !store->loading(); });
    EXPECT_EQ(store->bytes(), iconBytes + symbolBytes);
    EXPECT_EQ(shown(*store, 1), symbol);

    shown(*store, 2);
    EXPECT_EQ(store->file(path, 24, 2, icon), IconStore::Look::Loading) << "the icon was the oldest";
    EXPECT_EQ(store->bytes(), 2 * symbolBytes);
    loop.shutDown();
}

} // namespace korvane::test
