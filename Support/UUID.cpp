#include "Support/UUID.h"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <algorithm>

namespace korvane {

std::string newUUID()
{
    std::string text = boost::uuids::to_string(boost::uuids::random_generator()());
    std::transform(text.begin(), text.end(), text.begin(), [](char c) { return c >= 'a' && c <= 'f' ? char(c - 'a' + 'A') : c; });
    return text;
}

} // namespace korvane
