#include "CommandCore/FileSearchQuery.h"

#include "CommandCore/Commands.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

using namespace korvane;
using Strings = std::vector<std::string>;

namespace korvane {

std::ostream &operator<<(std::ostream &out, const FileSearchQuery &query) { return out << '"' << query.text() << '"'; }

} // namespace korvane

namespace {

/// What the refusal of `text` says; empty when it is none.
std::string refusal(std::string_view text)
{
    try {
        const FileSearchQuery query(text);
    } catch (const AppError &error) {
        EXPECT_EQ(error.kind(), AppError::Kind::recoverable);
        return error.errorDescription();
    }
    return {};
}

std::string repeated(std::string_view piece, int count)
{
    std::string text;
    for (int i = 0; i < count; ++i)
        text += piece;
    return text;
}

FileSearchQuery terms(Strings terms)
{
    FileSearchQuery query;
    query.terms = std::move(terms);
    return query;
}

constexpr auto tooLong = "Use a search under 1,000 characters.";
constexpr auto tooMany = "Use at most 16 search terms.";
constexpr auto noExtension = "Add an extension, for example ext:pdf or ext:pdf,docx.";
constexpr auto noKind = "Use kind:file, folder, document, image, media or other.";
constexpr auto noSort = "Use sort:relevance, name, size or modified.";
constexpr auto noPath = "Add a path fragment after path:.";

} // namespace

TEST(FileKinds, HaveTheirLabelsInOrder)
{
    std::vector<std::string_view> labels;
    for (const auto kind : allFileKinds)
        labels.push_back(rawValue(kind));
    EXPECT_EQ(labels, (std::vector<std::string_view>{"All Types", "Folders", "Documents", "Images", "Audio & Video", "Other"}));
}

TEST(FileKinds, HaveTheirExtensionsInOrder)
{
    const auto list = [](FileKind kind) {
        const auto given = extensions(kind);
        return Strings(given.begin(), given.end());
    };
    EXPECT_EQ(list(FileKind::document),
        (Strings{"pdf", "doc", "docx", "txt", "md", "rtf", "pages", "xls", "xlsx", "csv", "ppt", "pptx", "key", "numbers"}));
    EXPECT_EQ(list(FileKind::image), (Strings{"png", "jpg", "jpeg", "gif", "svg", "webp", "heic", "tiff", "ico", "psd"}));
    EXPECT_EQ(list(FileKind::media), (Strings{"mp3", "m4a", "wav", "flac", "mp4", "mov", "mkv", "avi"}));
    for (const auto kind : {FileKind::all, FileKind::folder, FileKind::other})
        EXPECT_EQ(list(kind), Strings{});
}

TEST(FileSearchQueryParsing, EmptyTextIsTheDefaultValueAndBack)
{
    for (const auto text : {"", "   ", "\"\"", "\"\" \n\t \"\"", "\""}) {
        EXPECT_EQ(FileSearchQuery(text), FileSearchQuery()) << text;
        EXPECT_EQ(FileSearchQuery(text).text(), "") << text;
    }
    const FileSearchQuery query;
    EXPECT_EQ(query.directoriesOnly, std::nullopt);
    EXPECT_EQ(query.kind, FileKind::all);
    EXPECT_EQ(query.sort, "relevance");
}

TEST(FileSearchQueryParsing, CutsTermsAtWhiteSpaceOutsideQuotes)
{
    const struct {
        const char *why;
        std::string_view text;
        Strings terms;
    } cases[] = {
        {"one term, as typed", "Report", {"Report"}},
        {"blanks of every kind", " a\tb\nc\r\nd\u3000e ", {"a", "b", "c", "d", "e"}},
        {"quotes keep blanks", "\"annual report\" 2024", {"annual report", "2024"}},
        {"blanks at the ends within quotes", "\" a \"", {" a "}},
        {"only blanks within quotes", "\"  \"", {"  "}},
        {"quotes within a term vanish", "ann\"ual rep\"ort", {"annual report"}},
        {"an empty pair of quotes gives no token", "a \"\" b", {"a", "b"}},
        {"an empty pair beside a term adds nothing", "\"\"a", {"a"}},
        {"an open quote takes the rest of the text", "a \"b c  d", {"a", "b c  d"}},
        {"there is no escape character", "a\\\"b c\"", {"a\\b c"}},
        {"a colon alone is no filter", "note: x:y", {"note:", "x:y"}},
        {"a filter's name within a term is no filter", "myext:pdf", {"myext:pdf"}},
        {"duplicates stay", "a a", {"a", "a"}},
        {"bytes that are not UTF-8 stay", "a\xFF \x80", {"a\xFF", "\x80"}},
        {"Chinese text", "年度 报告", {"年度", "报告"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(FileSearchQuery(c.text), terms(c.terms));
    }
}

TEST(FileSearchQueryParsing, ExtensionsLoseTheirPointsAndCapitals)
{
    EXPECT_EQ(FileSearchQuery("ext:.PDF,,docx.").extensions, (Strings{"pdf", "docx"}));
    EXPECT_EQ(FileSearchQuery("EXT:tar.gz,...Ä...").extensions, (Strings{"tar.gz", "ä"}));
    EXPECT_EQ(FileSearchQuery("ext:.,pdf").extensions, Strings{"pdf"});
}

TEST(FileSearchQueryParsing, SeveralExtensionFiltersAddUp)
{
    EXPECT_EQ(FileSearchQuery("ext:pdf a ext:md,pdf").extensions, (Strings{"pdf", "md", "pdf"}));
}

TEST(FileSearchQueryParsing, AnExtensionFilterNeedsAnExtension)
{
    for (const auto text : {"ext:", "ext:,", "ext:.", "ext:...,.,,", "a Ext:"})
        EXPECT_EQ(refusal(text), noExtension) << text;
}

TEST(FileSearchQueryParsing, UnderstandsEachKind)
{
    const struct {
        const char *text;
        FileKind kind;
        std::optional<bool> directoriesOnly;
    } cases[] = {
        {"kind:folder", FileKind::folder, true},
        {"kind:file", FileKind::all, false},
        {"kind:document", FileKind::document, {}},
        {"kind:image", FileKind::image, {}},
        {"Kind:IMAGE", FileKind::image, {}},
        {"kind:media", FileKind::media, {}},
        {"kind:other", FileKind::other, {}},
        {"\"kind:other\"", FileKind::other, {}},
        {"ki\"nd:ot\"her", FileKind::other, {}},
        {"\u212Aind:media", FileKind::media, {}}, // the sign for kelvin is a k in lower case
        {"kind:image kind:media", FileKind::media, {}},
        {"kind:file kind:image", FileKind::image, false},
        {"kind:image kind:file", FileKind::image, false},
        {"kind:folder kind:file", FileKind::folder, false},
        {"kind:folder kind:image", FileKind::image, true},
    };
    for (const auto &c : cases) {
        const FileSearchQuery query(c.text);
        EXPECT_EQ(query.kind, c.kind) << c.text;
        EXPECT_EQ(query.directoriesOnly, c.directoriesOnly) << c.text;
        EXPECT_TRUE(query.terms.empty()) << c.text;
    }
}

TEST(FileSearchQueryParsing, RefusesAnUnknownKind)
{
    for (const auto text : {"kind:", "kind:all", "kind:images", "kind:pdf", "\"kind: image\""})
        EXPECT_EQ(refusal(text), noKind) << text;
}

TEST(FileSearchQueryParsing, TheLastOfSeveralSortsWins)
{
    for (const auto sort : fileSorts)
        EXPECT_EQ(FileSearchQuery("sort:" + std::string(sort)).sort, sort);
    EXPECT_EQ(FileSearchQuery("SORT:Name sort:SIZE").sort, "size");
    EXPECT_EQ(FileSearchQuery("sort:size sort:relevance").sort, "relevance");
}

TEST(FileSearchQueryParsing, RefusesAnUnknownSort)
{
    for (const auto text : {"sort:", "sort:date", "sort:names"})
        EXPECT_EQ(refusal(text), noSort) << text;
}

TEST(FileSearchQueryParsing, APathFilterKeepsItsCaseAndBlanks)
{
    EXPECT_EQ(FileSearchQuery("PATH:Docs").pathTerms, Strings{"Docs"});
    EXPECT_EQ(FileSearchQuery("path:\"My Documents\"/2024").pathTerms, Strings{"My Documents/2024"});
    EXPECT_EQ(FileSearchQuery("path:path:").pathTerms, Strings{"path:"});
    EXPECT_EQ(refusal("path:"), noPath);
    EXPECT_EQ(refusal("a path:\"\" b"), noPath);
}

TEST(FileSearchQueryParsing, ATokenWithASolidusIsAPath)
{
    const FileSearchQuery query("docs/A /usr ~/ b");
    EXPECT_EQ(query.pathTerms, (Strings{"docs/A", "/usr", "~/"}));
    EXPECT_EQ(query.terms, Strings{"b"});
}

TEST(FileSearchQueryParsing, AFilterGoesBeforeASolidus)
{
    EXPECT_EQ(FileSearchQuery("ext:a/b").extensions, Strings{"a/b"});
    EXPECT_EQ(FileSearchQuery("path:a/b").pathTerms, Strings{"a/b"});
}

TEST(FileSearchQueryParsing, SixteenTokensPassAndOneMoreFails)
{
    EXPECT_EQ(FileSearchQuery(repeated("a ", 16)).terms.size(), 16u);
    EXPECT_EQ(refusal(repeated("a ", 17)), tooMany);
    EXPECT_EQ(refusal(repeated("a ", 13) + "kind:image sort:name ext:pdf"), "");
    EXPECT_EQ(refusal(repeated("a ", 13) + "kind:image sort:name ext:pdf path:x"), tooMany);
    EXPECT_EQ(refusal(repeated("a ", 16) + "\"\""), "");
    EXPECT_EQ(refusal(repeated("kind:bad ", 17)), tooMany);
}

TEST(FileSearchQueryParsing, AThousandCharactersPassAndOneMoreFails)
{
    EXPECT_EQ(refusal(std::string(1000, 'a')), "");
    EXPECT_EQ(refusal(std::string(1001, 'a')), tooLong);
    EXPECT_EQ(refusal(std::string(1001, ' ')), tooLong);
    EXPECT_EQ(refusal(repeated("e\u0301", 1000)), "");
    EXPECT_EQ(refusal(repeated("e\u0301", 1001)), tooLong);
    EXPECT_EQ(refusal(repeated("日", 1000)), "");
    EXPECT_EQ(refusal(repeated("a ", 501)), tooLong);
}

TEST(FileSearchQueryParsing, TheFirstBadTokenIsTheOneTold)
{
    EXPECT_EQ(refusal("a sort:x kind:y"), noSort);
    EXPECT_EQ(refusal("kind:y sort:x ext:"), noKind);
}

TEST(FileSearchQueryWriting, PutsFiltersBehindTermsAndQuotesBlanks)
{
    const FileSearchQuery query("report \"path:My Documents/2024\" KIND:image");
    EXPECT_EQ(query.terms, Strings{"report"});
    EXPECT_EQ(query.pathTerms, Strings{"My Documents/2024"});
    EXPECT_EQ(query.kind, FileKind::image);
    EXPECT_EQ(query.text(), "report \"path:My Documents/2024\" kind:image");
}

TEST(FileSearchQueryWriting, HasOneFormForEachValue)
{
    const struct {
        const char *typed, *written;
    } cases[] = {
        {"  a   b ", "a b"},
        {"\"a b\" c", "\"a b\" c"},
        {"\"a\u3000b\"", "\"a\u3000b\""},
        {"docs/a", "path:docs/a"},
        {"docs/a b", "b path:docs/a"},
        {"ext:PDF a ext:md", "a ext:pdf,md"},
        {"kind:folder", "kind:folder"},
        {"kind:file", "kind:file"},
        {"kind:document", "kind:document"},
        {"kind:media a", "a kind:media"},
        {"kind:other", "kind:other"},
        {"sort:relevance a", "a"},
        {"sort:modified a", "a sort:modified"},
        {"sort:size kind:image ext:png /usr a", "a path:/usr ext:png kind:image sort:size"},
        {"\"ext:a b\"", "\"ext:a b\""},
    };
    for (const auto &c : cases)
        EXPECT_EQ(FileSearchQuery(c.typed).text(), c.written);
}

TEST(FileSearchQueryWriting, FilesOnlyIsLostBesideAKind)
{
    const FileSearchQuery query("kind:file kind:image");
    EXPECT_EQ(query.directoriesOnly, false);
    EXPECT_EQ(query.text(), "kind:image");
    EXPECT_EQ(FileSearchQuery(query.text()).directoriesOnly, std::nullopt);
}

TEST(FileSearchQueryWriting, FoldersOnlyHasTheSameWordsAsTheKind)
{
    FileSearchQuery query;
    query.directoriesOnly = true;
    EXPECT_EQ(query.text(), "kind:folder");
}

RC_GTEST_PROP(FileSearchQueryLaws, ParsingWhatIsWrittenGivesAnEqualValue, ())
{
    const auto piece = rc::gen::element<std::string>("a", "B", "é", "\u0301", " ", "\"", "/", ".", ",", "ext:", "Kind:", "image",
        "file", "folder", "sort:", "size", "path:", "\n", "\u3000", "\xFF", "日", "\u212A");
    std::string typed;
    for (const auto &each : *rc::gen::container<Strings>(piece))
        typed += each;
    std::optional<FileSearchQuery> query;
    try {
        query.emplace(typed);
    } catch (const AppError &) {
        RC_DISCARD("refused");
    }
    const auto again = FileSearchQuery(query->text());
    RC_ASSERT(again.text() == query->text());
    // Folders or files only has no words of its own beside a kind.
    if (query->kind != FileKind::all)
        query->directoriesOnly = again.directoriesOnly;
    RC_ASSERT(again == *query);
}

RC_GTEST_PROP(FileSearchQueryLaws, AnyBytesAreParsedOrRefusedWithASentence, ())
{
    const auto typed = *rc::gen::arbitrary<std::string>();
    const auto sentence = refusal(typed);
    for (const auto *known : {"", tooLong, tooMany, noExtension, noKind, noSort, noPath})
        if (sentence == known)
            return;
    RC_FAIL("an unknown sentence");
}
