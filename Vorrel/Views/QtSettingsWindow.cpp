#include "Vorrel/Views/QtSettingsWindow.h"

#include "Vorrel/Shell/L10n.h"
#include "Vorrel/Views/IconStore.h"
#include "Vorrel/Views/SettingsView.h"
#include "Vorrel/Views/X11Window.h"

#include <QCursor>
#include <QGuiApplication>
#include <QIcon>
#include <QScreen>

namespace korvane {

QtSettingsWindow::QtSettingsWindow(SettingsState &state, const Platform &platform, Appearance &appearance, IconStore &icons) :
    _view(std::make_unique<SettingsView>(PaneParts{state, platform.mainThread, appearance, icons}))
{
    _view->setAttribute(Qt::WA_QuitOnClose, false);
    _view->setWindowTitle(fromUtf8(L10n::shown("Korvane Settings")));
    _view->setFixedSize(width, height);
}

QtSettingsWindow::~QtSettingsWindow() = default;

QWidget *QtSettingsWindow::surface() const { return _view.get(); }

HotkeySettingsSection &QtSettingsWindow::hotkeySection() const { return _view->hotkeySection(); }

void QtSettingsWindow::refresh() { _view->refresh(); }

void QtSettingsWindow::showCentred()
{
    refresh();
    if (_view->windowIcon().isNull()) // drawn when it is first seen, not when the program starts
        _view->setWindowIcon(QIcon(":/korvane/icons/korvane.svg"));
    const QScreen *screen = QGuiApplication::screenAt(QCursor::pos());
    if (!screen)
        screen = QGuiApplication::primaryScreen();
    if (screen) {
        QRect frame = _view->frameGeometry();
        frame.moveCenter(screen->availableGeometry().center());
        _view->move(frame.topLeft());
    }
    _view->setWindowState(_view->windowState() & ~Qt::WindowMinimized);
    x11::showInFront(*_view);
    _view->setFocus(Qt::OtherFocusReason); // no control is marked before the user asks for one
}

} // namespace korvane
