#include "IndexStore.h"

using namespace korvane;
using namespace korvane::test;

namespace {

constexpr char nameLike[] = "name LIKE ? ESCAPE '\\'";
constexpr char selectRows[] = "SELECT path,name,is_directory,size,modified FROM file_index WHERE ";

CompiledSearch compiled(const FileSearchQuery &query, const std::optional<std::string> &parent = {}, int limit = 50,
    NameLookup lookup = NameLookup::nameTable)
{
    return compile(query, parent, limit, lookup, adasFolders);
}
CompiledSearch compiled(
    const char *text, const std::optional<std::string> &parent = {}, int limit = 50, NameLookup lookup = NameLookup::nameTable)
{
    return compiled(FileSearchQuery(text), parent, limit, lookup);
}

/// The WHERE part alone: what stands before the ordering.
std::string where(const CompiledSearch &search)
{
    const std::string start = selectRows;
    EXPECT_TRUE(search.sql.starts_with(start)) << search.sql;
    return search.sql.substr(start.size(), search.sql.rfind(" ORDER BY ") - start.size());
}
std::string order(const CompiledSearch &search)
{
    const auto begin = search.sql.rfind(" ORDER BY ") + 10;
    return search.sql.substr(begin, search.sql.rfind(" LIMIT ?") - begin);
}
std::string shown(const SQLValue &value)
{
    if (const auto *number = std::get_if<double>(&value))
        return "#" + std::to_string(int(*number));
    return std::get<std::string>(value);
}
/// The first values; by default all.
Strings values(const CompiledSearch &search, std::size_t count = 1000)
{
    Strings all;
    for (std::size_t i = 0; i < std::min(count, search.values.size()); ++i)
        all.push_back(shown(search.values[i]));
    return all;
}

const std::string matchClause = "rowid IN (SELECT rowid FROM file_index_fts WHERE file_index_fts MATCH ?)";
const std::string relevance = "CASE WHEN name = ? COLLATE NOCASE THEN 0 WHEN name LIKE ? ESCAPE '\\' THEN 1 ELSE 2 END, "
                              "COALESCE((SELECT min(count, 20) FROM command_usage WHERE id='file:' || file_index.path), 0) DESC";
const std::string places =
    ", CASE WHEN path LIKE '%/.%' OR path LIKE ? ESCAPE '\\' OR path LIKE ? ESCAPE '\\' OR path LIKE ? ESCAPE '\\' "
    "OR path LIKE ? ESCAPE '\\' OR path LIKE ? ESCAPE '\\' OR path LIKE ? ESCAPE '\\' OR path LIKE ? ESCAPE '\\' "
    "OR path LIKE ? ESCAPE '\\' OR path LIKE ? ESCAPE '\\' OR path LIKE ? ESCAPE '\\' OR path LIKE ? ESCAPE '\\' "
    "OR path LIKE ? ESCAPE '\\' THEN 2 WHEN path LIKE ? OR path LIKE ? OR path LIKE ? OR path LIKE ? THEN 0 ELSE 1 END";
const std::string tieBreaks = ", length(path), name COLLATE NOCASE, path";

} // namespace

TEST(FileSearchStatement, ALoneShortTermIsHowANameBegins)
{
    const auto search = compiled("ab");
    EXPECT_EQ(where(search), nameLike);
    EXPECT_EQ(values(search, 1), Strings{"ab%"});
}

TEST(FileSearchStatement, TwoShortTermsAreContainedAnywhere)
{
    const auto search = compiled("ab cd");
    EXPECT_EQ(where(search), std::string(nameLike) + " AND " + nameLike);
    EXPECT_EQ(values(search, 2), (Strings{"%ab%", "%cd%"}));
}

TEST(FileSearchStatement, AShortTermBesideALongOneIsContainedAnywhereAndTheLongOneMatched)
{
    const auto search = compiled("ab report");
    EXPECT_EQ(where(search), matchClause + " AND " + nameLike);
    EXPECT_EQ(values(search, 2), (Strings{"\"report\"", "%ab%"}));
}

TEST(FileSearchStatement, LongTermsAreOneMatchInTheirOrder)
{
    const auto search = compiled("report ab draft");
    EXPECT_EQ(where(search), matchClause + " AND " + nameLike);
    EXPECT_EQ(values(search, 2), (Strings{"\"report\" AND \"draft\"", "%ab%"}));
}

TEST(FileSearchStatement, AQuotationMarkIsDoubledInsideThePhrase)
{
    FileSearchQuery query;
    query.terms = {"a\"b OR c"};
    EXPECT_EQ(values(compiled(query), 1), Strings{"\"a\"\"b OR c\""});
}

TEST(FileSearchStatement, WithoutTheNameTableEachLongTermIsALike)
{
    const auto search = compiled("50%_a\\b ab rep", {}, 50, NameLookup::eachName);
    EXPECT_EQ(where(search), std::string(nameLike) + " AND " + nameLike + " AND " + nameLike);
    EXPECT_EQ(values(search, 3), (Strings{"%50\\%\\_a\\\\b%", "%rep%", "%ab%"})) << "the long ones first";
}

TEST(FileSearchStatement, LengthIsCountedInCharactersAsAPersonSeesThem)
{
    EXPECT_EQ(values(compiled("概要"), 1), Strings{"概要%"}) << "six bytes";
    EXPECT_EQ(values(compiled("概要書"), 1), Strings{"\"概要書\""});
    EXPECT_EQ(values(compiled("e\u0301e\u0301"), 1), Strings{"e\u0301e\u0301%"}) << "four code points";
    EXPECT_EQ(values(compiled("👩‍👩‍👧"), 1), Strings{"👩‍👩‍👧%"}) << "one family";
}

TEST(FileSearchStatement, OnlyAnExtensionHasNoNameClauseAndEveryRowInOneClass)
{
    const auto search = compiled("ext:pdf,a_b");
    EXPECT_EQ(where(search), "is_directory=0 AND (name LIKE ? ESCAPE '\\' OR name LIKE ? ESCAPE '\\')");
    EXPECT_EQ(values(search, 4), (Strings{"%.pdf", "%.a\\_b", "", "%"}));
    EXPECT_EQ(order(search), relevance + places + tieBreaks);
}

TEST(FileSearchStatement, TheDirectoryScopeOfTheRootFolderIsEverything)
{
    const auto search = compiled("path:/");
    EXPECT_EQ(where(search), "(path=? OR (path>=? AND path<?))");
    EXPECT_EQ(values(search, 3), (Strings{"/", "/", "0"}));
}

TEST(FileSearchStatement, ADirectoryScopeIsARangeOfStandardizedPaths)
{
    const struct {
        const char *why, *term, *folder;
    } cases[] = {
        {"as it is", "/srv/data", "/srv/data"},
        {"a slash at the end", "/srv/data/", "/srv/data"},
        {"doubled slashes and points", "//srv/./x/..//data", "/srv/data"},
        {"above the root folder", "/../../srv", "/srv"},
        {"a tilde", "~/Notes", "/home/ada/Notes"},
        {"home alone", "path:~", "/home/ada"},
        {"a name with two points", "/srv/..data", "/srv/..data"},
        {"wildcards mean themselves", "/srv/50%_", "/srv/50%_"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        const auto search = compiled(c.term);
        EXPECT_EQ(where(search), "(path=? OR (path>=? AND path<?))");
        const std::string folder = c.folder;
        EXPECT_EQ(values(search, 3), (Strings{folder, folder + "/", folder + "0"}));
    }
}

TEST(FileSearchStatement, AnyOtherPathTermIsContainedInThePath)
{
    const auto search = compiled("path:my_docs a/b");
    EXPECT_EQ(where(search), "path LIKE ? ESCAPE '\\' AND path LIKE ? ESCAPE '\\'");
    EXPECT_EQ(values(search, 2), (Strings{"%my\\_docs%", "%a/b%"}));
}

TEST(FileSearchStatement, AKindIsItsExtensionsAndOtherIsNoneOfThem)
{
    const auto image = compiled("kind:image");
    EXPECT_EQ(where(image),
        "is_directory=0 AND (name LIKE ? OR name LIKE ? OR name LIKE ? OR name LIKE ? OR name LIKE ? OR name LIKE ? OR name "
        "LIKE ? OR name LIKE ? OR name LIKE ? OR name LIKE ?)");
    EXPECT_EQ(values(image, 10),
        (Strings{"%.png", "%.jpg", "%.jpeg", "%.gif", "%.svg", "%.webp", "%.heic", "%.tiff", "%.ico", "%.psd"}));
    const auto other = compiled("kind:other");
    EXPECT_TRUE(where(other).starts_with("is_directory=0 AND NOT (name LIKE ? OR ")) << other.sql;
    const auto all = values(other, 32);
    EXPECT_EQ(all[0], "%.pdf");
    EXPECT_EQ(all[13], "%.numbers");
    EXPECT_EQ(all[14], "%.png");
    EXPECT_EQ(all[24], "%.mp3");
    EXPECT_EQ(all[31], "%.avi");
    EXPECT_EQ(std::count(other.sql.begin(), other.sql.end(), '?'), std::ptrdiff_t(other.values.size()));
}

TEST(FileSearchStatement, FoldersAndFilesAreOneClause)
{
    EXPECT_EQ(where(compiled("kind:folder")), "is_directory=?");
    EXPECT_EQ(values(compiled("kind:folder"), 1), Strings{"#1"});
    EXPECT_EQ(values(compiled("kind:file"), 1), Strings{"#0"});
}

TEST(FileSearchStatement, AllClausesStandInOneOrderAndTheirValuesWithThem)
{
    const auto search = compiled("report ab path:x /srv ext:md kind:media kind:file", "/pa_rent", 7);
    EXPECT_EQ(where(search),
        matchClause
            + " AND name LIKE ? ESCAPE '\\' AND path LIKE ? ESCAPE '\\' AND (path=? OR (path>=? AND path<?)) AND "
              "is_directory=0 AND (name LIKE ? ESCAPE '\\') AND is_directory=0 AND (name LIKE ? OR name LIKE ? OR name LIKE ? OR "
              "name LIKE ? OR name LIKE ? OR name LIKE ? OR name LIKE ? OR name LIKE ?) AND is_directory=? AND (parent=? OR "
              "parent LIKE ? ESCAPE '\\')");
    EXPECT_EQ(order(search), relevance + tieBreaks) << "a scoped search leaves out the places";
    EXPECT_EQ(values(search),
        (Strings{"\"report\"", "%ab%", "%x%", "/srv", "/srv/", "/srv0", "%.md", "%.mp3", "%.m4a", "%.wav", "%.flac", "%.mp4",
            "%.mov", "%.mkv", "%.avi", "#0", "/pa_rent", "/pa\\_rent/%", "report ab", "report ab%", "#7"}));
    EXPECT_TRUE(search.sql.ends_with(" LIMIT ?"));
}

TEST(FileSearchStatement, RelevanceKnowsNoisyAndPreferredPlaces)
{
    const auto search = compiled("a_b");
    EXPECT_EQ(search.sql, selectRows + matchClause + " ORDER BY " + relevance + places + tieBreaks + " LIMIT ?");
    EXPECT_EQ(values(search),
        (Strings{"\"a_b\"", "a_b", "a\\_b%", "%/Library/%", "%/Caches/%", "%/node\\_modules/%", "%/.git/%", "%/build/%",
            "%/dist/%", "%/out/%", "%/target/%", "%/DerivedData/%", "%/\\_\\_pycache\\_\\_/%", "%/venv/%", "%/Pods/%",
            "/home/ada/Documents/%", "/home/ada/Downloads/%", "/home/ada/Desktop/%", "/home/ada/Pictures/%", "#50"}));
}

TEST(FileSearchStatement, AParentOrAPathTermLeavesOutThePlaces)
{
    EXPECT_EQ(order(compiled("report", "/srv")), relevance + tieBreaks);
    EXPECT_EQ(order(compiled("report path:x")), relevance + tieBreaks);
    EXPECT_EQ(order(compiled("report /srv")), relevance + tieBreaks);
}

TEST(FileSearchStatement, AParentsTildeIsExpanded)
{
    const auto search = compiled("ab", "~/x%y");
    EXPECT_EQ(where(search), std::string(nameLike) + " AND (parent=? OR parent LIKE ? ESCAPE '\\')");
    EXPECT_EQ(values(search, 3), (Strings{"ab%", "/home/ada/x%y", "/home/ada/x\\%y/%"}));
}

TEST(FileSearchStatement, ASortIsItsColumnAndThePath)
{
    EXPECT_EQ(order(compiled("ab sort:size")), "size DESC, path");
    EXPECT_EQ(order(compiled("ab sort:modified")), "modified DESC, path");
    EXPECT_EQ(order(compiled("ab sort:name")), "name COLLATE NOCASE, path");
    EXPECT_EQ(values(compiled("ab sort:name")), (Strings{"ab%", "#50"}));
    FileSearchQuery odd("ab");
    odd.sort = "colour";
    EXPECT_EQ(order(compiled(odd)), relevance + places + tieBreaks) << "anything else is relevance";
}

TEST(FileSearchStatement, TheLimitIsKeptWithinOneAndAThousand)
{
    const struct {
        int asked;
        const char *bound;
    } cases[] = {{-5, "#1"}, {0, "#1"}, {1, "#1"}, {2, "#2"}, {999, "#999"}, {1000, "#1000"}, {1001, "#1000"}, {5000, "#1000"}};
    for (const auto &c : cases)
        EXPECT_EQ(values(compiled("ab", {}, c.asked)).back(), c.bound) << c.asked;
}

TEST(FileSearchStatement, AQueryIsEmptyWithoutTermsPathsExtensionsFoldersAndKindWhateverItsSort)
{
    for (const char *text : {"", "   ", "\"\"", "sort:name", "sort:size"})
        EXPECT_TRUE(isEmpty(FileSearchQuery(text))) << text;
    for (const char *text : {"a", "path:x", "/", "ext:pdf", "kind:folder", "kind:file", "kind:other"})
        EXPECT_FALSE(isEmpty(FileSearchQuery(text))) << text;
}

TEST(FileSearchStatement, ThreeSpecialCharactersAreEscapedAndNothingElse)
{
    EXPECT_EQ(escapedLike("100%_a\\b"), "100\\%\\_a\\\\b");
    EXPECT_EQ(escapedLike("plain 'text' \"*\" é \xff"), "plain 'text' \"*\" é \xff");
    EXPECT_EQ(escapedLike(""), "");
}
