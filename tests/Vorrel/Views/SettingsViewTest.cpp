// The pages of the settings, drawn without a screen: what they show, what they change, and how the keyboard and a screen reader
// get through them.
#include "Vorrel/Views/SettingsView.h"

#include "Vorrel/Views/AgentList.h"
#include "Vorrel/Views/AgentSettingsView.h"
#include "Vorrel/Views/HotkeyRecorder.h"
#include "Vorrel/Views/HotkeySettingsSection.h"
#include "Vorrel/Views/IconStore.h"
#include "tests/support/DiskFolder.h"
#include "tests/support/TestPalette.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QAccessible>
#include <QApplication>
#include <QScrollBar>
#include <QTest>

using namespace korvane;
using namespace korvane::test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::Not;
using Tab = SettingsState::Tab;

namespace {

/// Skills that a scan finds.
struct FoundSkills final : SkillLoader {
    using SkillLoader::SkillLoader;
    Task<Scan> scan(std::vector<std::string>) override { co_return found; }
    Scan found;
};

class SettingsPages : public testing::Test {
protected:
    SettingsPages()
    {
        icons = std::make_shared<IconStore>(desktop.loop.executor(), desktop.loop.executor());
        view = std::make_unique<SettingsView>(PaneParts{state(), desktop.loop.executor(), appearance, *icons});
        view->resize(650, 540);
        view->show();
        view->activateWindow();
        turn();
    }
    ~SettingsPages() override
    {
        view.reset();
        turn();
    }

    SettingsState &state() { return desktop.services->preferences(); }
    void turn()
    {
        for (int i = 0; i < 4; i++) {
            desktop.loop.runUntilIdle();
            QCoreApplication::sendPostedEvents();
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
            QCoreApplication::processEvents();
        }
    }
    void open(Tab tab)
    {
        state().selectedTab = tab;
        turn();
    }

    /// All that can be read now, and the names of what can be typed into.
    Strings texts() const
    {
        Strings all;
        for (const QWidget *widget : view->findChildren<QWidget *>()) {
            if (!widget->isVisible())
                continue;
            if (const auto *label = qobject_cast<const QLabel *>(widget))
                all.push_back(label->text().toStdString());
            else if (!widget->accessibleName().isEmpty())
                all.push_back(widget->accessibleName().toStdString());
        }
        return all;
    }
    /// The control of this kind and name that is seen.
    template <class Control> Control &the(const char *name) const
    {
        for (Control *control : view->findChildren<Control *>())
            if (control->isVisible() && control->accessibleName() == QString::fromUtf8(name))
                return *control;
        throw std::runtime_error(std::string("nothing is called ") + name);
    }
    FlatButton &button(const char *name) const { return the<FlatButton>(name); }
    QLineEdit &line(const char *name) const { return the<QLineEdit>(name); }
    void press(const char *name)
    {
        button(name).click();
        turn();
    }
    void type(QWidget &where, const char *keys)
    {
        where.setFocus();
        QTest::keyClicks(&where, QString::fromUtf8(keys));
        turn();
    }
    void key(Qt::Key key, Qt::KeyboardModifiers modifiers = {})
    {
        QWidget *focused = view->focusWidget();
        QTest::keyClick(focused ? focused : view.get(), key, modifiers);
        turn();
    }
    QString focused() const { return view->focusWidget() ? view->focusWidget()->accessibleName() : QString(); }

    TestPalette desktop;
    Appearance appearance;
    std::shared_ptr<IconStore> icons;
    std::unique_ptr<SettingsView> view;
};

Agent agent(std::string id, std::string name)
{
    return {.id = std::move(id), .name = std::move(name), .systemPrompt = "Be brief."};
}

} // namespace

// What stands on the pages

TEST_F(SettingsPages, EachTabHasItsWordsAndAllHaveTheFoot)
{
    state().loginStatus = SettingsState::LoginItemStatus::disabled;
    const struct {
        Tab tab;
        Strings words;
    } cases[] = {
        {Tab::general,
            {"Launch at Login", "Korvane will not open at login.",
                "Korvane lives in the menu bar. Press the global shortcut to open or hide the command window.",
                "Current shortcut", "Diagnostics", "Export Diagnostics…",
                "Diagnostics include versions, index status, hotkey registration, recent error categories and search timings. No "
                "clipboard content, file paths, search text or credentials are included.",
                "Quicklinks", "Name", "Address (https://… or a file path)", "Add Quicklink"}},
        {Tab::files,
            {"Add Folder…", "Rebuild Index",
                "Search results may include files Korvane cannot currently read. For Desktop, Documents and Downloads, review "
                "Files & Folders access. Cloud files must be available locally.",
                "Open Files & Folders Settings"}},
        {Tab::clipboard,
            {"Enable Clipboard History", "Maximum History Items (1–10,000)",
                "Text and URLs stay on this Mac. Password-manager concealed and transient items are skipped. Unmarked sensitive "
                "text may still be captured; pause history when needed.",
                "Clear Clipboard History…"}},
        {Tab::ai,
            {"Provider", "OpenAI · Responses API", "Model", "API Key (leave blank to keep saved key)", "Remove Saved API Key",
                "Enable AI Requests",
                "Ask AI sends your request and selected tool results to OpenAI. Clipboard reads require a separate approval "
                "before "
                "content is sent. Search and clipboard history otherwise remain local.",
                "Confirm AI Write Operations", "Destructive and remote MCP tools always require approval."}},
        {Tab::agents,
            {"Agents", "New Agent", "Agent name", "Model identifier", "System prompt",
                "Allowed Tools · none selected means no tools", "Skills", "Scan Skills",
                "Reads ~/.config/korvane/skills, ~/.claude/skills and ~/.config/agents/skills. Selected instructions are sent to "
                "the AI provider. Review and trust them before selecting.",
                "Save Agent", "Agent changes use Save Agent. API keys and AI enablement remain in the AI tab."}},
        {Tab::mcp,
            {"Add a stdio server", "Add Server", "MCP Credential · Keychain", "Account reference", "Secret", "Save Credential",
                "Use secretEnvironment: {\"ENV_KEY\": \"account-reference\"}. Never put secrets in args or JSON environment "
                "values."}},
    };
    const Strings everywhere{
        "General", "File Index", "Clipboard", "AI", "Agents", "MCP", "Changes are saved locally.", "Save Settings"};
    for (const auto &c : cases) {
        open(c.tab);
        EXPECT_THAT(texts(), IsSupersetOf(c.words)) << SettingsTabBar::label(c.tab).toStdString();
        EXPECT_THAT(texts(), IsSupersetOf(everywhere)) << SettingsTabBar::label(c.tab).toStdString();
    }
}

TEST_F(SettingsPages, APageIsMadeWhenItIsSeenForTheFirstTime)
{
    const auto made = [this] {
        return std::ranges::count_if(view->findChildren<QWidget *>(),
            [](const QWidget *one) { return dynamic_cast<const SettingsPane *>(one) != nullptr; });
    };
    EXPECT_EQ(made(), 1);
    open(Tab::mcp);
    open(Tab::general);
    open(Tab::mcp);
    EXPECT_EQ(made(), 2);
}

TEST_F(SettingsPages, TheFootTellsHowASaveEndedAndOffersNoSecondOneMeanwhile)
{
    button("Save Settings").click();
    EXPECT_TRUE(state().saving);
    view->refresh();
    EXPECT_FALSE(button("Save Settings").isEnabled());
    turn();
    EXPECT_TRUE(button("Save Settings").isEnabled());
    EXPECT_THAT(texts(), Contains("Settings saved."));
    EXPECT_THAT(texts(), Not(Contains("Changes are saved locally.")));
}

TEST_F(SettingsPages, WhatASaveSaidMakesRoomDuringTheNextOne)
{
    press("Save Settings");
    ASSERT_THAT(texts(), Contains("Settings saved."));
    button("Save Settings").click();
    EXPECT_THAT(texts(), Not(Contains("Settings saved.")));
    EXPECT_THAT(texts(), Contains("Changes are saved locally."));
    turn();
    EXPECT_THAT(texts(), Contains("Settings saved."));
}

TEST_F(SettingsPages, ASaveByTheKeyboardLeavesTheKeyboardAtItsButton)
{
    button("Save Settings").setFocus();
    QTest::keyClick(&button("Save Settings"), Qt::Key_Return);
    EXPECT_FALSE(button("Save Settings").isEnabled());
    EXPECT_EQ(focused(), "Save Settings") << "while it saves";
    key(Qt::Key_Backtab, Qt::ShiftModifier);
    EXPECT_EQ(focused(), "Add Quicklink") << "a button that is disabled holds nobody";
    button("Save Settings").setFocus();
    key(Qt::Key_Return);
    EXPECT_TRUE(button("Save Settings").isEnabled());
    EXPECT_EQ(focused(), "Save Settings");
}

// General

TEST_F(SettingsPages, TheSwitchForTheLoginIsOnWhileItIsEnabledOrAwaitsApproval)
{
    using Status = SettingsState::LoginItemStatus;
    const struct {
        Status status;
        bool on, offersSettings;
    } cases[] = {{Status::enabled, true, false}, {Status::awaitingApproval, true, true}, {Status::disabled, false, false},
        {Status::failed, false, true}};
    for (const auto &c : cases) {
        SCOPED_TRACE(SettingsState::sentence(c.status));
        state().loginStatus = c.status;
        turn();
        EXPECT_EQ(the<Toggle>("Launch at Login").isChecked(), c.on);
        EXPECT_THAT(texts(), Contains(SettingsState::sentence(c.status)));
        EXPECT_EQ(std::ranges::count(texts(), "Open Login Items Settings"), c.offersSettings ? 1 : 0);
    }
}

TEST_F(SettingsPages, TurningTheSwitchForTheLoginAsksTheSystemAndShowsWhatItSays)
{
    the<Toggle>("Launch at Login").click();
    turn();
    EXPECT_EQ(desktop.loginItem.present, LoginItem::Status::enabled);
    EXPECT_TRUE(the<Toggle>("Launch at Login").isChecked());
    desktop.loginItem.refuses = true;
    the<Toggle>("Launch at Login").click();
    turn();
    EXPECT_FALSE(the<Toggle>("Launch at Login").isChecked());
    EXPECT_EQ(std::ranges::count(texts(), "Login registration failed. Move Korvane.app to Applications and try again."), 2)
        << "below the switch and at the foot";
}

TEST_F(SettingsPages, ARefusedLoginLeavesTheSwitchWhereTheSystemHasIt)
{
    desktop.loginItem.refuses = true;
    state().loginStatus = SettingsState::LoginItemStatus::failed;
    turn();
    for (const char *time : {"first", "second"}) { // neither the status nor the message changes any more
        the<Toggle>("Launch at Login").click();
        turn();
        EXPECT_FALSE(the<Toggle>("Launch at Login").isChecked()) << time;
    }
}

TEST_F(SettingsPages, AQuicklinkIsAddedByReturnAndRemovedByItsButton)
{
    int told = 0;
    state().quicklinksChanged = [&] { ++told; };
    type(line("Name"), "Harbour");
    EXPECT_EQ(state().quicklinkTitle.get(), "Harbour");
    type(line("Address (https://… or a file path)"), "https://example.org/tides");
    key(Qt::Key_Return);
    EXPECT_THAT(texts(),
        IsSupersetOf({"Harbour", "https://example.org/tides", "Quicklink saved. It appears in the palette immediately."}));
    EXPECT_EQ(line("Name").text(), "") << "ready for the next one";
    EXPECT_EQ(button("Remove quicklink").accessibleDescription(), "Harbour");
    press("Remove quicklink");
    EXPECT_TRUE(state().quicklinks->empty());
    EXPECT_THAT(texts(), Not(Contains("Harbour")));
    EXPECT_EQ(told, 2);
}

TEST_F(SettingsPages, RemovingARowLeavesTheKeyboardAtTheNextOne)
{
    for (const char *name : {"One", "Two", "Three"}) {
        state().quicklinkTitle = name;
        state().quicklinkURL = "https://example.org";
        press("Add Quicklink");
    }
    const auto removers = [this] {
        QStringList rows;
        for (FlatButton *one : view->findChildren<FlatButton *>())
            if (one->isVisible() && one->accessibleName() == "Remove quicklink")
                rows += one->accessibleDescription();
        return rows;
    };
    const QStringList before = removers();
    ASSERT_EQ(before.size(), 3);
    for (FlatButton *one : view->findChildren<FlatButton *>())
        if (one->accessibleDescription() == before[1])
            one->setFocus();
    key(Qt::Key_Return);
    EXPECT_EQ(removers(), (QStringList{before[0], before[2]}));
    EXPECT_EQ(view->focusWidget()->accessibleDescription(), before[2]);
    key(Qt::Key_Return);
    EXPECT_EQ(view->focusWidget()->accessibleDescription(), before[0]);
}

TEST_F(SettingsPages, RemovingTheLastRowLeavesTheKeyboardAtWhatStandsBehindIt)
{
    state().quicklinkTitle = "One";
    state().quicklinkURL = "https://example.org";
    press("Add Quicklink");
    button("Remove quicklink").setFocus();
    key(Qt::Key_Return);
    ASSERT_TRUE(state().quicklinks->empty());
    EXPECT_EQ(focused(), "Save Settings");

    open(Tab::files);
    desktop.index->show({{"A", "/home/ada"}}, "Watching");
    turn();
    button("Remove folder").setFocus();
    desktop.index->show({}, "Watching");
    turn();
    EXPECT_EQ(focused(), "Add Folder…");

    open(Tab::mcp);
    for (const char *name : {"Connect", "Remove server"}) {
        SCOPED_TRACE(name);
        state().mcp()._configurations = {MCPServerConfiguration{.id = "S", .name = "Search"}};
        turn();
        button(name).setFocus();
        state().mcp()._configurations = std::vector<MCPServerConfiguration>();
        turn();
        EXPECT_EQ(focused(), "Add a stdio server");
    }
}

TEST_F(SettingsPages, TheDiagnosticsAreExportedToTheChosenFile)
{
    press("Export Diagnostics…");
    ASSERT_TRUE(desktop.dialogs.standing());
    desktop.dialogs.refuse();
    turn();
    EXPECT_THAT(texts(), Contains("Diagnostics export was cancelled."));
    const DiskFolder disk;
    for (const bool registered : {true, false}) {
        state().activeHotkey = registered ? std::optional(HotkeyConfiguration()) : std::nullopt;
        press("Export Diagnostics…");
        desktop.dialogs.accept({disk / "report.txt"});
        turn();
        EXPECT_THAT(texts(), Contains("Diagnostics exported."));
        const auto report =
            await(desktop.loop, desktop.services->diagnostics.presentReport(desktop.index->indexHealth(), registered));
        EXPECT_EQ(disk.contents("report.txt"), report);
        EXPECT_THAT(disk.contents("report.txt"), testing::HasSubstr(registered ? "- Registered: yes" : "- Registered: no"));
    }
}

TEST_F(SettingsPages, TheSystemsOwnSettingsAreOpenedOrTheWayIsTold)
{
    state().hotkeyIssue = "Choose a shortcut with Command, Option or Control.";
    state().loginStatus = SettingsState::LoginItemStatus::failed;
    turn();
    press("Open Login Items Settings");
    press("Open Keyboard Settings");
    open(Tab::files);
    desktop.system.opensSettings = false;
    press("Open Files & Folders Settings");
    EXPECT_THAT(desktop.system.requests(), ElementsAre("settings login items", "settings keyboard", "settings file privacy"));
    EXPECT_THAT(texts(), Contains("Open System Settings → Privacy & Security → Files & Folders."));
}

// File Index

TEST_F(SettingsPages, TheFoldersAreShownWithTheStateOfTheIndex)
{
    open(Tab::files);
    desktop.index->show({{"A", "/home/ada/Documents"}, {"B", "/mnt/archive"}}, "Indexing · 12 files", true);
    turn();
    EXPECT_THAT(texts(), IsSupersetOf({"/home/ada/Documents", "/mnt/archive", "Indexing · 12 files"}));
    press("Rebuild Index");
    EXPECT_EQ(desktop.index->rebuilds, 1);
    press("Remove folder");
    EXPECT_THAT(desktop.index->removed, ElementsAre("A"));
    press("Add Folder…");
    desktop.dialogs.accept({"/srv/pictures"});
    turn();
    EXPECT_THAT(desktop.index->added, ElementsAre("/srv/pictures"));
}

// Clipboard

TEST_F(SettingsPages, TheSizeOfTheHistoryIsTypedAndCountedAndBoundedAsItIsSaved)
{
    open(Tab::clipboard);
    QLineEdit &limit = line("Maximum History Items (1–10,000)");
    EXPECT_EQ(limit.text(), "500");
    limit.selectAll();
    type(limit, "2x0000");
    EXPECT_EQ(limit.text(), "20000") << "digits alone";
    EXPECT_EQ(state().preferences->clipboardLimit, 20'000) << "a draft may be too large";
    press("Save Settings");
    EXPECT_EQ(limit.text(), "10000");
    key(Qt::Key_Down);
    EXPECT_EQ(state().preferences->clipboardLimit, 9'999);
    limit.clear();
    key(Qt::Key_Backspace);
    EXPECT_EQ(state().preferences->clipboardLimit, 9'999) << "nothing is no number";
    button("Clear Clipboard History…").setFocus();
    turn();
    EXPECT_EQ(limit.text(), "9999");
}

TEST_F(SettingsPages, AnEmptiedNumberIsSeenAgainWhenItIsSaved)
{
    open(Tab::clipboard);
    QLineEdit &limit = line("Maximum History Items (1–10,000)");
    limit.setFocus();
    limit.selectAll();
    key(Qt::Key_Delete);
    state().message = "something else happens";
    turn();
    ASSERT_EQ(limit.text(), "") << "a number may be on its way";
    press("Save Settings"); // by the mouse, which leaves the keyboard in the field
    EXPECT_EQ(limit.text(), "500");
    EXPECT_EQ(state().preferences->clipboardLimit, 500);
}

TEST_F(SettingsPages, TheHistoryIsClearedOnceTheUserHasConfirmedIt)
{
    open(Tab::clipboard);
    press("Clear Clipboard History…");
    ASSERT_TRUE(desktop.dialogs.standing());
    desktop.dialogs.accept();
    turn();
    EXPECT_THAT(texts(), Contains("Clipboard history cleared."));
}

TEST_F(SettingsPages, EverySwitchWritesItsPreferenceAndShowsIt)
{
    const struct {
        Tab tab;
        const char *name;
        bool AppPreferences::*setting;
    } cases[] = {{Tab::clipboard, "Enable Clipboard History", &AppPreferences::clipboardEnabled},
        {Tab::ai, "Enable AI Requests", &AppPreferences::aiEnabled},
        {Tab::ai, "Confirm AI Write Operations", &AppPreferences::confirmToolWrites}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        open(c.tab);
        const bool before = state().preferences.get().*c.setting;
        EXPECT_EQ(the<Toggle>(c.name).isChecked(), before);
        the<Toggle>(c.name).setFocus();
        key(Qt::Key_Space);
        EXPECT_EQ(state().preferences.get().*c.setting, !before);
        key(Qt::Key_Return);
        EXPECT_EQ(state().preferences.get().*c.setting, before);
        AppPreferences other = state().preferences;
        other.*c.setting = !before;
        state().preferences = other;
        turn();
        EXPECT_EQ(the<Toggle>(c.name).isChecked(), !before);
    }
}

// AI

TEST_F(SettingsPages, TheModelIsADraftUntilItIsSaved)
{
    open(Tab::ai);
    QLineEdit &model = line("Model");
    EXPECT_EQ(model.text(), "gpt-4.1-mini");
    model.selectAll();
    type(model, "other-1");
    EXPECT_EQ(state().preferences->model, "other-1");
    model.selectAll();
    key(Qt::Key_Delete);
    press("Save Settings");
    EXPECT_THAT(texts(), Contains("Enter a model identifier."));
}

TEST_F(SettingsPages, TheSecureFieldsShowNothingAndKeepNothing)
{
    const char *const key = "API Key (leave blank to keep saved key)";
    open(Tab::ai);
    EXPECT_EQ(line(key).echoMode(), QLineEdit::Password);
    type(line(key), "sk-123");
    EXPECT_EQ(state().apiKey.get(), "sk-123");
    EXPECT_NE(line(key).displayText(), "sk-123");
    press("Save Settings");
    EXPECT_EQ(line(key).text(), "");
    EXPECT_FALSE(line(key).isUndoAvailable());
    EXPECT_FALSE(line(key).isRedoAvailable());

    open(Tab::mcp);
    EXPECT_EQ(line("Secret").echoMode(), QLineEdit::Password);
    type(line("Account reference"), "search");
    type(line("Secret"), "hidden");
    this->key(Qt::Key_Return);
    EXPECT_EQ(line("Secret").text(), "");
    EXPECT_FALSE(line("Secret").isUndoAvailable());
    EXPECT_EQ(line("Account reference").text(), "search") << "the account stays";
}

TEST_F(SettingsPages, TheSavedKeyIsRemovedByItsButton)
{
    desktop.secrets.keep("ai.openai", "sk-123");
    open(Tab::ai);
    press("Remove Saved API Key");
    EXPECT_THAT(desktop.secrets.items(), testing::IsEmpty());
    EXPECT_THAT(texts(), Contains("API key removed."));
}

TEST_F(SettingsPages, AKeyThatIsTypedDuringASaveIsKept)
{
    open(Tab::ai);
    QLineEdit &key = line("API Key (leave blank to keep saved key)");
    type(key, "first");
    button("Save Settings").click(); // the save has begun, and nothing of it has run
    key.setFocus();
    QTest::keyClicks(&key, "2");
    turn();
    EXPECT_EQ(key.text(), "first2");
    EXPECT_EQ(state().apiKey.get(), "first2");
}

// MCP

TEST_F(SettingsPages, EachServerHasItsStatusAndItsButtons)
{
    MCPServerConfiguration search{.id = "S", .name = "Search", .command = "/usr/bin/search", .args = {"-q"}};
    MCPServerConfiguration notes{.id = "N", .name = "Notes"};
    state().mcp()._configurations = {search, notes};
    state().mcp()._status = {{"S", "Connected · 3 tools"}};
    open(Tab::mcp);
    EXPECT_THAT(texts(),
        IsSupersetOf({"Search", "Connected · 3 tools", "Notes", "Disconnected", "Connect", "Disconnect", "Remove server"}));
    press("Connect");
    ASSERT_TRUE(desktop.dialogs.standing()) << "the user is asked each time";
    EXPECT_EQ(desktop.dialogs.asked().back().title, "Start MCP server “Search”?");
    EXPECT_EQ(button("Connect").accessibleDescription(), "Search");
    button("Connect").setFocus();
    state().mcp()._status = {{"S", "Connecting…"}};
    turn();
    EXPECT_THAT(texts(), Contains("Connecting…"));
    EXPECT_EQ(view->focusWidget(), &button("Connect")) << "a status that changes takes no keyboard away";
}

TEST_F(SettingsPages, AServerIsRemovedByItsButtonAndAFailureIsTold)
{
    open(Tab::mcp);
    for (const char *name : {"Search", "Notes"})
        await(desktop.loop, state().mcp().add({.id = name, .name = name, .command = "/usr/bin/server"}));
    turn();
    for (FlatButton *one : view->findChildren<FlatButton *>())
        if (one->accessibleName() == "Remove server" && one->accessibleDescription() == "Search")
            one->click();
    turn();
    ASSERT_EQ(state().mcp().configurations().size(), 1U);
    EXPECT_EQ(state().mcp().configurations().front().name, "Notes");
    await(desktop.loop, desktop.services->database->close());
    press("Remove server");
    EXPECT_THAT(texts(), IsSupersetOf({"Notes", "The database is closed."}));
}

TEST_F(SettingsPages, AServerThatCannotBeReadIsToldAndTheTextStays)
{
    open(Tab::mcp);
    auto &editor = the<QPlainTextEdit>("Add a stdio server");
    EXPECT_EQ(editor.toPlainText().toStdString(), state().serverJSON.get());
    editor.selectAll();
    type(editor, "{ no");
    EXPECT_EQ(state().serverJSON.get(), "{ no");
    press("Add Server");
    EXPECT_EQ(editor.toPlainText(), "{ no");
    EXPECT_THAT(texts(), Not(Contains("Changes are saved locally.")));
}

TEST_F(SettingsPages, AnEmptyCredentialIsNotSaved)
{
    open(Tab::mcp);
    press("Save Credential");
    EXPECT_THAT(texts(), Contains("Enter an account name and secret."));
}

TEST_F(SettingsPages, TheRecorderIsStartedFromAnotherTab)
{
    open(Tab::mcp);
    state().recordCustomHotkey();
    turn();
    EXPECT_TRUE(view->hotkeySection().recorder().recording());
    EXPECT_EQ(view->focusWidget(), &view->hotkeySection().recorder());
}

// The keyboard

TEST_F(SettingsPages, TheArrowsWalkThroughTheTabs)
{
    view->setFocus();
    key(Qt::Key_Tab);
    EXPECT_EQ(focused(), "General");
    key(Qt::Key_Right);
    EXPECT_EQ(state().selectedTab, Tab::files);
    EXPECT_EQ(focused(), "File Index");
    key(Qt::Key_End);
    EXPECT_EQ(state().selectedTab, Tab::mcp);
    key(Qt::Key_Right);
    EXPECT_EQ(state().selectedTab, Tab::general) << "round and round";
    key(Qt::Key_Left);
    key(Qt::Key_Home);
    EXPECT_EQ(focused(), "General");
}

TEST_F(SettingsPages, ControlWithTabOrPageKeysTurnsThePagesFromAnywhere)
{
    line("Name").setFocus();
    key(Qt::Key_Tab, Qt::ControlModifier);
    EXPECT_EQ(state().selectedTab, Tab::files);
    EXPECT_EQ(focused(), "File Index");
    key(Qt::Key_PageDown, Qt::ControlModifier);
    EXPECT_EQ(state().selectedTab, Tab::clipboard);
    key(Qt::Key_PageUp, Qt::ControlModifier);
    key(Qt::Key_Backtab, Qt::ControlModifier | Qt::ShiftModifier);
    EXPECT_EQ(state().selectedTab, Tab::general);
}

TEST_F(SettingsPages, EscapeAndControlWithWCloseTheWindow)
{
    key(Qt::Key_Escape);
    EXPECT_FALSE(view->isVisible());
    view->show();
    turn();
    line("Name").setFocus();
    key(Qt::Key_W, Qt::ControlModifier);
    EXPECT_FALSE(view->isVisible());
    view->show();
    turn();
    view->hotkeySection().recorder().setFocus();
    view->hotkeySection().recorder().click();
    key(Qt::Key_Escape);
    EXPECT_TRUE(view->isVisible()) << "while it records, every key is the recorder's";
}

TEST_F(SettingsPages, TabWalksThroughEveryControlFromTheTopToTheBottomAndBack)
{
    state().quicklinkTitle = "One";
    state().quicklinkURL = "https://example.org";
    press("Add Quicklink"); // a row that is younger than the foot
    state().mcp()._configurations = {MCPServerConfiguration{.id = "S", .name = "Search"}};
    for (const Tab tab : SettingsState::tabs) {
        open(tab);
        SCOPED_TRACE(SettingsTabBar::label(tab).toStdString());
        const QList<QWidget *> order = view->focusOrder();
        ASSERT_GT(order.size(), 2);
        EXPECT_EQ(order.front()->accessibleName(), SettingsTabBar::label(tab));
        EXPECT_EQ(order.back(), &button("Save Settings"));
        order.back()->setFocus();
        for (QWidget *expected : order) {
            key(Qt::Key_Tab);
            ASSERT_EQ(view->focusWidget(), expected) << expected->accessibleName().toStdString();
            for (const QWidget *around = expected->parentWidget(); around != view.get(); around = around->parentWidget())
                EXPECT_FALSE(around->hasFocus()) << "a screen reader would take what is around it for it";
            const QRect seen(expected->mapTo(view.get(), QPoint()), expected->size());
            EXPECT_TRUE(view->rect().contains(seen.center())) << expected->accessibleName().toStdString() << " is out of sight";
        }
        key(Qt::Key_Backtab, Qt::ShiftModifier);
        EXPECT_EQ(view->focusWidget(), order[order.size() - 2]);
        if (tab != Tab::agents) { // whose parts stand side by side
            for (int i = 2; i < order.size() - 1; i++) // between the tab and the foot
                EXPECT_GE(order[i]->mapTo(view.get(), order[i]->rect().bottomRight()).y(),
                    order[i - 1]->mapTo(view.get(), QPoint()).y())
                    << order[i]->accessibleName().toStdString();
        }
    }
}

TEST_F(SettingsPages, AnAmpersandInAButtonMakesNoKeyOfWhatStandsBehindIt)
{
    open(Tab::files);
    EXPECT_TRUE(button("Open Files & Folders Settings").shortcut().isEmpty());
    EXPECT_EQ(QAccessible::queryAccessibleInterface(&button("Open Files & Folders Settings"))->text(QAccessible::Name),
        "Open Files & Folders Settings");
}

// Screen readers

TEST_F(SettingsPages, EveryControlOfEveryPageHasANameAndARole)
{
    state().mcp()._configurations = {MCPServerConfiguration{.id = "S", .name = "Search"}};
    state().hotkeyIssue = "Choose a shortcut with Command, Option or Control.";
    desktop.index->show({{"A", "/home/ada"}}, "Watching · 12 files");
    static constexpr QAccessible::Role controls[] = {QAccessible::Button, QAccessible::CheckBox, QAccessible::EditableText,
        QAccessible::List, QAccessible::PageTab, QAccessible::PageTabList};
    std::set<int> met;
    const std::function<void(QAccessibleInterface *)> walk = [&](QAccessibleInterface *node) {
        if (!node || node->state().invisible)
            return;
        if (std::ranges::find(controls, node->role()) != std::end(controls)) {
            met.insert(node->role());
            EXPECT_FALSE(node->text(QAccessible::Name).trimmed().isEmpty())
                << "a " << qAccessibleRoleString(node->role()) << " has no name";
        }
        for (int i = 0; i < node->childCount(); i++)
            walk(node->child(i));
    };
    for (const Tab tab : SettingsState::tabs) {
        open(tab);
        SCOPED_TRACE(SettingsTabBar::label(tab).toStdString());
        for (const QWidget *control : view->focusOrder())
            EXPECT_FALSE(control->accessibleName().isEmpty()) << control->metaObject()->className();
        walk(QAccessible::queryAccessibleInterface(view.get()));
    }
    EXPECT_EQ(met.size(), std::size(controls)) << "each kind of control was met";
}

TEST_F(SettingsPages, ATabIsAPageTabThatSaysWhetherItIsChosen)
{
    QAccessibleInterface *files = QAccessible::queryAccessibleInterface(&button("File Index"));
    EXPECT_EQ(files->role(), QAccessible::PageTab);
    EXPECT_FALSE(files->state().selected);
    files->actionInterface()->doAction(QAccessibleActionInterface::pressAction());
    turn();
    EXPECT_TRUE(files->state().selected);
    EXPECT_EQ(state().selectedTab, Tab::files);
    button("File Index").click();
    turn();
    EXPECT_TRUE(files->state().selected) << "the chosen one stays chosen";
}

// The Agents

TEST_F(SettingsPages, TheAgentsAreReadOnceForEachTimeThatTheirPageIsOpened)
{
    int loads = 0;
    desktop.agents->onChange = [&] { ++loads; };
    EXPECT_EQ(loads, 0);
    open(Tab::agents);
    EXPECT_EQ(loads, 1);
    open(Tab::agents);
    view->refresh();
    EXPECT_EQ(loads, 1);
    open(Tab::mcp);
    open(Tab::agents);
    EXPECT_EQ(loads, 2);
    view->hide();
    view->show();
    turn();
    EXPECT_EQ(loads, 3) << "the window was opened with that page";
}

TEST_F(SettingsPages, ASkillThatIsTakenOutLeavesTheKeyboardAtTheNextAndWhatIsReadOpen)
{
    open(Tab::agents);
    desktop.agents->skills = {{.name = "Tides", .description = "Reads.", .instructions = "Look.", .path = "/t/SKILL.md"}};
    Agent draft = agent("1", "Writer");
    draft.skills = {"/a/SKILL.md", "/b/SKILL.md"};
    desktop.agents->draft = draft;
    turn();
    press("Review instructions");
    const QPlainTextEdit *read = &the<QPlainTextEdit>("Review instructions");
    the<Toggle>("/a/SKILL.md").setFocus();
    key(Qt::Key_Space);
    EXPECT_THAT(desktop.agents->draft->skills, ElementsAre("/b/SKILL.md"));
    EXPECT_EQ(focused(), "/b/SKILL.md");
    key(Qt::Key_Space);
    EXPECT_EQ(focused(), "Scan Skills");
    EXPECT_EQ(&the<QPlainTextEdit>("Review instructions"), read);

    // A skill that is found stands before those that are not, for the keyboard too.
    draft.skills = {"/b/SKILL.md"};
    desktop.agents->draft = draft;
    turn();
    std::vector<Skill> found = desktop.agents->skills;
    found.push_back({.name = "Winds", .description = "Reads.", .instructions = "Listen.", .path = "/w/SKILL.md"});
    desktop.agents->skills = found;
    turn();
    the<Toggle>("Winds").setFocus();
    key(Qt::Key_Tab);
    key(Qt::Key_Tab);
    EXPECT_EQ(focused(), "/b/SKILL.md");
    EXPECT_LT(the<Toggle>("Winds").mapTo(view.get(), QPoint()).y(), the<Toggle>("/b/SKILL.md").mapTo(view.get(), QPoint()).y());
}

namespace {

class AgentPage : public SettingsPages {
protected:
    AgentPage()
    {
        auto skills = std::make_shared<FoundSkills>();
        loader = skills.get();
        store = std::make_shared<AgentStore>(AgentStore::Parts{.mainThread = desktop.loop.executor(),
            .folders = desktop.folders,
            .tools = desktop.services->tools(),
            .repository = AgentRepository(desktop.services->database),
            .loader = skills});
        for (const char *tool : {"calculator", "files.search"})
            desktop.services->tools().registerTool(std::make_shared<ScriptedTool>(tool));
        view.reset();
        page = new AgentSettingsView({state(), desktop.loop.executor(), appearance, *icons}, *store);
        window.reset(page);
        observed = store->observe([this] { page->refresh(); });
        page->resize(650, 430);
        page->show();
        page->activateWindow();
        turn();
    }
    ~AgentPage() override
    {
        observed.clear();
        window.reset();
    }

    void save(const Agent &agent) { await(desktop.loop, AgentRepository(desktop.services->database).save(agent)); }
    std::vector<Agent> stored() { return await(desktop.loop, AgentRepository(desktop.services->database).load()); }
    void openPage()
    {
        page->opened();
        turn();
        page->refresh();
    }
    template <class Control> Control &in(const char *name)
    {
        for (Control *control : page->findChildren<Control *>())
            if (!control->isHidden() && control->accessibleName() == QString::fromUtf8(name))
                return *control;
        throw std::runtime_error(std::string("nothing is called ") + name);
    }
    void write(const char *field, const char *text)
    {
        auto &line = in<QLineEdit>(field);
        line.setFocus();
        line.selectAll();
        QTest::keyClicks(&line, QString::fromUtf8(text));
        turn();
    }
    void pressIn(const char *name)
    {
        in<FlatButton>(name).click();
        turn();
    }
    Strings listed() const
    {
        Strings names;
        for (const AgentList::Entry &entry : page->list().entries())
            names.push_back((entry.unsaved ? "*" : "") + entry.name.toStdString());
        return names;
    }
    Strings labels() const
    {
        Strings all;
        for (const auto *label : page->findChildren<QLabel *>())
            if (!label->isHidden() && !label->text().isEmpty())
                all.push_back(label->text().toStdString());
        return all;
    }

    FoundSkills *loader = nullptr;
    std::shared_ptr<AgentStore> store;
    AgentSettingsView *page = nullptr;
    std::unique_ptr<QWidget> window;
    std::vector<Subscription> observed;
};

} // namespace

TEST_F(AgentPage, TheListIsInTheOrderOfTheNamesAndChoosingOneMakesItTheDraft)
{
    save(agent("1", "Writer"));
    save(agent("2", "Archivist"));
    openPage();
    EXPECT_THAT(listed(), ElementsAre("Archivist", "Writer", "New Agent"));
    EXPECT_EQ(page->list().currentRow(), 2) << "the new draft";
    page->list().setFocus();
    QTest::keyClick(&page->list(), Qt::Key_Up);
    turn();
    EXPECT_EQ(store->draft->id, "1");
    EXPECT_EQ(in<QLineEdit>("Agent name").text(), "Writer");
    EXPECT_EQ(in<QPlainTextEdit>("System prompt").toPlainText(), "Be brief.");
    EXPECT_THAT(listed(), ElementsAre("Archivist", "Writer"));
}

TEST_F(AgentPage, WhatIsEditedIsSavedAndFoundInTheList)
{
    openPage();
    write("Agent name", "Harbour pilot");
    write("Model identifier", "small-1");
    in<Toggle>("files.search").click();
    in<QPlainTextEdit>("System prompt").setFocus();
    QTest::keyClicks(&in<QPlainTextEdit>("System prompt"), "Say the tide.");
    turn();
    EXPECT_THAT(listed(), ElementsAre("*Harbour pilot"));
    pressIn("Save Agent");
    ASSERT_EQ(stored().size(), 1U);
    EXPECT_EQ(stored().front(), store->draft.get());
    EXPECT_THAT(stored().front().tools, ElementsAre("files.search"));
    EXPECT_EQ(stored().front().systemPrompt, "Say the tide.");
    EXPECT_THAT(listed(), ElementsAre("Harbour pilot"));
    EXPECT_THAT(labels(), Contains("Agent saved. Search its name in the command window."));
}

TEST_F(AgentPage, ReadingTheAgentsAnewLosesNoEdit)
{
    save(agent("1", "Writer"));
    openPage();
    page->list().setCurrentRow(0);
    turn();
    write("Agent name", "Poet");
    save(agent("1", "Changed elsewhere"));
    openPage();
    EXPECT_EQ(in<QLineEdit>("Agent name").text(), "Poet");
    EXPECT_THAT(listed(), ElementsAre("*Changed elsewhere"));
}

TEST_F(AgentPage, EditsThatWereLeftForAnotherAgentAreThereAgain)
{
    save(agent("1", "Archivist"));
    save(agent("2", "Writer"));
    openPage();
    write("Agent name", "Brand new");
    page->list().setCurrentRow(1);
    turn();
    write("Model identifier", "other");
    EXPECT_THAT(listed(), ElementsAre("Archivist", "*Writer", "*Brand new"));
    page->list().setCurrentRow(2);
    turn();
    EXPECT_EQ(in<QLineEdit>("Agent name").text(), "Brand new");
    page->list().setCurrentRow(1);
    turn();
    EXPECT_EQ(in<QLineEdit>("Model identifier").text(), "other");
    pressIn("New Agent");
    EXPECT_THAT(listed(), ElementsAre("Archivist", "*Writer", "*Brand new", "New Agent"));
    EXPECT_EQ(in<QLineEdit>("Agent name").text(), "New Agent");
    pressIn("New Agent");
    EXPECT_THAT(listed(), ElementsAre("Archivist", "*Writer", "*Brand new", "New Agent")) << "an untouched draft is not kept";
}

TEST_F(AgentPage, AStoredToolThatIsNoLongerOfferedStaysUntilTheUserTakesItOut)
{
    Agent writer = agent("1", "Writer");
    writer.tools = {"mcp.gone.write", "calculator"};
    save(writer);
    openPage();
    page->list().setCurrentRow(0);
    turn();
    write("Agent name", "Poet");
    pressIn("Save Agent");
    EXPECT_THAT(stored().front().tools, ElementsAre("mcp.gone.write", "calculator"));
    EXPECT_TRUE(in<Toggle>("mcp.gone.write").isChecked());
    in<Toggle>("mcp.gone.write").click();
    turn();
    EXPECT_THAT(store->draft->tools, ElementsAre("calculator"));
    EXPECT_THROW(in<Toggle>("mcp.gone.write"), std::runtime_error);
}

TEST_F(AgentPage, SkillsAreFoundByAScanAndReadBeforeTheyAreChosen)
{
    Agent writer = agent("1", "Writer");
    writer.skills = {"/old/SKILL.md"};
    save(writer);
    openPage();
    page->list().setCurrentRow(0);
    turn();
    EXPECT_TRUE(in<Toggle>("/old/SKILL.md").isChecked());
    EXPECT_THAT(labels(), Contains("Scan to verify this skill."));

    loader->found.skills = {
        {.name = "Tides", .description = "Reads tables.", .instructions = "Look\nthere.", .path = "/t/SKILL.md"}};
    loader->found.warnings = {"Cannot read skill folder: /secret"};
    pressIn("Scan Skills");
    EXPECT_THAT(labels(),
        IsSupersetOf({"Reads tables.", "Cannot read skill folder: /secret",
            "Found 1 skills. Select only skills you trust; their instructions are sent with Agent requests."}));
    EXPECT_THROW(in<QPlainTextEdit>("Review instructions"), std::runtime_error) << "closed at first";
    pressIn("Review instructions");
    auto &instructions = in<QPlainTextEdit>("Review instructions");
    EXPECT_EQ(instructions.toPlainText(), "Look\nthere.");
    EXPECT_TRUE(instructions.isReadOnly());
    EXPECT_TRUE(instructions.textInteractionFlags() & Qt::TextSelectableByKeyboard);
    EXPECT_LE(instructions.height(), 200);
    in<Toggle>("Tides").click();
    turn();
    EXPECT_THAT(store->draft->skills, ElementsAre("/old/SKILL.md", "/t/SKILL.md"));
    EXPECT_THAT(labels(), Contains("Scan to verify this skill.")) << "a scan that did not find it verifies nothing";
}

TEST_F(AgentPage, NothingIsSavedOrScannedTwiceAtOnce)
{
    openPage();
    in<FlatButton>("Save Agent").click();
    EXPECT_FALSE(in<FlatButton>("Save Agent").isEnabled());
    EXPECT_FALSE(in<FlatButton>("Scan Skills").isEnabled());
    turn();
    EXPECT_TRUE(in<FlatButton>("Save Agent").isEnabled());
}

TEST_F(AgentPage, SavingOrScanningByTheKeyboardLeavesTheKeyboardAtTheButton)
{
    openPage();
    for (const char *name : {"Save Agent", "Scan Skills"}) {
        SCOPED_TRACE(name);
        auto &pressed = in<FlatButton>(name);
        pressed.setFocus();
        QTest::keyClick(&pressed, Qt::Key_Return);
        EXPECT_FALSE(pressed.isEnabled());
        EXPECT_EQ(page->focusWidget(), &pressed) << "while it works";
        turn();
        EXPECT_TRUE(pressed.isEnabled());
        EXPECT_EQ(page->focusWidget(), &pressed);
    }
}

TEST_F(AgentPage, AListThatCannotBeReadIsTold)
{
    await(desktop.loop, desktop.services->database->close());
    openPage();
    EXPECT_THAT(labels(), Contains("The database is closed."));
    EXPECT_THAT(listed(), ElementsAre("New Agent"));
}

TEST_F(AgentPage, ATextThatAFieldCannotHoldIsNotChangedByShowingIt)
{
    Agent writer = agent("1", "Two\nlines");
    writer.systemPrompt = "One\r\ntwo";
    save(writer);
    openPage();
    page->list().setCurrentRow(0);
    turn();
    EXPECT_EQ(store->draft.get(), writer);
    EXPECT_THAT(listed(), ElementsAre("Two lines"));
}
