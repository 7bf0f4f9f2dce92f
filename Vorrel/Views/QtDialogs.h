#pragma once

#include "Vorrel/Platform/Dialogs.h"

#include <functional>

class QDialog;
class QFileDialog;
class QWidget;

namespace korvane {

class Appearance;

/// Questions in dialogs of their own: a sheet over the palette while that is up or over the window that has
/// the keyboard, otherwise a window alone.
/// The dialog goes when the task that asked is cancelled. Main thread only.
class QtDialogs : public Dialogs {
public:
    explicit QtDialogs(Appearance &appearance) : appearance(appearance) { }

    Task<bool> confirm(std::string title, std::string detail) override;
    Task<void> failure(std::string title, std::string detail) override;
    Task<std::optional<std::vector<std::string>>> choose(Choice choice) override;

    /// The palette's window, once there is one. Dialogs that stand when it goes end as cancelled.
    std::function<QWidget *()> palette = [] { return nullptr; };

private:
    class Alert;

    /// The palette where it is up, else another window of the program that has the keyboard, else none.
    QWidget *owner() const;
    QFileDialog *panelFor(const Choice &choice) const;
    Task<bool> ask(QDialog *dialog);

    Appearance &appearance;
};

} // namespace korvane
