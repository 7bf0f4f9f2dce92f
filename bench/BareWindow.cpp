// The rival of the benches: a window of the palette's size and nothing that a launcher has.
//   korvane_bench_bare          the window alone, in the middle of the screen
//   korvane_bench_bare --key    hidden until Alt and Space are pressed, shown and hidden by them; a field above a plain list
//                               of nine lines that is filled anew at each change of the text
#include <QApplication>
#include <QLineEdit>
#include <QListWidget>
#include <QScreen>
#include <QSocketNotifier>
#include <QTimer>
#include <QWidget>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <xcb/xcb.h>

namespace {

/// Alt and Space for the whole desktop, on a connection of its own; with and without the locks.
class Key {
public:
    explicit Key(std::function<void()> pressed) : x(xcb_connect(nullptr, nullptr)), pressed(std::move(pressed))
    {
        const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(x)).data->root;
        for (const int locks : {0, int(XCB_MOD_MASK_LOCK), int(XCB_MOD_MASK_2), XCB_MOD_MASK_LOCK | XCB_MOD_MASK_2})
            xcb_grab_key(x, 0, root, std::uint16_t(XCB_MOD_MASK_1 | locks), space, XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC);
        xcb_flush(x);
        notifier = std::make_unique<QSocketNotifier>(xcb_get_file_descriptor(x), QSocketNotifier::Read);
        QObject::connect(notifier.get(), &QSocketNotifier::activated, [this] { read(); });
    }
    ~Key() { xcb_disconnect(x); }
    Key(const Key &) = delete;

private:
    static constexpr xcb_keycode_t space = 65;

    void read()
    {
        while (xcb_generic_event_t *event = xcb_poll_for_event(x)) {
            if ((event->response_type & 0x7f) == XCB_KEY_PRESS)
                pressed();
            std::free(event);
        }
    }

    xcb_connection_t *x;
    std::function<void()> pressed;
    std::unique_ptr<QSocketNotifier> notifier;
};

/// A field and rows at the places where the palette has its own.
struct Contents {
    explicit Contents(QWidget &window) : field(&window), list(&window)
    {
        field.setGeometry(0, 0, 700, 64);
        list.setGeometry(0, 136, 700, 374);
        QObject::connect(&field, &QLineEdit::textChanged, [this](const QString &text) { fill(text); });
        fill({});
    }

    void fill(const QString &text)
    {
        list.clear();
        for (int i = 0; i < 9; i++) {
            auto *row = new QListWidgetItem(QStringLiteral("%1 row of the list %2").arg(text).arg(i), &list);
            row->setSizeHint({0, 40});
        }
        list.setCurrentRow(0);
    }

    QLineEdit field;
    QListWidget list;
};

void toggle(QWidget &window, Contents &contents)
{
    if (window.isVisible())
        return window.hide();
    contents.field.clear();
    window.show();
    window.raise();
    window.activateWindow();
    contents.field.setFocus();
}

} // namespace

int main(int count, char **words)
{
    QApplication application(count, words);
    QApplication::setQuitOnLastWindowClosed(false);
    const QRect screen = QGuiApplication::primaryScreen()->availableGeometry();
    const bool byKey = count > 1 && std::string_view(words[1]) == "--key";
    QWidget window(nullptr, byKey ? Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint : Qt::Window);
    window.resize(700, 510);
    const QPoint corner = screen.center() - window.rect().center();
    window.move(byKey ? corner - QPoint(0, screen.height() * 8 / 100) : corner);
    std::unique_ptr<Contents> contents;
    std::unique_ptr<Key> key;
    if (byKey) {
        contents = std::make_unique<Contents>(window);
        key = std::make_unique<Key>([&] { toggle(window, *contents); });
    } else {
        window.show();
    }
    QTimer::singleShot(0, [] { std::fputs("ready\n", stderr); });
    return QApplication::exec();
}
