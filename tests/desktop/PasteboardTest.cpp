// The window's clipboard on a real X server, as another program reads it.
#include "Vorrel/Views/QtPasteboard.h"
#include "tests/support/Await.h"

#include <gtest/gtest.h>

#include <QDeadlineTimer>
#include <QGuiApplication>
#include <QProcess>

namespace korvane::test {

namespace {

/// What another program finds; the loop turns meanwhile, since this one must answer it.
std::string pasted()
{
    QProcess reader;
    reader.start("xclip", {"-selection", "clipboard", "-t", "UTF8_STRING", "-o"});
    const QDeadlineTimer deadline(10'000);
    while (reader.state() != QProcess::NotRunning && !deadline.hasExpired())
        QGuiApplication::processEvents(QEventLoop::AllEvents, 50);
    EXPECT_EQ(reader.state(), QProcess::NotRunning);
    return reader.readAllStandardOutput().toStdString();
}

} // namespace

TEST(QtPasteboard, OtherProgramsReadTextAndWhatIsNoTextByItsBytes)
{
    MainLoop loop;
    QtPasteboard pasteboard;
    for (const std::string text : {"plain, 文字", "/srv/tide \xff.txt", ""}) {
        EXPECT_TRUE(await(loop, pasteboard.setText(text)));
        EXPECT_EQ(pasted(), text);
    }
    loop.shutDown();
}

} // namespace korvane::test
