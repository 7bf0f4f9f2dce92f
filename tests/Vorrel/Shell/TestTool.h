#pragma once

#include "Vorrel/Platform/Headless/HeadlessDirectoryWalker.h"
#include "Vorrel/Platform/Headless/HeadlessSecretStore.h"
#include "Vorrel/Shell/CommandLineTool.h"
#include "tests/support/Await.h"
#include "tests/support/HeadlessDesktop.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace korvane::test {

/// Dialogs as the terminal's: yes or no, by the command line.
struct ConsentingDialogs final : Dialogs {
    Task<bool> confirm(std::string title, std::string detail) override
    {
        asked.push_back(title + "\n" + detail);
        co_return yes;
    }
    Task<void> failure(std::string, std::string) override { co_return; }
    Task<std::optional<std::vector<std::string>>> choose(Choice) override { co_return std::nullopt; }
    bool yes = false;
    Strings asked; ///< Title and detail of every question.
};

/// Runs command lines over a desktop in memory with two real application folders below a temporary root.
/// Time is the machine's: the tool waits for its own debounce.
struct TestTool : testing::Test {
    TestTool()
    {
        std::string pattern = std::filesystem::temp_directory_path() / "korvane-tool-XXXXXX";
        root = ::mkdtemp(pattern.data());
        desktop.emplace(Strings{root});
        walker.emplace(desktop->loop.executor());
        application("Editor", "org.example.editor");
        application("Tab\tName", "org.example.tab");
        desktop->folders.home = root;
        desktop->folders.data = root + "/data";
    }
    ~TestTool() override
    {
        desktop->loop.shutDown();
        std::filesystem::remove_all(root);
    }

    void application(const std::string &name, const std::string &identifier)
    {
        const std::string path = root + "/" + identifier + ".app";
        std::filesystem::create_directory(path);
        desktop->source.describe(path, {{"CFBundleName", name}, {"CFBundleIdentifier", identifier}});
    }

    int run(Strings arguments)
    {
        out.clear(), err.clear();
        const Platform given = desktop->platform();
        const Platform ports{.mainThread = given.mainThread,
            .pool = given.pool,
            .clock = *time,
            .folders = given.folders,
            .applicationSource = given.applicationSource,
            .launcher = given.launcher,
            .folderWatcher = nullptr,
            .workspace = given.workspace,
            .system = given.system,
            .dialogs = dialogs,
            .pasteboard = given.pasteboard,
            .walker = &*walker,
            .indexPlaces = {.defaultRoots = {root + "/home"}, .skippedPrefixes = {root + "/data/Korvane"}, .aliasPrefix = {}},
            .secrets = &secrets,
            .servers = &desktop->servers,
            .shortcutsTool = shortcutsTool};
        CommandLineTool tool({.loop = desktop->loop,
            .platform = ports,
            .out = [this](std::string_view text) { out += text; },
            .err = [this](std::string_view text) { err += text; },
            .consent = [this](bool yes) { dialogs.yes = yes; },
            .input = [this](std::size_t limit) { return input.size() > limit ? std::nullopt : std::optional(input); },
            .workingDirectory = root + "/home",
            .progress = showsProgress ? [this](std::string_view line) { progress.emplace_back(line); }
                                      : std::function<void(std::string_view)>(),
            .onInterrupt = onInterrupt,
            .makeProvider = makeProvider});
        return tool.run(arguments);
    }

    HeadlessSecretStore secrets;
    std::string root, out, err, input;
    Strings progress;
    std::function<void(std::function<void()>)> onInterrupt;
    AppServices::MakeProvider makeProvider;
    std::optional<ShortcutsTool> shortcutsTool;
    bool showsProgress = false;
    std::optional<HeadlessDesktop> desktop;
    std::optional<HeadlessDirectoryWalker> walker;
    SystemClock clock;
    Clock *time = &clock;
    ConsentingDialogs dialogs;
};

} // namespace korvane::test
