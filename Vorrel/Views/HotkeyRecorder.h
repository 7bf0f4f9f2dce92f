#pragma once

#include "Vorrel/Platform/HotkeyRegistering.h"

#include <QAbstractButton>

#include <functional>

namespace korvane {

class Appearance;

/// Shows a global shortcut and records another one. While it records, every key is its own: a shortcut is taken and ends
/// the recording, Escape ends it without a change, and so does whatever takes the keyboard away. Main thread only.
class HotkeyRecorder : public QAbstractButton {
    Q_OBJECT

public:
    explicit HotkeyRecorder(Appearance &appearance, QWidget *parent = nullptr);
    ~HotkeyRecorder() override;

    /// The shortcut to show.
    void show(const HotkeyConfiguration &configuration);
    /// A number that differs from the last one begins to record, or ends that, where the window is shown. The first is
    /// only noted.
    void request(int number);
    bool recording() const { return _recording; }

    QSize sizeHint() const override;

    std::function<void(const HotkeyConfiguration &)> changed = [](const HotkeyConfiguration &) {};
    std::function<void(bool)> recordingChanged = [](bool) {};

protected:
    bool event(QEvent *event) override;
    void paintEvent(QPaintEvent *event) override;
    void focusOutEvent(QFocusEvent *event) override;
    void hideEvent(QHideEvent *event) override;
    void changeEvent(QEvent *event) override;

private:
    void beginRecording();
    void finish();
    void record(const QKeyEvent &key);
    void say(const QString &title);
    QString restingTitle() const;

    Appearance &appearance;
    HotkeyConfiguration configuration;
    std::optional<int> lastRequest;
    bool _recording = false;
};

} // namespace korvane
