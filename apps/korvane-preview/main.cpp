// Decodes pictures and documents for the preview, away from everything that a broken file could harm: in at its standard
// input come requests with opened files, out go pixels. Ends with whoever started it.
#include "Vorrel/Views/Decoding/FileDecoder.h"
#include "apps/korvane-preview/Confinement.h"

#include <QGuiApplication>
#include <QImageReader>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

using namespace korvane;

namespace {

/// Libraries complain about broken files in their own words; nobody reads them.
void beSilent()
{
    const Descriptor null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    ::dup2(null.get(), STDOUT_FILENO);
    ::dup2(null.get(), STDERR_FILENO);
}

void leaveTheDesktop()
{
    for (const char *variable : {"DISPLAY", "WAYLAND_DISPLAY", "DBUS_SESSION_BUS_ADDRESS", "QT_IM_MODULE", "QT_SCALE_FACTOR"})
        qunsetenv(variable);
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("QT_ACCESSIBILITY", "0");
}

bool serve(int socket, decoding::FileDecoder &decoder)
{
    auto received = decoding::receiveRequest(socket);
    if (!received)
        return false;
    allowProcessorTime();
    const auto answer = decoder.answer(received->request, std::move(received->file));
    if (!decoding::writeAll(socket, &answer.reply, sizeof answer.reply))
        return false;
    const void *bytes =
        answer.pixels.isNull() ? static_cast<const void *>(answer.pageSizes.constData()) : answer.pixels.constBits();
    return decoding::writeAll(socket, bytes, answer.reply.bytes);
}

} // namespace

int main(int count, char **words)
{
    beSilent();
    std::signal(SIGPIPE, SIG_IGN);
    leaveTheDesktop();
    QGuiApplication application(count, words);
    QImageReader::supportedImageFormats(); // loads the plug-ins
    decoding::FileDecoder decoder;
    confine();
    while (serve(STDIN_FILENO, decoder)) { }
    return 0;
}
