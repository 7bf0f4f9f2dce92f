#pragma once

#include "Support/MainLoop.h"
#include "Vorrel/Platform/Headless/HeadlessApplications.h"
#include "Vorrel/Platform/Headless/HeadlessPreviewWindow.h"
#include "Vorrel/Platform/Headless/HeadlessSecretStore.h"
#include "Vorrel/Platform/Headless/HeadlessServers.h"
#include "Vorrel/Platform/Headless/HeadlessSystem.h"
#include "Vorrel/Platform/Platform.h"
#include "Vorrel/Shell/DiagnosticsService.h"

namespace korvane::test {

using Strings = std::vector<std::string>;

/// A whole desktop in memory, on one thread and in virtual time.
struct HeadlessDesktop {
    explicit HeadlessDesktop(Strings applicationRoots = {}) : source(std::move(applicationRoots)) { }

    Platform platform()
    {
        return {.mainThread = loop.executor(),
            .pool = loop.executor(),
            .clock = clock,
            .folders = folders,
            .applicationSource = source,
            .launcher = launcher,
            .folderWatcher = &folderWatcher,
            .workspace = workspace,
            .system = system,
            .dialogs = dialogs,
            .pasteboard = pasteboard,
            .preview = &preview,
            .secrets = &secrets,
            .loginItem = &loginItem,
            .servers = &servers,
            .detached = [this](std::function<void()> work) { runLater(loop.executor(), std::move(work)); }};
    }

    MainLoop loop;
    ManualClock clock{loop};
    UserFolders folders{.home = "/home/ada", .data = std::nullopt};
    HeadlessApplicationSource source;
    HeadlessApplicationLauncher launcher;
    HeadlessFolderWatcher folderWatcher;
    HeadlessWorkspace workspace;
    HeadlessSystemControl system;
    HeadlessDialogs dialogs;
    HeadlessPasteboard pasteboard;
    HeadlessPreviewWindow preview;
    HeadlessSecretStore secrets;
    HeadlessLoginItem loginItem;
    HeadlessServers servers;
};

/// What a report of this desktop is made with.
inline DiagnosticsService::Ports diagnosticsPorts(HeadlessDesktop &desktop)
{
    return {.clock = desktop.clock, .dialogs = desktop.dialogs, .pool = desktop.loop.executor(), .facts = [] {
                return SystemFacts{"Linux 6", "riscv64", "en_GB.UTF-8"};
            }};
}

} // namespace korvane::test
