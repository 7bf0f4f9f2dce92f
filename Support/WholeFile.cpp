#include "Support/WholeFile.h"

#include "Support/Descriptor.h"
#include "Support/UUID.h"

#include <cerrno>
#include <fcntl.h>
#include <stdio.h>
#include <system_error>
#include <unistd.h>

namespace korvane {

namespace {

bool writeAll(int file, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = ::write(file, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return ::fsync(file) == 0;
}

} // namespace

void writeWholeFile(const std::string &path, std::string_view bytes)
{
    const std::string fresh = path + "." + newUUID();
    const Descriptor file(::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (file.get() < 0)
        throw std::system_error(errno, std::generic_category());
    if (writeAll(file.get(), bytes) && ::rename(fresh.c_str(), path.c_str()) == 0)
        return;
    const int why = errno;
    ::unlink(fresh.c_str());
    throw std::system_error(why, std::generic_category());
}

} // namespace korvane
