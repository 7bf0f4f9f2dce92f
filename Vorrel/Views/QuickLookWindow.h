#pragma once

#include "Support/Clock.h"
#include "Vorrel/Platform/PreviewWindow.h"
#include "Vorrel/Views/DecoderProcess.h"

#include <QSize>
#include <QString>

#include <memory>

class QWidget;

namespace korvane {

class Appearance;
class IconStore;

/// The preview of a file in an ordinary window above all others: pictures, pages, text, or what there is to say.
///
/// Main thread only, and never blocks it. Files are looked at on threads that nobody waits for; pictures and documents are
/// decoded by a process of their own, which may come to harm. The window appears with its contents; after a moment without
/// them it appears and says that it loads. What comes after the window was closed or shows another file is dropped.
class QtPreviewWindow : public PreviewWindow {
public:
    /// `decoder` is the path of the program that decodes. `clock`, `appearance` and `icons` outlive the window.
    QtPreviewWindow(Executor mainThread, Clock &clock, Appearance &appearance, IconStore &icons, std::string decoder);
    ~QtPreviewWindow() override;

    std::function<void()> keyWindow() override;
    bool show(const std::string &path, Events events) override;
    void close() override;

    /// How long a decoder is kept ready for a file that may be shown.
    static constexpr std::chrono::minutes readiness{2};
    /// A file may be shown soon: has a decoder ready for it, which has seen nothing yet and will see no other file. Also done
    /// when a preview that needed one ends.
    void prepare();

    QWidget *surface() const;
    /// Whether everything that was asked for is shown.
    bool settled() const;

private:
    class Surface;
    struct Showing;

    // What goes on while a preview stands. It ends with that one, so it may refer to this and to `showing`.
    Task<void> present();
    Task<void> presentText();
    Task<void> presentPicture();
    Task<void> play(decoding::Request request, Milliseconds first);
    Task<void> sharpen();
    Task<void> presentPages();
    Task<void> presentFolder();
    Task<void> presentCard(QString sentence);
    Task<void> appearLate();
    Task<DecoderProcess::Answer> ask(decoding::Request request);
    Task<DecoderProcess::Answer> askFor(decoding::Request page, decoding::Request document);

    static Task<void> tell(std::function<void()> closed);
    Task<void> endReadiness();

    void arrange(QSize contents);
    void appear(QSize contents);
    void userClosed();
    void dropShowing();
    DecoderProcess &decodes();

    Executor mainThread;
    Clock &clock;
    Appearance &appearance;
    IconStore &icons;
    const std::string decoderProgram;
    std::unique_ptr<Surface> _surface;
    std::unique_ptr<DecoderProcess> decoder; // of the file that is shown, once it is needed
    std::unique_ptr<DecoderProcess> ready; // for the next one
    std::unique_ptr<Showing> showing; // when a preview stands
    TaskHandle telling, readying;
};

} // namespace korvane
