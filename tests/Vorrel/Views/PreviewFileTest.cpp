#include "Vorrel/Views/PreviewFile.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sys/stat.h>

using namespace korvane;
using namespace std::string_view_literals;
namespace fs = std::filesystem;

namespace korvane {
std::ostream &operator<<(std::ostream &out, PreviewKind kind)
{
    static const char *const names[] = {"picture", "document", "text", "folder", "other"};
    return out << names[int(kind)];
}
} // namespace korvane

namespace {

constexpr auto png = "\x89PNG\r\n\x1a\n\0\0\0\rIHDR"sv;

class PreviewFiles : public testing::Test {
protected:
    PreviewFiles()
    {
        std::string pattern = (fs::temp_directory_path() / "korvane-preview-XXXXXX").string();
        root = ::mkdtemp(pattern.data());
    }
    ~PreviewFiles() override { fs::remove_all(root); }

    std::string write(const std::string &name, std::string_view bytes) const
    {
        fs::create_directories((root / name).parent_path());
        std::ofstream(root / name, std::ios::binary) << bytes;
        return root / name;
    }

    fs::path root;
};

} // namespace

TEST(PreviewKinds, ContentsCountForMoreThanNames)
{
    const struct {
        const char *why;
        const char *name;
        std::string_view head;
        PreviewKind kind;
    } cases[] = {
        {"a picture", "a.png", png, PreviewKind::Picture},
        {"a picture that is called a text", "a.txt", png, PreviewKind::Picture},
        {"a picture without an ending", "a", png, PreviewKind::Picture},
        {"a text that is called a picture", "a.png", "just words\n"sv, PreviewKind::Text},
        {"a document", "a", "%PDF-1.7\n%\xE2\xE3\xCF\xD3\n"sv, PreviewKind::Document},
        {"a drawing", "a.svg", "<svg xmlns='http://www.w3.org/2000/svg'/>"sv, PreviewKind::Picture},
        {"a text", "notes.txt", "tide\n"sv, PreviewKind::Text},
        {"a source", "main.cpp", "int main() { }\n"sv, PreviewKind::Text},
        {"data that people read", "a.json", "{\"a\": 1}"sv, PreviewKind::Text},
        {"a text without an ending", "README", "read me\n"sv, PreviewKind::Text},
        {"a text in an unknown ending", "a.qqq", "words\n"sv, PreviewKind::Text},
        {"a program", "tool",
            "\x7F"
            "ELF\2\1\1\0\0\0\0\0\0\0\0\0\3\0\x3e\0"sv,
            PreviewKind::Other},
        {"a program that is called a text", "tool.txt",
            "\x7F"
            "ELF\2\1\1\0\0\0\0\0\0\0\0\0\3\0\x3e\0"sv,
            PreviewKind::Other},
        {"bytes that are called a text", "a.txt", "\0\1\2\3\0\0\7\x80\xff\0\0\0"sv, PreviewKind::Other},
        {"an archive", "a.zip", "PK\3\4\x14\0\0\0"sv, PreviewKind::Other},
        {"an empty text", "a.txt", ""sv, PreviewKind::Other},
        {"an empty picture", "a.png", ""sv, PreviewKind::Picture},
        {"an empty file without an ending", "a", ""sv, PreviewKind::Other},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(previewKindOf(c.name, c.head), c.kind);
    }
}

TEST_F(PreviewFiles, ATextIsReadUpToALimitAndSaysSo)
{
    const PreviewFile whole = readPreviewFile(write("a.txt", std::string(1000, 'x')));
    EXPECT_EQ(whole.kind, PreviewKind::Text);
    EXPECT_FALSE(whole.isCut);
    EXPECT_EQ(whole.size, 1000);

    const PreviewFile cut = readPreviewFile(write("b.txt", std::string(previewText::mostBytes + 1, '\n')));
    EXPECT_TRUE(cut.isCut);
    std::size_t shown = 0;
    for (const auto &part : cut.text.parts)
        shown += part.size();
    EXPECT_EQ(shown, previewText::mostBytes);
}

TEST_F(PreviewFiles, ATextThatTurnsOutToBeNoneIsNotShownAsOne)
{
    std::string bytes(20'000, 'x');
    bytes += std::string(20'000, '\0');
    const PreviewFile file = readPreviewFile(write("a.txt", bytes));
    EXPECT_EQ(file.kind, PreviewKind::Other);
    EXPECT_TRUE(file.readable);
}

TEST_F(PreviewFiles, APipeIsNotWaitedFor)
{
    const std::string path = root / "pipe";
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    const PreviewFile file = readPreviewFile(path);
    EXPECT_EQ(file.kind, PreviewKind::Other);
    EXPECT_TRUE(file.exists);
    EXPECT_FALSE(file.content);
}

TEST_F(PreviewFiles, AVanishedFileIsToldOfByItsName)
{
    const PreviewFile file = readPreviewFile(root / "gone.pdf");
    EXPECT_FALSE(file.exists);
    EXPECT_FALSE(file.readable);
    EXPECT_TRUE(file.icons.contains(QStringLiteral("application-pdf")));
}

TEST_F(PreviewFiles, APictureIsOpenedButNotRead)
{
    const PreviewFile file = readPreviewFile(write("a.png", png));
    ASSERT_TRUE(file.content);
    EXPECT_TRUE(file.text.parts.empty());
}

TEST_F(PreviewFiles, AFolderIsSummedToItsDepthsWithoutFollowingLinks)
{
    write("top/a", std::string(100, 'x'));
    write("top/deep/er/b", std::string(23, 'x'));
    write("elsewhere/c", std::string(5000, 'x'));
    fs::create_directory_symlink(root / "elsewhere", root / "top/link");
    fs::create_directory_symlink(root / "top", root / "top/deep/round");
    FolderSum sum;
    sumFolder(root / "top", sum, {});
    EXPECT_EQ(sum.items, 6); // two files, two folders, two links
    EXPECT_EQ(sum.bytes, 123);
    EXPECT_TRUE(sum.complete);
    EXPECT_EQ(readPreviewFile(root / "top").kind, PreviewKind::Folder);
}

TEST_F(PreviewFiles, ASumThatNobodyWaitsForEndsAtOnce)
{
    write("top/a", "x");
    std::stop_source stop;
    stop.request_stop();
    FolderSum sum;
    sumFolder(root / "top", sum, stop.get_token());
    EXPECT_EQ(sum.items, 0);
    EXPECT_FALSE(sum.complete);
}

TEST_F(PreviewFiles, AnUnreadableFolderIsSummedAsNothing)
{
    FolderSum sum;
    sumFolder(root / "gone", sum, {});
    EXPECT_EQ(sum.items, 0);
    EXPECT_TRUE(sum.complete);
}
