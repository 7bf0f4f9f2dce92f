#include "Support/URL.h"

#include "Support/Text.h"

#include <boost/url/src.hpp>

namespace korvane {

namespace {

/// An address as people paste it, as a URL: what is not ASCII, and the signs that browsers take as they stand, become
/// percent escapes.
std::string escaped(std::string_view text)
{
    constexpr char digits[] = "0123456789ABCDEF";
    constexpr std::string_view tolerated = "{}|^`";
    std::string url;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80 && tolerated.find(c) == std::string_view::npos)
            url += c;
        else
            url += {'%', digits[byte >> 4], digits[byte & 15]};
    }
    return url;
}

/// The host as it stands in a URL that has an authority.
std::string_view writtenHost(std::string_view url)
{
    url.remove_prefix(url.find("//") + 2);
    url = url.substr(0, url.find_first_of("/?#"));
    url.remove_prefix(url.rfind('@') + 1); // all of it when there is none
    return url.substr(0, url.find(':'));
}

} // namespace

std::optional<URLParts> parsedURL(std::string_view text)
{
    if (!isValidUTF8(text))
        return std::nullopt;
    const std::string url = escaped(text);
    const auto parsed = boost::urls::parse_uri(url);
    if (!parsed)
        return std::nullopt;
    // The library takes a name that begins with four numbers for an address, and drops the rest.
    std::string host =
        parsed->host_type() == boost::urls::host_type::ipv4 ? std::string(writtenHost(url)) : std::string(parsed->host());
    return URLParts{lowercased(std::string_view(parsed->scheme())), std::move(host)};
}

} // namespace korvane
