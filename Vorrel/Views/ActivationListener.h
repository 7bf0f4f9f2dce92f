#pragma once

#include "Vorrel/Platform/Activation.h"

#include <QObject>

namespace korvane {

/// Hears the activation signal on the session bus; hears nothing where there is none. Main thread only.
class ActivationListener : public QObject, public ActivationReceiver {
    Q_OBJECT

public:
    void observe(std::function<void()> activated) override;

private Q_SLOTS:
    void activate();

private:
    std::function<void()> activated;
};

} // namespace korvane
