#include "Vorrel/Views/Decoding/DecoderMessages.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace korvane::decoding {

static constexpr std::uint64_t bytesOfPixel = 4, bytesOfPage = 2 * sizeof(float);

bool fits(const Reply &reply, const Request &request)
{
    if (reply.outcome != Outcome::Done)
        return reply.outcome <= Outcome::Ended && reply.bytes == 0;
    if (request.wish == Wish::Document)
        return reply.count > 0 && reply.count <= mostPages && reply.bytes == std::uint64_t(reply.count) * bytesOfPage;
    return reply.width > 0 && reply.height > 0 && reply.width <= request.width && reply.height <= request.height
        && reply.fullWidth > 0 && reply.fullHeight > 0
        && reply.bytes == std::uint64_t(reply.width) * std::uint64_t(reply.height) * bytesOfPixel;
}

/// Room for one descriptor beside a message.
union DescriptorRoom {
    cmsghdr head;
    char bytes[CMSG_SPACE(sizeof(int))];
};

bool sendRequest(int socket, const Request &request, int file)
{
    Request copy = request;
    iovec part{&copy, sizeof copy};
    DescriptorRoom room{};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (file >= 0) {
        message.msg_control = room.bytes;
        message.msg_controllen = sizeof room.bytes;
        cmsghdr *head = CMSG_FIRSTHDR(&message);
        head->cmsg_level = SOL_SOCKET;
        head->cmsg_type = SCM_RIGHTS;
        head->cmsg_len = CMSG_LEN(sizeof file);
        std::memcpy(CMSG_DATA(head), &file, sizeof file);
    }
    ssize_t sent = 0;
    do {
        sent = ::sendmsg(socket, &message, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent == ssize_t(sizeof request);
}

std::optional<Received> receiveRequest(int socket)
{
    Received received;
    iovec part{&received.request, sizeof received.request};
    DescriptorRoom room{};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = room.bytes;
    message.msg_controllen = sizeof room.bytes;
    ssize_t count = 0;
    do {
        count = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC | MSG_WAITALL);
    } while (count < 0 && errno == EINTR);
    for (cmsghdr *head = CMSG_FIRSTHDR(&message); count > 0 && head; head = CMSG_NXTHDR(&message, head)) {
        int file = -1;
        if (head->cmsg_level != SOL_SOCKET || head->cmsg_type != SCM_RIGHTS)
            continue;
        std::memcpy(&file, CMSG_DATA(head), sizeof file);
        received.file.reset(file);
    }
    return count == ssize_t(sizeof received.request) ? std::optional(std::move(received)) : std::nullopt;
}

bool writeAll(int socket, const void *bytes, std::size_t count)
{
    const char *at = static_cast<const char *>(bytes);
    while (count > 0) {
        const ssize_t sent = ::send(socket, at, count, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent <= 0)
            return false;
        at += sent;
        count -= std::size_t(sent);
    }
    return true;
}

bool readAll(int socket, void *bytes, std::size_t count)
{
    char *at = static_cast<char *>(bytes);
    while (count > 0) {
        const ssize_t got = ::recv(socket, at, count, 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        at += got;
        count -= std::size_t(got);
    }
    return true;
}

} // namespace korvane::decoding
