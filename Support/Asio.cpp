// The one place where the library's own sources are compiled.
#include <boost/asio/impl/src.hpp>
