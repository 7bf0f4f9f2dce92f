#include "Support/ChildProcess.h"
#include "Support/Descriptor.h"
#include "Vorrel/Platform/Linux/ActivationSignal.h"
#include "Vorrel/Platform/Linux/LinuxHotkeys.h"
#include "Vorrel/Platform/Linux/LinuxPlatform.h"
#include "Vorrel/Shell/KorvaneApp.h"
#include "Vorrel/Shell/ProgramHelp.h"
#include "Vorrel/Views/ActivationListener.h"
#include "Vorrel/Views/Appearance.h"
#include "Vorrel/Views/IconStore.h"
#include "Vorrel/Views/KeyEvents.h"
#include "Vorrel/Views/QtDialogs.h"
#include "Vorrel/Views/QtMainLoop.h"
#include "Vorrel/Views/QtPaletteWindow.h"
#include "Vorrel/Views/QtPasteboard.h"
#include "Vorrel/Views/QtSettingsWindow.h"
#include "Vorrel/Views/QuickLookWindow.h"
#include "Vorrel/Views/TrayStatusItem.h"
#include "Vorrel/Views/X11Window.h"

#include <QApplication>
#include <QLocale>
#include <QPointer>
#include <QWidget>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <sys/signalfd.h>
#include <unistd.h>

using namespace korvane;

namespace {

/// SIGTERM and SIGINT as something to wait for. Made before any thread, so that none of them takes the signals.
Descriptor endingSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return Descriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

Task<void> quitOnSignal(const Descriptor &signals, std::function<void()> quit)
{
    co_await waitUntilReadable(signals);
    quit();
}

bool hasDisplay(const Environment &environment)
{
    return nonEmpty(environment, "DISPLAY") || nonEmpty(environment, "WAYLAND_DISPLAY")
        || nonEmpty(environment, "QT_QPA_PLATFORM");
}

} // namespace

int main(int count, char **words)
{
    const std::vector<std::string> arguments(words + std::min(count, 1), words + count);
    if (const auto answer = answerInsteadOfStarting(arguments)) {
        std::fputs(answer->c_str(), stdout);
        return 0;
    }
    const std::vector<std::string> variables = processVariables();
    const Environment environment = variablesOf(variables);

    // The second of two launches needs nothing of what follows, and ends within milliseconds.
    LinuxActivationSender sender(linuxBusAddresses(environment).session);
    if (!AppDelegate::comesFirst(linuxUserFolders(environment), sender))
        return 0;
    if (!hasDisplay(environment)) {
        std::fputs("Korvane needs a display. Start it in a desktop session.\n", stderr);
        return 1;
    }

    std::signal(SIGPIPE, SIG_IGN);
    keepEndedChildren();
    const Descriptor signals = endingSignals();
    // A native Wayland window has neither a place nor a way to the front; under XWayland it has both.
    if (nonEmpty(environment, "WAYLAND_DISPLAY") && nonEmpty(environment, "DISPLAY") && !nonEmpty(environment, "QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "xcb");
    QApplication::setDesktopFileName("dev.korvane.vorrel");
    QApplication application(count, words);
    // The toolkit has taken the user's locale for the C library, whose readers of numbers must know the point everywhere.
    std::setlocale(LC_NUMERIC, "C");
    QApplication::setQuitOnLastWindowClosed(false);

    QtMainLoop mainLoop;
    LinuxPlatform system(mainLoop.executor(), variables, x11::launchToken);
    L10n::use(L10n::load(system.textPlaces(executablePath())));
    QLocale::setDefault(
        QLocale(QString::fromStdString(L10n::languageInUse()))); // the toolkit's own words, such as kinds of files
    Appearance appearance;
    const auto icons = std::make_shared<IconStore>(mainLoop.executor(), system.pool.executor());
    QtDialogs dialogs(appearance);
    QtPasteboard pasteboard;
    TrayStatusItem status;
    ActivationListener activation;
    LinuxHotkeys hotkeys(mainLoop.executor(), system.pool.executor(), system.clock, environment, L10n::shown("Open Korvane"));
    QtPreviewWindow preview(
        mainLoop.executor(), system.clock, appearance, *icons, companionPath(executablePath(), "korvane-preview"));
    Platform ports = system.ports(dialogs, pasteboard, true);
    ports.preview = &preview;

    std::unique_ptr<AppDelegate> delegate;
    const auto quit = [&] { delegate->shouldTerminate([] { QApplication::exit(0); }); };
    delegate = std::make_unique<AppDelegate>(AppDelegate::Host{
        .platform = ports,
        .status = status,
        .activation = activation,
        .hotkeys = hotkeys,
        .makeWindow =
            [&](PaletteController &controller) {
                auto window = std::make_unique<QtPaletteWindow>(controller, ports, appearance, *icons);
                window->userTime = [&hotkeys] { return hotkeys.claimKeys(); };
                window->keyboardSettled = [&hotkeys] { hotkeys.letKeysThrough(); };
                window->fileSelected = [&preview] { preview.prepare(); };
                dialogs.palette = [surface = QPointer<QWidget>(window->surface())] { return surface.data(); };
                return window;
            },
        .makeSettingsWindow =
            [&](SettingsState &state) { return std::make_unique<QtSettingsWindow>(state, ports, appearance, *icons); },
        .arguments = arguments,
        .terminate = quit,
    });
    QObject::connect(&application, &QGuiApplication::commitDataRequest, &application, quit);
    const TaskHandle ending = spawn(mainLoop.executor(), quitOnSignal(signals, quit));
    const KeyDownFilter keys([&](const HotkeyConfiguration &key, bool isRepeat) {
        return delegate && delegate->handleKeyDown(key.keyCode, key.modifiers, isRepeat);
    });
    delegate->didFinishLaunching();
    const int result = QApplication::exec();

    // What waits ends first, then what runs on threads, then the windows.
    mainLoop.shutDown();
    system.join();
    dialogs.palette = [] { return nullptr; };
    delegate.reset();
    return result;
}
