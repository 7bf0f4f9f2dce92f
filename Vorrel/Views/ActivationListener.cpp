#include "Vorrel/Views/ActivationListener.h"

#include <QDBusConnection>

namespace korvane {

void ActivationListener::observe(std::function<void()> handler)
{
    const bool first = !activated;
    activated = std::move(handler);
    if (first)
        QDBusConnection::sessionBus().connect(QString(), QStringLiteral("/dev/korvane"), QStringLiteral("dev.korvane"),
            QStringLiteral("activate"), this, SLOT(activate()));
}

void ActivationListener::activate() { activated(); }

} // namespace korvane
