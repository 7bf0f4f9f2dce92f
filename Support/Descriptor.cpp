#include "Support/Descriptor.h"

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <unistd.h>

namespace korvane {

void Descriptor::reset(int next)
{
    if (number >= 0)
        ::close(number);
    number = next;
}

Task<void> waitUntilReadable(const Descriptor &descriptor)
{
    namespace asio = boost::asio;
    co_await throwIfCancelled();
    asio::posix::stream_descriptor waiter(co_await asio::this_coro::executor, descriptor.get());
    // The descriptor is the caller's to close, also when the loop goes away in the middle of the wait.
    struct Releasing {
        ~Releasing() { waiter.release(); }
        asio::posix::stream_descriptor &waiter;
    } const releasing{waiter};
    const asio::use_awaitable_t<Executor> token{};
    bool ended = false;
    try {
        co_await waiter.async_wait(asio::posix::stream_descriptor::wait_read, token);
    } catch (const boost::system::system_error &error) {
        ended = error.code() == asio::error::operation_aborted;
    }
    if (ended || co_await isCancelled())
        throw Cancelled();
}

} // namespace korvane
