#pragma once

#include "Support/MainLoop.h"

namespace korvane {

/// The main thread's queue of work, turned by Qt's event loop.
///
/// Made on the main thread after the application object and destroyed before it. Work that arrives
/// when either has gone is never run. Its executor may be used from any thread.
class QtMainLoop {
public:
    QtMainLoop();
    ~QtMainLoop();

    MainLoop &loop() { return mainLoop; }
    Executor executor() const { return mainLoop.executor(); }
    /// Ends timers and waiting coroutines, before what they refer to goes away.
    void shutDown();

private:
    class Crank;
    struct Wake;
    std::shared_ptr<Wake> wake;
    MainLoop mainLoop;
};

} // namespace korvane
