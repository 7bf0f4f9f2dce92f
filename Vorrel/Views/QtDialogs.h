#pragma once

#include "Vorrel/Platform/Dialogs.h"

#include <functional>

class QDialog;
class QWidget;

namespace korvane {

class Appearance;

/// Questions in dialogs of their own: a sheet over the palette while that is up, otherwise a window alone.
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

    QWidget *owner() const;
    Task<bool> ask(QDialog *dialog);

    Appearance &appearance;
};

} // namespace korvane
