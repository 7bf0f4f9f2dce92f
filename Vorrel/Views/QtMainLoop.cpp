#include "Vorrel/Views/QtMainLoop.h"

#include <QCoreApplication>
#include <QEvent>

namespace korvane {

/// Receives the wake-ups on the main thread; one is one turn.
class QtMainLoop::Crank : public QObject {
public:
    explicit Crank(MainLoop &loop) : loop(loop) { }

    bool event(QEvent *event) override
    {
        if (event->type() != QEvent::User)
            return QObject::event(event);
        loop.runOne();
        return true;
    }

private:
    MainLoop &loop;
};

/// The way to the crank from any thread; empty once there is nobody to turn it.
struct QtMainLoop::Wake {
    void operator()()
    {
        std::scoped_lock lock(mutex);
        if (crank)
            QCoreApplication::postEvent(crank.get(), new QEvent(QEvent::User));
    }
    void end()
    {
        std::unique_ptr<Crank> last;
        std::scoped_lock lock(mutex);
        last = std::move(crank);
    }

    std::mutex mutex;
    std::unique_ptr<Crank> crank;
};

QtMainLoop::QtMainLoop() : wake(std::make_shared<Wake>()), mainLoop([wake = wake] { (*wake)(); })
{
    wake->crank = std::make_unique<Crank>(mainLoop);
    QObject::connect(qApp, &QObject::destroyed, [weak = std::weak_ptr(wake)] {
        if (const auto alive = weak.lock())
            alive->end();
    });
}

QtMainLoop::~QtMainLoop() { wake->end(); }

void QtMainLoop::shutDown()
{
    mainLoop.shutDown();
    wake->end();
}

} // namespace korvane
