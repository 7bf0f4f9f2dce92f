// The rival in the benches of start and idling: nothing but a window of the palette's size in the middle of the screen.
#include <QApplication>
#include <QScreen>
#include <QTimer>
#include <QWidget>

#include <cstdio>

int main(int count, char **words)
{
    QApplication application(count, words);
    QWidget window;
    window.resize(700, 510);
    window.move(QGuiApplication::primaryScreen()->availableGeometry().center() - window.rect().center());
    window.show();
    QTimer::singleShot(0, [] { std::fputs("ready\n", stderr); });
    return QApplication::exec();
}
