#pragma once

#include "Support/MainLoop.h"
#include "Vorrel/Platform/FolderWatcher.h"

namespace korvane {

/// Watches folders through one inotify instance. Only folders take watches; for a folder that is not
/// there the nearest one above it is watched until it comes. When the system loses events, everyone who
/// watches is told. Main thread only; reading the folders' names is the only thing that touches a disk.
class FolderMonitor : public FolderWatcher {
public:
    /// Events are read on `mainThread`.
    explicit FolderMonitor(Executor mainThread);
    ~FolderMonitor() override;
    AsyncStream<bool> watch(std::vector<std::string> folders) override;

private:
    class State;
    MainThreadOnly confined;
    std::shared_ptr<State> state; // shared with the task that reads
    TaskHandle reader;
};

} // namespace korvane
