#include "CommandCore/FileSearchQuery.h"

#include "CommandCore/Commands.h"
#include "Support/Text.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <utility>

namespace korvane {

namespace {

using Strings = std::vector<std::string>;

constexpr std::size_t maximumCharacters = 1000;
constexpr std::size_t maximumTokens = 16;

constexpr std::array<std::string_view, 14> documentExtensions{
    "pdf", "doc", "docx", "txt", "md", "rtf", "pages", "xls", "xlsx", "csv", "ppt", "pptx", "key", "numbers"};
constexpr std::array<std::string_view, 10> imageExtensions{
    "png", "jpg", "jpeg", "gif", "svg", "webp", "heic", "tiff", "ico", "psd"};
constexpr std::array<std::string_view, 8> mediaExtensions{"mp3", "m4a", "wav", "flac", "mp4", "mov", "mkv", "avi"};

[[noreturn]] void refuse(std::string sentence) { throw AppError(AppError::Kind::recoverable, std::move(sentence)); }

/// The text in code points; what is not UTF-8 stays as it is, in pieces of its own. White space and quotes
/// count by code point: a mark behind a quote makes it no other thing.
template <class Visit> void visitCodePoints(std::string_view text, Visit visit)
{
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(text.data());
    for (std::size_t at = 0; at < text.size();) {
        const auto begin = at;
        UChar32 point;
        U8_NEXT(bytes, at, text.size(), point);
        visit(point, text.substr(begin, at - begin));
    }
}

Strings tokens(std::string_view text)
{
    Strings result;
    std::string token;
    bool quoted = false;
    const auto finish = [&] {
        if (!token.empty())
            result.push_back(std::exchange(token, {}));
    };
    visitCodePoints(text, [&](UChar32 point, std::string_view piece) {
        if (point == '"')
            quoted = !quoted;
        else if (!quoted && u_isUWhiteSpace(point))
            finish();
        else
            token += piece;
    });
    finish();
    return result;
}

bool holdsWhitespace(std::string_view text)
{
    bool found = false;
    visitCodePoints(text, [&](UChar32 point, std::string_view) { found |= bool(u_isUWhiteSpace(point)); });
    return found;
}

/// What follows the prefix of a filter, as typed; nothing when the token has another beginning. Counted in
/// code points, since a letter may have fewer bytes in lower case.
std::optional<std::string_view> rest(std::string_view token, std::string_view prefix)
{
    if (!lowercased(token).starts_with(prefix))
        return std::nullopt;
    std::size_t at = 0;
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(token.data());
    U8_FWD_N(bytes, at, token.size(), prefix.size());
    return token.substr(at);
}

std::string_view withoutPoints(std::string_view text)
{
    const auto begin = text.find_first_not_of('.');
    return begin == text.npos ? std::string_view() : text.substr(begin, text.find_last_not_of('.') - begin + 1);
}

Strings extensionsFrom(std::string_view list)
{
    Strings result;
    while (!list.empty()) {
        const auto comma = std::min(list.find(','), list.size());
        if (const auto extension = withoutPoints(list.substr(0, comma)); !extension.empty())
            result.push_back(lowercased(extension));
        list.remove_prefix(std::min(comma + 1, list.size()));
    }
    if (result.empty())
        refuse("Add an extension, for example ext:pdf or ext:pdf,docx.");
    return result;
}

/// How the language writes a kind; empty for `all`.
std::string_view word(FileKind kind)
{
    switch (kind) {
    case FileKind::all: return {};
    case FileKind::folder: return "folder";
    case FileKind::document: return "document";
    case FileKind::image: return "image";
    case FileKind::media: return "media";
    case FileKind::other: return "other";
    }
    return {};
}

void setKind(FileSearchQuery &query, const std::string &name)
{
    const auto kind = std::ranges::find(allFileKinds, std::string_view(name), word);
    if (name == "file") {
        query.directoriesOnly = false;
    } else if (kind == allFileKinds.end() || name.empty()) {
        refuse("Use kind:file, folder, document, image, media or other.");
    } else {
        query.kind = *kind;
        if (*kind == FileKind::folder)
            query.directoriesOnly = true;
    }
}

void setSort(FileSearchQuery &query, std::string name)
{
    if (std::ranges::find(fileSorts, name) == fileSorts.end())
        refuse("Use sort:relevance, name, size or modified.");
    query.sort = std::move(name);
}

void addPath(FileSearchQuery &query, std::string_view path)
{
    if (path.empty())
        refuse("Add a path fragment after path:.");
    query.pathTerms.emplace_back(path);
}

void take(FileSearchQuery &query, const std::string &token)
{
    if (const auto list = rest(token, "ext:"))
        std::ranges::move(extensionsFrom(*list), std::back_inserter(query.extensions));
    else if (const auto kind = rest(token, "kind:"))
        setKind(query, lowercased(*kind));
    else if (const auto sort = rest(token, "sort:"))
        setSort(query, lowercased(*sort));
    else if (const auto path = rest(token, "path:"))
        addPath(query, *path);
    else if (token.find('/') != token.npos)
        query.pathTerms.push_back(token);
    else
        query.terms.push_back(token);
}

std::string quoted(std::string text) { return holdsWhitespace(text) ? '"' + text + '"' : text; }

/// The kind filter in words; empty when there is none.
std::string kindText(const FileSearchQuery &query)
{
    if (query.kind != FileKind::all)
        return fmt::format("kind:{}", word(query.kind));
    if (query.directoriesOnly)
        return *query.directoriesOnly ? "kind:folder" : "kind:file";
    return {};
}

} // namespace

std::string_view rawValue(FileKind kind)
{
    switch (kind) {
    case FileKind::all: return "All Types";
    case FileKind::folder: return "Folders";
    case FileKind::document: return "Documents";
    case FileKind::image: return "Images";
    case FileKind::media: return "Audio & Video";
    case FileKind::other: return "Other";
    }
    return {};
}

std::span<const std::string_view> extensions(FileKind kind)
{
    switch (kind) {
    case FileKind::document: return documentExtensions;
    case FileKind::image: return imageExtensions;
    case FileKind::media: return mediaExtensions;
    case FileKind::all:
    case FileKind::folder:
    case FileKind::other: return {};
    }
    return {};
}

FileSearchQuery::FileSearchQuery(std::string_view text)
{
    if (characterCount(text) > maximumCharacters)
        refuse("Use a search under 1,000 characters.");
    const auto typed = tokens(text);
    if (typed.size() > maximumTokens)
        refuse("Use at most 16 search terms.");
    for (const auto &token : typed)
        take(*this, token);
}

std::string FileSearchQuery::text() const
{
    Strings pieces;
    for (const auto &term : terms)
        pieces.push_back(quoted(term));
    for (const auto &term : pathTerms)
        pieces.push_back(quoted("path:" + term));
    if (!extensions.empty())
        pieces.push_back(quoted(fmt::format("ext:{}", fmt::join(extensions, ","))));
    if (auto kind = kindText(*this); !kind.empty())
        pieces.push_back(std::move(kind));
    if (sort != fileSorts.front())
        pieces.push_back("sort:" + sort);
    return fmt::format("{}", fmt::join(pieces, " "));
}

} // namespace korvane
