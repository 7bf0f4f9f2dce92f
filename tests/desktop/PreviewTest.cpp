// The window that shows what is in a file, on a real X server, with the real process that decodes.
#include "tests/desktop/Person.h"
#include "tests/desktop/Scene.h"

#include "Vorrel/Views/QuickLookPanes.h"
#include "Vorrel/Views/QuickLookWindow.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QApplication>
#include <QClipboard>
#include <QDir>
#include <QFile>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <QScreen>
#include <QScrollBar>
#include <QThread>
#include <QWindow>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>

namespace korvane::test {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using namespace std::chrono_literals;

namespace {

constexpr const char *notShown = "This file could not be shown.";

class Preview : public testing::Test {
protected:
    std::string write(const QString &name, const QByteArray &bytes)
    {
        QFile file(scene.folder.filePath(name));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(bytes);
        return file.fileName().toStdString();
    }
    std::string writePicture(const QString &name, const QSize &size, const QColor &colour)
    {
        QImage image(size, QImage::Format_RGB32);
        image.fill(colour);
        const QString path = scene.folder.filePath(name);
        EXPECT_TRUE(image.save(path));
        return path.toStdString();
    }
    std::string writeDocument(const QString &name, int pages)
    {
        const QString path = scene.folder.filePath(name);
        QPdfWriter writer(path);
        writer.setPageSize(QPageSize(QPageSize::A4));
        QPainter painter(&writer);
        for (int page = 0; page < pages; page++) {
            if (page > 0)
                writer.newPage();
            painter.fillRect(0, 0, writer.width(), writer.height(), page == 0 ? Qt::green : Qt::blue);
        }
        return path.toStdString();
    }
    std::string decoderThatHangs()
    {
        const std::string path = write(QStringLiteral("decoder"), "#!/bin/sh\nexec sleep 60\n");
        ::chmod(path.c_str(), 0700);
        return path;
    }
    QtPreviewWindow &preview()
    {
        if (!_preview)
            _preview =
                std::make_unique<QtPreviewWindow>(scene.loop.executor(), scene.clock, scene.appearance, *scene.icons, decoder);
        return *_preview;
    }
    void begin(const std::string &path)
    {
        const auto pressed = [this](const KeyPress &press) {
            keys.push_back(press);
            return takesKeys;
        };
        EXPECT_TRUE(preview().show(path, {.keyPressed = pressed, .closed = [this] { closings++; }}));
    }
    void show(const std::string &path)
    {
        begin(path);
        EXPECT_TRUE(scene.waitFor([&] { return preview().settled() && window().isActiveWindow(); }))
            << path << " visible " << window().isVisible();
        scene.turn();
    }
    /// Without a moment of the manual clock, however long the machine takes.
    void showAtOnce(const std::string &path)
    {
        begin(path);
        for (int i = 0; i < 2000 && !preview().settled(); i++) {
            scene.turn();
            QThread::msleep(2);
        }
        EXPECT_TRUE(scene.waitFor([&] { return window().isActiveWindow(); }));
    }
    QWidget &window() { return *preview().surface(); }
    template <class Pane> Pane *pane()
    {
        for (auto *one : window().findChildren<Pane *>())
            if (one->isVisible())
                return one;
        return nullptr;
    }
    std::string facts()
    {
        for (const auto *one : window().findChildren<QWidget *>())
            if (!one->accessibleDescription().isEmpty())
                return one->accessibleDescription().toStdString();
        return {};
    }
    Strings labels()
    {
        Strings all;
        for (const auto *label : window().findChildren<QLabel *>())
            if (label->isVisible())
                all.push_back(label->text().toStdString());
        return all;
    }
    void press(Qt::Key key, Qt::KeyboardModifiers modifiers = {}, const QString &text = {})
    {
        QKeyEvent event(QEvent::KeyPress, key, modifiers, 0, 0, 0, text);
        QCoreApplication::sendEvent(window().windowHandle(), &event);
        scene.turn();
    }
    QRgb colourInTheMiddle() { return person.colourAt(window().mapToGlobal(window().rect().center())); }

    Scene scene;
    Person person;
    std::string decoder = KORVANE_BINARIES "/korvane-preview";
    std::unique_ptr<QtPreviewWindow> _preview;
    std::vector<KeyPress> keys;
    bool takesKeys = false;
    int closings = 0;
};

/// The decoders that this process has started.
std::vector<pid_t> decoders()
{
    std::vector<pid_t> found;
    const std::string tasks = "/proc/self/task";
    for (const auto &task : std::filesystem::directory_iterator(tasks)) {
        std::ifstream children(task.path() / "children");
        for (pid_t child = 0; children >> child;) {
            std::string name;
            std::getline(std::ifstream("/proc/" + std::to_string(child) + "/comm") >> std::ws, name);
            if (name == "korvane-preview")
                found.push_back(child);
        }
    }
    return found;
}

/// As a window manager does when its close button is pressed.
void askToClose(const QWidget &window)
{
    xcb_connection_t *x = xcb_connect(nullptr, nullptr);
    const auto atom = [x](const char *name) {
        auto *reply = xcb_intern_atom_reply(x, xcb_intern_atom(x, 0, std::uint16_t(std::strlen(name)), name), nullptr);
        const xcb_atom_t value = reply->atom;
        std::free(reply);
        return value;
    };
    xcb_client_message_event_t message{};
    message.response_type = XCB_CLIENT_MESSAGE;
    message.format = 32;
    message.window = xcb_window_t(window.windowHandle()->winId());
    message.type = atom("WM_PROTOCOLS");
    message.data.data32[0] = atom("WM_DELETE_WINDOW");
    xcb_send_event(x, 0, message.window, 0, reinterpret_cast<const char *>(&message));
    std::free(xcb_get_input_focus_reply(x, xcb_get_input_focus(x), nullptr)); // the server has done it then
    xcb_disconnect(x);
}

} // namespace

// What is shown

TEST_F(Preview, ATextIsShownWithItsNameAndFacts)
{
    show(write("tide.txt", "High tide\nat four\n"));
    ASSERT_TRUE(pane<FileTextPane>());
    EXPECT_EQ(pane<FileTextPane>()->toPlainText(), "High tide\nat four\n");
    EXPECT_EQ(window().windowTitle(), "tide.txt");
    EXPECT_EQ(window().accessibleName(), "tide.txt");
    EXPECT_EQ(pane<FileTextPane>()->accessibleName(), "tide.txt");
    EXPECT_THAT(facts(), HasSubstr("18 bytes"));
}

TEST_F(Preview, ALongTextComesInPartsAndIsCutWithASentence)
{
    QByteArray text;
    while (text.size() < 3'000'000)
        text += "The harbour master wrote every arrival down.\n";
    show(write("long.txt", text));
    EXPECT_EQ(pane<FileTextPane>()->document()->characterCount(), int(previewText::mostBytes) + 1);
    EXPECT_THAT(labels(), Contains("Only the first 2 MB are shown."));
    EXPECT_EQ(pane<FileTextPane>()->verticalScrollBar()->value(), 0);
}

TEST_F(Preview, ALineThatWasBrokenIsCopiedAsOne)
{
    const QByteArray endless(5000, 'x');
    show(write("line.txt", "first\n" + endless + "\nlast"));
    pane<FileTextPane>()->selectAll();
    pane<FileTextPane>()->copy();
    EXPECT_EQ(QApplication::clipboard()->text().toUtf8(), "first\n" + endless + "\nlast");
}

TEST_F(Preview, APictureStandsInAWindowOfItsSize)
{
    showAtOnce(writePicture("red.png", {700, 500}, Qt::red));
    ASSERT_TRUE(pane<PicturePane>());
    EXPECT_EQ(pane<PicturePane>()->size(), QSize(700, 500));
    EXPECT_TRUE(scene.waitFor([&] { return colourInTheMiddle() == qRgb(255, 0, 0); }));
    EXPECT_THAT(facts(), HasSubstr("700 × 500"));
    const QPoint middle = QGuiApplication::primaryScreen()->availableGeometry().center();
    EXPECT_LE((window().frameGeometry().center() - middle).manhattanLength(), 60);
}

TEST_F(Preview, ALargePictureFitsTheScreenAndAMaximisedWindowGetsMoreOfIt)
{
    show(writePicture("large.jpg", {6000, 4000}, Qt::red));
    const QSize screen = QGuiApplication::primaryScreen()->availableSize();
    EXPECT_LT(window().width(), screen.width());
    EXPECT_LT(window().height(), screen.height());
    EXPECT_THAT(facts(), HasSubstr("6000 × 4000"));
    const QSize before = pane<PicturePane>()->pixels();
    EXPECT_LT(before.width(), screen.width());
    window().showMaximized();
    EXPECT_TRUE(scene.waitFor([&] { return pane<PicturePane>()->pixels().height() > before.height(); }));
    EXPECT_TRUE(scene.waitFor([&] { return qRed(colourInTheMiddle()) > 240; }));
}

TEST_F(Preview, ADocumentShowsItsPagesAndScrolls)
{
    show(writeDocument("three.pdf", 3));
    ASSERT_TRUE(pane<PagesPane>());
    EXPECT_THAT(facts(), HasSubstr("3 pages"));
    EXPECT_TRUE(scene.waitFor([&] { return qGreen(colourInTheMiddle()) > 240 && qRed(colourInTheMiddle()) < 20; }));
    press(Qt::Key_End);
    EXPECT_EQ(pane<PagesPane>()->verticalScrollBar()->value(), pane<PagesPane>()->verticalScrollBar()->maximum());
    EXPECT_TRUE(scene.waitFor([&] { return qBlue(colourInTheMiddle()) > 240 && qRed(colourInTheMiddle()) < 20; }));
    press(Qt::Key_Home);
    EXPECT_EQ(pane<PagesPane>()->verticalScrollBar()->value(), 0);
}

TEST_F(Preview, ADocumentWhoseDecoderDiesGoesOnWithAnother)
{
    show(writeDocument("twelve.pdf", 12));
    EXPECT_TRUE(scene.waitFor([&] { return qGreen(colourInTheMiddle()) > 240 && qRed(colourInTheMiddle()) < 20; }));
    const auto processes = decoders();
    ASSERT_EQ(processes.size(), 1U);
    ::kill(processes.front(), SIGKILL);
    press(Qt::Key_End);
    EXPECT_TRUE(scene.waitFor([&] { return qBlue(colourInTheMiddle()) > 240 && qRed(colourInTheMiddle()) < 20; }));
}

TEST_F(Preview, AFolderTellsWhatIsInIt)
{
    QDir(scene.folder.path()).mkpath("papers/old");
    write("papers/a", QByteArray(1500, 'x'));
    write("papers/old/b", QByteArray(500, 'x'));
    show(scene.folder.filePath("papers").toStdString());
    EXPECT_THAT(labels(), testing::IsSupersetOf(Strings{"2 KB", "3 items", scene.folder.path().toStdString()}));
}

TEST_F(Preview, AnythingElseIsDescribed)
{
    show(write("data.zip", QByteArray("PK\3\4\x14\0\0\0", 8)));
    ASSERT_TRUE(pane<FileCard>());
    EXPECT_THAT(labels(), testing::IsSupersetOf(Strings{"Kind", "Zip archive", "Size", "8 bytes", "Modified", "Where"}));
    EXPECT_THAT(labels(), Not(Contains(notShown)));
}

TEST_F(Preview, WhatIsBrokenSaysSoInOneSentence)
{
    for (const auto &[name, bytes] :
        {std::pair("broken.png", QByteArray("\x89PNG\r\n\x1a\nbroken")), std::pair("empty.png", QByteArray()),
            std::pair("broken.pdf", QByteArray("%PDF-1.7\nbroken")), std::pair("broken.svg", QByteArray("<svg><g></svg>"))}) {
        SCOPED_TRACE(name);
        show(write(name, bytes));
        EXPECT_THAT(labels(), Contains(notShown));
    }
}

TEST_F(Preview, AVanishedFileAndAPipeHoldNothingUp)
{
    show(scene.folder.filePath("gone.txt").toStdString());
    EXPECT_THAT(labels(), Contains(notShown));
    const std::string pipe = scene.folder.filePath("pipe").toStdString();
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    show(pipe);
    ASSERT_TRUE(pane<FileCard>());
    EXPECT_THAT(labels(), Not(Contains(notShown)));
}

/// Two frames of two pixels, red and blue, each shown for a twentieth of a second, again and again.
static QByteArray movingPicture()
{
    const auto frame = [](char pixels) {
        const char bytes[] = {0x21, char(0xF9), 4, 0, 5, 0, 0, 0, 0x2C, 0, 0, 0, 0, 2, 0, 1, 0, 0, 2, 2, pixels, 0x0A, 0};
        return QByteArray(bytes, sizeof bytes);
    };
    const QByteArray head(
        "GIF89a\x02\x00\x01\x00\x80\x00\x00\xFF\x00\x00\x00\x00\xFF\x21\xFF\x0BNETSCAPE2.0\x03\x01\x00\x00\x00", 38);
    return head + frame(0x04) + frame(0x4C) + ";";
}

TEST_F(Preview, AMovingPictureMovesAgainAndAgain)
{
    show(write("moving.gif", movingPicture()));
    const auto colour = [&] { return pane<PicturePane>()->grab().toImage().pixel(pane<PicturePane>()->rect().center()); };
    const QRgb first = colour();
    EXPECT_TRUE(scene.waitFor([&] { return colour() != first; }));
    EXPECT_TRUE(scene.waitFor([&] { return colour() == first; }));
}

TEST_F(Preview, AMovingPictureStandsStillForWhoWantsNoMotion)
{
    qputenv("KORVANE_REDUCED_MOTION", "1");
    Appearance still;
    qunsetenv("KORVANE_REDUCED_MOTION");
    _preview = std::make_unique<QtPreviewWindow>(scene.loop.executor(), scene.clock, still, *scene.icons, decoder);
    show(write("moving.gif", movingPicture()));
    const auto colour = [&] { return pane<PicturePane>()->grab().toImage().pixel(pane<PicturePane>()->rect().center()); };
    const QRgb first = colour();
    int looks = 0;
    EXPECT_TRUE(scene.waitFor([&] { return colour() != first || ++looks == 100; }));
    EXPECT_EQ(colour(), first);
    _preview.reset(); // before its appearance
}

// The decoder that is ready

TEST_F(Preview, ADecoderThatIsReadyShowsOneFileAndAnotherIsReadyAfterwards)
{
    preview().prepare();
    ASSERT_TRUE(scene.waitFor([] { return decoders().size() == 1; }));
    const pid_t first = decoders().front();
    preview().prepare();
    show(writePicture("a.png", {100, 100}, Qt::red));
    EXPECT_THAT(decoders(), ElementsAre(first)) << "the one that was ready, and no other";
    preview().close();
    EXPECT_TRUE(scene.waitFor([&] { return decoders().size() == 1 && decoders().front() != first; }));
}

TEST_F(Preview, ATextNeedsNoDecoderAndLeavesTheOneThatIsReady)
{
    preview().prepare();
    ASSERT_TRUE(scene.waitFor([] { return decoders().size() == 1; }));
    const auto before = decoders();
    show(write("a.txt", "a"));
    preview().close();
    scene.turn();
    EXPECT_EQ(decoders(), before);
}

TEST_F(Preview, ADecoderIsReadyForTwoMinutesAfterItWasExpectedLast)
{
    const auto justBefore = QtPreviewWindow::readiness - 1ms;
    for (int i = 0; i < 2; i++) {
        preview().prepare();
        ASSERT_TRUE(scene.waitFor([] { return decoders().size() == 1; }));
        preview().prepare();
        scene.wait(justBefore);
        EXPECT_EQ(decoders().size(), 1U);
    }
    scene.wait(1ms);
    EXPECT_TRUE(scene.waitFor([] { return decoders().empty(); }));
}

TEST_F(Preview, ThePaletteTellsWhenARowOfAFileIsSelected)
{
    scene.show();
    int told = 0;
    scene.view().fileSelected = [&] { told++; };
    scene.palette()._results = Rows{makeRow({.id = "command", .title = "Command", .previewText = "text"}),
        makeRow({.id = "file:/a.png", .title = "a.png", .preview = PreviewResource::file("/a.png")})};
    scene.turn();
    EXPECT_EQ(told, 0);
    scene.palette().move(1);
    scene.turn();
    EXPECT_GE(told, 1);
}

// Keys and closing

TEST_F(Preview, EveryKeyIsShownToTheOwnerFirstAndOnce)
{
    takesKeys = true;
    show(write("a.txt", QByteArray("line\n").repeated(500)));
    keys.clear();
    press(Qt::Key_Escape);
    press(Qt::Key_Y, Qt::ControlModifier, "y");
    press(Qt::Key_PageDown);
    ASSERT_EQ(keys.size(), 3U);
    EXPECT_EQ(keys[0].key, KeyPress::Key::Escape);
    EXPECT_EQ(keys[1].key, KeyPress::Key::Character);
    EXPECT_EQ(keys[1].character, "y");
    EXPECT_TRUE(keys[1].command);
    EXPECT_EQ(pane<FileTextPane>()->verticalScrollBar()->value(), 0) << "it was consumed";
    takesKeys = false;
    press(Qt::Key_PageDown);
    EXPECT_EQ(keys.size(), 4U);
    EXPECT_GT(pane<FileTextPane>()->verticalScrollBar()->value(), 0);
}

TEST_F(Preview, AKeyMayCloseIt)
{
    begin(write("a.txt", "a"));
    scene.waitFor([&] { return preview().settled(); });
    preview().show(write("a.txt", "a"),
        {.keyPressed =
                [this](const KeyPress &) {
                    preview().close();
                    return true;
                },
            .closed = [this] { closings++; }});
    scene.waitFor([&] { return preview().settled(); });
    press(Qt::Key_Escape);
    EXPECT_FALSE(window().isVisible());
    EXPECT_EQ(closings, 0) << "whoever closes it knows";
}

TEST_F(Preview, ItsButtonAndTheWindowManagerCloseItAndItTellsOnce)
{
    const std::string path = write("a.txt", "a");
    show(path);
    window().findChild<FlatButton *>()->click();
    EXPECT_EQ(closings, 0) << "not in the middle of it";
    EXPECT_TRUE(scene.waitFor([&] { return closings == 1; }));
    EXPECT_FALSE(window().isVisible());
    show(path);
    askToClose(window());
    EXPECT_TRUE(scene.waitFor([&] { return closings == 2; }));
    preview().close();
    scene.turn();
    EXPECT_EQ(closings, 2);
}

TEST_F(Preview, AClosingIsNotToldAfterTheOwnerClosedItToo)
{
    show(write("a.txt", "a"));
    window().close();
    preview().close();
    scene.turn();
    EXPECT_EQ(closings, 0);
}

TEST_F(Preview, AnotherFileTakesThePlaceOfTheFirstWhoseAnswersAreDropped)
{
    const std::string large = writePicture("large.png", {5000, 5000}, Qt::red);
    begin(large);
    scene.turn();
    show(write("b.txt", "second"));
    EXPECT_EQ(window().windowTitle(), "b.txt");
    ASSERT_TRUE(pane<FileTextPane>());
    scene.wait(500ms);
    EXPECT_FALSE(pane<PicturePane>());
    show(writePicture("small.png", {50, 50}, Qt::blue));
    EXPECT_TRUE(pane<PicturePane>()) << "with another process";
}

// Time

TEST_F(Preview, ItSaysThatItLoadsOnlyAfterATenthOfASecond)
{
    decoder = decoderThatHangs();
    begin(writePicture("a.png", {50, 50}, Qt::red));
    scene.turn();
    scene.wait(99ms);
    EXPECT_FALSE(window().isVisible());
    scene.wait(1ms);
    EXPECT_TRUE(window().isVisible());
    EXPECT_THAT(labels(), Contains("Loading…"));
    preview().close();
    EXPECT_FALSE(window().isVisible());
    scene.wait(1s);
    EXPECT_FALSE(window().isVisible());
}

TEST_F(Preview, AFileThatHangsDoesNotKeepTheNextOneWaiting)
{
    decoder = decoderThatHangs();
    begin(writePicture("a.png", {50, 50}, Qt::red));
    scene.waitFor([&] { return window().isVisible(); });
    show(write("b.txt", "quick"));
    EXPECT_EQ(pane<FileTextPane>()->toPlainText(), "quick");
}

// Among other windows

TEST_F(Preview, ItStandsAboveThePaletteAndGivesTheKeyboardBack)
{
    scene.show();
    scene.controller->coordinator()._isPresenting = true;
    const auto back = preview().keyWindow();
    ASSERT_TRUE(back);
    show(writePicture("red.png", {900, 700}, Qt::red));
    EXPECT_TRUE(scene.waitFor([&] { return colourInTheMiddle() == qRgb(255, 0, 0); }));
    EXPECT_TRUE(scene.shownWindow().visible());
    preview().close();
    back();
    EXPECT_TRUE(scene.waitFor([&] { return scene.shownWindow().hasKeyboard(); }));
}

TEST_F(Preview, WithoutAWindowOfTheProgramNoneIsReturnedTo)
{
    const ForeignWindow other({10, 10, 100, 100});
    scene.waitFor([&] { return other.hasKeyboard() && !QApplication::activeWindow(); });
    EXPECT_FALSE(preview().keyWindow());
}

TEST_F(Preview, AWindowThatHasGoneIsNotReturnedTo)
{
    std::function<void()> back;
    {
        QWidget own;
        own.show();
        own.activateWindow();
        ASSERT_TRUE(scene.waitFor([&] { return own.isActiveWindow(); }));
        back = preview().keyWindow();
        ASSERT_TRUE(back);
    }
    back();
    scene.turn();
    EXPECT_EQ(QApplication::activeWindow(), nullptr);
}

} // namespace korvane::test
