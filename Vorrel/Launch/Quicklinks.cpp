#include "Vorrel/Launch/Quicklinks.h"

#include "CommandCore/Commands.h"
#include "Support/Text.h"
#include "Support/URL.h"
#include "Vorrel/Shell/L10n.h"

#include <algorithm>
#include <array>

namespace korvane {

namespace {

constexpr std::array<std::string_view, 3> schemes{"http", "https", "file"};

std::string subtitleOf(const Quicklink &link)
{
    const auto parts = parsedURL(trimmed(link.url));
    return parts && !parts->host.empty() ? parts->host : link.url;
}

std::vector<std::string_view> split(std::string_view text, char at)
{
    std::vector<std::string_view> pieces;
    while (!text.empty()) {
        const auto end = std::min(text.find(at), text.size());
        if (end > 0)
            pieces.push_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return pieces;
}

std::string_view withoutHyphensAround(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of('-'), text.size()));
    return text.substr(0, text.find_last_not_of('-') + 1);
}

/// The words of the title, and each label of the host.
std::vector<std::string> keywordsOf(const Quicklink &link, const std::string &subtitle)
{
    std::vector<std::string> keywords;
    const std::string title = lowercased(link.title);
    for (const auto word : split(title, ' '))
        keywords.emplace_back(word);
    for (const auto piece : split(subtitle, '.'))
        if (const auto label = withoutHyphensAround(piece); !label.empty())
            keywords.emplace_back(label);
    return keywords;
}

Task<void> open(Workspace &workspace, std::string address)
{
    std::string url = Quicklinks::validatedURL(address);
    co_await workspace.open(std::move(url)); // whatever it says: the handler tells its failures itself
}

Row rowOf(const Quicklink &link, Workspace &workspace)
{
    const std::string subtitle = subtitleOf(link);
    return makeRow({.id = "quicklink:" + link.id,
        .title = link.title,
        .subtitle = subtitle,
        .keywords = keywordsOf(link, subtitle),
        .icon = CommandIcon::symbol("link"),
        .actions = {
            {.id = "open", .title = L10n::key("Open Quicklink"), .shortcut = "↵", .execute = [&workspace, url = link.url] {
                 return open(workspace, url);
             }}}});
}

} // namespace

std::string Quicklinks::validatedURL(std::string_view text)
{
    const auto url = trimmed(text);
    const auto parts = parsedURL(url);
    if (!parts || std::ranges::find(schemes, parts->scheme) == schemes.end())
        throw AppError(AppError::Kind::configuration, "Quicklinks must use http, https or file addresses.");
    return std::string(url);
}

QuicklinkCommand::QuicklinkCommand(Quicklink given, Workspace &workspace) :
    link(std::move(given)), row(rowOf(link, workspace)) { }

} // namespace korvane
