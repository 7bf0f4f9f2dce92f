/* The smallest server that the bench of MCP can speak to: it knows the client's exact bytes and parses no JSON.
   Five hundred tools in twenty pages; the tool "echo" gives back its arguments, "large" a text of seven million bytes. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { largest = 1 << 20, pages = 20, toolsOfPage = 25, largeText = 7000000 };

static void sendAll(const char *bytes, size_t size)
{
    while (size > 0) {
        const ssize_t count = write(1, bytes, size);
        if (count <= 0)
            exit(0);
        bytes += count;
        size -= (size_t)count;
    }
}

static size_t putPage(char *out, long page)
{
    char *at = out + sprintf(out, "{\"tools\":[");
    for (long i = page * toolsOfPage; i < (page + 1) * toolsOfPage; ++i)
        at += sprintf(at,
            "%s{\"name\":\"tool%ld\",\"description\":\"Does what number %ld does.\",\"inputSchema\":{\"type\":\"object\","
            "\"properties\":{\"path\":{\"type\":\"string\",\"description\":\"Where.\"}},\"required\":[\"path\"]}}",
            i % toolsOfPage ? "," : "", i, i);
    at += sprintf(at, "]");
    if (page + 1 < pages)
        at += sprintf(at, ",\"nextCursor\":\"%ld\"", page + 1);
    at += sprintf(at, "}");
    return (size_t)(at - out);
}

static size_t putResult(char *out, const char *line, size_t size)
{
    const char *cursor = strstr(line, "\"cursor\":\"");
    const char *arguments = strstr(line, "\"arguments\":");
    const char *name = strstr(line, ",\"name\":\"");
    if (strstr(line, "\"method\":\"initialize\""))
        return (size_t)sprintf(out, "{\"protocolVersion\":\"2025-11-25\"}");
    if (strstr(line, "\"method\":\"tools\\/list\""))
        return putPage(out, cursor ? atol(cursor + 10) : 0);
    if (!arguments || !name)
        return (size_t)sprintf(out, "{}");
    if (strstr(name, "large")) {
        const size_t head = (size_t)sprintf(out, "{\"text\":\"");
        memset(out + head, 'x', largeText);
        return head + largeText + (size_t)sprintf(out + head + largeText, "\"}");
    }
    name = line + size - strlen(name); /* the arguments end where the name begins */
    const size_t head = (size_t)sprintf(out, "{\"content\":");
    const size_t length = (size_t)(name - arguments) - 12;
    memcpy(out + head, arguments + 12, length);
    out[head + length] = '}';
    return head + length + 1;
}

static void answer(char *line, size_t size)
{
    static char out[largeText + largest];
    if (strncmp(line, "{\"id\":", 6) != 0)
        return; /* a notification */
    size_t length = (size_t)sprintf(out, "{\"jsonrpc\":\"2.0\",\"id\":%ld,\"result\":", atol(line + 6));
    length += putResult(out + length, line, size);
    out[length++] = '}';
    out[length++] = '\n';
    sendAll(out, length);
}

int main(void)
{
    static char line[largest];
    size_t held = 0;
    for (;;) {
        const ssize_t count = read(0, line + held, sizeof line - held - 1);
        if (count <= 0)
            return 0;
        held += (size_t)count;
        char *end;
        while ((end = memchr(line, '\n', held))) {
            *end = 0;
            answer(line, (size_t)(end - line));
            held -= (size_t)(end + 1 - line);
            memmove(line, end + 1, held);
        }
    }
}
