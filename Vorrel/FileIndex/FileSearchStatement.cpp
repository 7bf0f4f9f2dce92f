#include "Vorrel/FileIndex/FileSearchStatement.h"

#include "CommandCore/IndexedFile.h"
#include "Support/Text.h"
#include "Vorrel/Platform/IndexPlaces.h"

#include <algorithm>

namespace korvane {

namespace {

using Texts = std::vector<std::string>;

constexpr std::size_t charactersOfNameTable = 3; ///< It can find no less.
constexpr int mostRows = 1000;

constexpr char selectRows[] = "SELECT path,name,is_directory,size,modified FROM file_index WHERE ";
constexpr char inNameTable[] = "rowid IN (SELECT rowid FROM file_index_fts WHERE file_index_fts MATCH ?)";
constexpr char nameLike[] = "name LIKE ? ESCAPE '\\'";
constexpr char pathLike[] = "path LIKE ? ESCAPE '\\'";
constexpr char pathInFolder[] = "(path=? OR (path>=? AND path<?))";
constexpr char isFile[] = "is_directory=0";

std::string joined(const Texts &pieces, std::string_view separator)
{
    std::string text;
    for (const auto &piece : pieces) {
        if (&piece != &pieces.front())
            text += separator;
        text += piece;
    }
    return text;
}

std::string containing(std::string_view text) { return "%" + escapedLike(text) + "%"; }

bool isLong(std::string_view term) { return characterCount(term) >= charactersOfNameTable; }

/// A term as a phrase of the name table's query language, in which only the quotation mark means anything.
std::string phrase(std::string_view term)
{
    std::string text = "\"";
    for (const char c : term)
        text += c == '"' ? "\"\"" : std::string(1, c);
    return text + "\"";
}

std::vector<std::string_view> extensionsOf(FileKind kind)
{
    std::vector<std::string_view> all;
    const auto add = [&all](FileKind kind) {
        const auto list = extensions(kind);
        all.insert(all.end(), list.begin(), list.end());
    };
    if (kind == FileKind::other)
        for (const FileKind known : {FileKind::document, FileKind::image, FileKind::media})
            add(known);
    else
        add(kind);
    return all;
}

/// Builds a statement from left to right, each clause with its values, so that the two cannot come apart.
class Compiler {
public:
    Compiler(const FileSearchQuery &query, const std::optional<std::string> &parent, const UserFolders &folders) :
        query(query), parent(parent), folders(folders)
    {
    }

    CompiledSearch compile(int limit, NameLookup lookup)
    {
        addLongTerms(lookup);
        addShortTerms();
        addPaths();
        addExtensions();
        addKind();
        addDirectoriesOnly();
        sql = selectRows + joined(clauses, " AND ");
        addParent();
        sql += " ORDER BY ";
        addOrder();
        sql += " LIMIT ?";
        bind(double(std::clamp(limit, 1, mostRows)));
        return {std::move(sql), std::move(values), usesNameIndex};
    }

private:
    void bind(SQLValue value) { values.push_back(std::move(value)); }

    void addLongTerms(NameLookup lookup)
    {
        Texts phrases;
        for (const auto &term : query.terms) {
            if (!isLong(term))
                continue;
            if (lookup == NameLookup::nameTable)
                phrases.push_back(phrase(term));
            else
                addName(containing(term));
        }
        if (phrases.empty())
            return;
        clauses.push_back(inNameTable);
        bind(joined(phrases, " AND "));
    }

    /// A lone short term is how a name begins, which the index on names answers.
    void addShortTerms()
    {
        for (const auto &term : query.terms) {
            if (isLong(term))
                continue;
            usesNameIndex = query.terms.size() == 1;
            addName(usesNameIndex ? escapedLike(term) + "%" : containing(term));
        }
    }

    void addName(std::string pattern)
    {
        clauses.push_back(nameLike);
        bind(std::move(pattern));
    }

    void addPaths()
    {
        for (const auto &term : query.pathTerms) {
            const std::string path = folders.expandingTilde(term);
            if (path.starts_with('/')) {
                addFolder(standardizedPath(path));
            } else {
                clauses.push_back(pathLike);
                bind(containing(term));
            }
        }
    }

    /// A folder and everything below it: the paths from "folder/" up to "folder0", as "0" is what follows "/".
    void addFolder(const std::string &path)
    {
        const std::string first = beginningBelow(path);
        clauses.push_back(pathInFolder);
        bind(path);
        bind(first);
        bind(first.substr(0, first.size() - 1) + "0");
    }

    void addExtensions()
    {
        if (query.extensions.empty())
            return;
        clauses.push_back(isFile);
        clauses.push_back("(" + joined(Texts(query.extensions.size(), nameLike), " OR ") + ")");
        for (const auto &extension : query.extensions)
            bind("%." + escapedLike(extension));
    }

    void addKind()
    {
        const auto list = extensionsOf(query.kind);
        if (list.empty())
            return;
        clauses.push_back(isFile);
        clauses.push_back(
            std::string(query.kind == FileKind::other ? "NOT (" : "(") + joined(Texts(list.size(), "name LIKE ?"), " OR ") + ")");
        for (const auto extension : list)
            bind("%." + std::string(extension));
    }

    void addDirectoriesOnly()
    {
        if (!query.directoriesOnly)
            return;
        clauses.push_back("is_directory=?");
        bind(*query.directoriesOnly ? 1.0 : 0.0);
    }

    void addParent()
    {
        if (!parent)
            return;
        const std::string folder = folders.expandingTilde(*parent);
        sql += " AND (parent=? OR parent LIKE ? ESCAPE '\\')";
        bind(folder);
        bind(escapedLike(beginningBelow(folder)) + "%");
    }

    void addOrder()
    {
        if (query.sort == "size")
            sql += "size DESC, path";
        else if (query.sort == "modified")
            sql += "modified DESC, path";
        else if (query.sort == "name")
            sql += "name COLLATE NOCASE, path";
        else
            addRelevance();
    }

    void addRelevance()
    {
        sql += "CASE WHEN name = ? COLLATE NOCASE THEN 0 WHEN name LIKE ? ESCAPE '\\' THEN 1 ELSE 2 END, "
               "COALESCE((SELECT min(count, 20) FROM command_usage WHERE id='file:' || file_index.path), 0) DESC";
        const std::string text = joined(query.terms, " ");
        bind(text);
        bind(escapedLike(text) + "%");
        if (!parent && query.pathTerms.empty())
            addPlaces();
        sql += ", length(path), name COLLATE NOCASE, path";
    }

    /// Hidden and noisy places sink and the user's own folders rise, unless the user asked for a place.
    void addPlaces()
    {
        sql += ", CASE WHEN path LIKE '%/.%' OR " + joined(Texts(noiseFragments.size(), pathLike), " OR ") + " THEN 2 WHEN "
            + joined(Texts(preferredFolders.size(), "path LIKE ?"), " OR ") + " THEN 0 ELSE 1 END";
        for (const auto fragment : noiseFragments)
            bind(containing(fragment));
        for (const auto folder : preferredFolders)
            bind(folders.home + "/" + std::string(folder) + "/%");
    }

    const FileSearchQuery &query;
    const std::optional<std::string> &parent;
    const UserFolders &folders;
    Texts clauses;
    std::string sql;
    std::vector<SQLValue> values;
    bool usesNameIndex = false;
};

} // namespace

bool isEmpty(const FileSearchQuery &query)
{
    return query.terms.empty() && query.pathTerms.empty() && query.extensions.empty() && !query.directoriesOnly
        && query.kind == FileKind::all;
}

bool hasLongTerms(const FileSearchQuery &query) { return std::any_of(query.terms.begin(), query.terms.end(), isLong); }

CompiledSearch compile(const FileSearchQuery &query, const std::optional<std::string> &parent, int limit, NameLookup lookup,
    const UserFolders &folders)
{
    return Compiler(query, parent, folders).compile(limit, lookup);
}

std::string escapedLike(std::string_view text)
{
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        if (c == '%' || c == '_' || c == '\\')
            escaped += '\\';
        escaped += c;
    }
    return escaped;
}

std::string standardizedPath(std::string_view path)
{
    std::vector<std::string_view> components;
    for (std::size_t begin = 0; begin < path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string_view component = path.substr(begin, end - begin);
        begin = end + 1;
        if (component.empty() || component == ".")
            continue;
        if (component != "..")
            components.push_back(component);
        else if (!components.empty())
            components.pop_back();
    }
    std::string result;
    for (const auto component : components)
        result.append("/").append(component);
    return result.empty() ? "/" : result;
}

} // namespace korvane
