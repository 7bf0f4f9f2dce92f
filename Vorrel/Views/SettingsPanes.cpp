#include "Vorrel/Views/SettingsPanes.h"

#include "Vorrel/FileIndex/FileIndex.h"
#include "Vorrel/Shell/L10n.h"
#include "Vorrel/Views/HotkeySettingsSection.h"

#include <QHBoxLayout>
#include <QVBoxLayout>

namespace korvane {

using LoginItemStatus = SettingsState::LoginItemStatus;

static constexpr int paneMargin = 24, cardGap = 16;

// SettingsPane

void SettingsPane::applyAppearance()
{
    for (Text *text : findChildren<Text *>())
        text->applyAppearance();
}

FlatButton *SettingsPane::button(const char *text, std::function<void()> pressed)
{
    return makeButton(parts.appearance, parts.icons, shownText(text), pressed);
}

FlatButton *SettingsPane::button(const char *text, void (SettingsState::*pressed)())
{
    return button(text, [this, pressed] { (parts.state.*pressed)(); });
}

LineField *SettingsPane::field(const char *name, Observed<std::string> SettingsState::*text, LineField::Kind kind)
{
    auto *made = new LineField(parts.appearance, shownText(name), kind);
    made->edited = [this, text](const std::string &typed) { parts.state.*text = typed; };
    return made;
}

Toggle *SettingsPane::toggle(const char *name, bool AppPreferences::*setting)
{
    auto *made = new Toggle(parts.appearance, shownText(name));
    connect(made, &QAbstractButton::clicked, this,
        [this, setting](bool on) { edit([&](AppPreferences &draft) { draft.*setting = on; }); });
    return made;
}

void SettingsPane::edit(const std::function<void(AppPreferences &)> &change)
{
    AppPreferences draft = parts.state.preferences;
    change(draft);
    parts.state.preferences = draft;
}

QVBoxLayout *SettingsPane::column()
{
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(paneMargin, paneMargin, paneMargin, paneMargin);
    column->setSpacing(cardGap);
    return column;
}

SettingsCard *SettingsPane::card(QVBoxLayout *column)
{
    auto *card = new SettingsCard(parts.appearance, SettingsCard::Tone::Plain, this);
    column->addWidget(card);
    return card;
}

// General

GeneralSettingsPane::GeneralSettingsPane(const PaneParts &parts) : SettingsPane(parts)
{
    QVBoxLayout *cards = column();
    buildLogin(*card(cards));
    hotkey = new HotkeySettingsSection(parts.state, parts.appearance, parts.icons, this);
    cards->addWidget(hotkey);

    SettingsCard *diagnostics = card(cards);
    diagnostics->addHeading(shownText(L10n::key("Diagnostics")));
    diagnostics->addNote(shownText(L10n::key("Diagnostics include versions, index status, hotkey registration, recent error "
                                             "categories and search timings. No clipboard content, file paths, search text or "
                                             "credentials are included.")));
    diagnostics->addButtons({button(L10n::key("Export Diagnostics…"), &SettingsState::exportDiagnostics)});

    buildQuicklinks(*card(cards));
    cards->addStretch();
}

void GeneralSettingsPane::buildLogin(SettingsCard &card)
{
    login = new Toggle(parts.appearance, shownText(L10n::key("Launch at Login")), &card);
    connect(login, &QAbstractButton::clicked, this, [this](bool on) {
        parts.state.setLogin(on);
        refresh(); // the switch turns once the system has agreed
    });
    card.column().addWidget(login);
    loginStatus = &card.addNote({});
    loginSettings = button(L10n::key("Open Login Items Settings"), &SettingsState::openLoginItemsSettings);
    card.addButtons({loginSettings});
    card.addNote(
        shownText(L10n::key("Korvane lives in the menu bar. Press the global shortcut to open or hide the command window.")));
}

void GeneralSettingsPane::buildQuicklinks(SettingsCard &card)
{
    card.addHeading(shownText(L10n::key("Quicklinks")));
    title = field(L10n::key("Name"), &SettingsState::quicklinkTitle);
    address = field(L10n::key("Address (https://… or a file path)"), &SettingsState::quicklinkURL);
    for (LineField *one : {title, address}) {
        one->submitted = [this] { parts.state.addQuicklink(); };
        card.column().addWidget(one);
    }
    card.addButtons({button(L10n::key("Add Quicklink"), &SettingsState::addQuicklink)});
    rows = new SettingsRows(parts.appearance, parts.icons, &card);
    rows->setContentsMargins(0, 8, 0, 0);
    card.column().addWidget(rows);
}

std::vector<SettingsRows::Row> GeneralSettingsPane::links() const
{
    std::vector<SettingsRows::Row> links;
    for (const Quicklink &link : parts.state.quicklinks.get())
        links.push_back({.key = link.id,
            .symbol = "link",
            .title = foreignLine(link.title),
            .subtitle = foreignLine(link.url),
            .actions = {
                {.text = {}, .symbol = "minus.circle", .name = shownText(L10n::key("Remove quicklink")), .run = [this, link] {
                     parts.state.removeQuicklink(link);
                 }}}});
    return links;
}

void GeneralSettingsPane::refresh()
{
    const SettingsState &state = parts.state;
    const LoginItemStatus status = state.loginStatus;
    login->setChecked(status == LoginItemStatus::enabled || status == LoginItemStatus::awaitingApproval);
    loginStatus->setText(shownText(SettingsState::sentence(status)));
    loginSettings->setVisible(status == LoginItemStatus::awaitingApproval || status == LoginItemStatus::failed);
    hotkey->refresh();
    title->show(state.quicklinkTitle);
    address->show(state.quicklinkURL);
    rows->show(links());
}

void GeneralSettingsPane::applyAppearance()
{
    SettingsPane::applyAppearance();
    hotkey->applyAppearance();
    rows->applyAppearance();
}

// File Index

FileIndexSettingsPane::FileIndexSettingsPane(const PaneParts &parts) : SettingsPane(parts)
{
    QVBoxLayout *cards = column();
    SettingsCard *folders = card(cards);
    rows = new SettingsRows(parts.appearance, parts.icons, folders);
    folders->column().addWidget(rows);
    folders->addButtons({button(L10n::key("Add Folder…"), &SettingsState::addIndexRoot),
        button(L10n::key("Rebuild Index"), [this] { this->parts.state.fileIndex().rebuild(); })});
    scanning = new Spinner(parts.appearance, 14, folders);
    status = new Text(parts.appearance, TypeSize::Small, Text::Tone::Secondary, QFont::Normal, folders);
    status->setWordWrap(true);
    auto *line = new QHBoxLayout;
    line->setSpacing(8);
    line->addWidget(scanning);
    line->addWidget(status, 1);
    folders->column().addLayout(line);
    problem = &folders->addText(Text::Tone::Warning, TypeSize::Small);

    SettingsCard *access = card(cards);
    access->addNote(shownText(L10n::key("Search results may include files Korvane cannot currently read. For Desktop, "
                                        "Documents and Downloads, review Files & Folders access. Cloud files must be "
                                        "available locally.")));
    access->addButtons({button(L10n::key("Open Files & Folders Settings"), &SettingsState::openFilePrivacySettings)});
    cards->addStretch();
}

std::vector<SettingsRows::Row> FileIndexSettingsPane::folders() const
{
    std::vector<SettingsRows::Row> folders;
    FileIndex &index = parts.state.fileIndex();
    for (const IndexRoot &root : index.roots().get())
        folders.push_back({.key = root.id,
            .symbol = "folder",
            .title = foreignLine(root.path),
            .subtitle = {},
            .actions = {{.text = {},
                .symbol = "minus.circle",
                .name = shownText(L10n::key("Remove folder")),
                .run = [&index, id = root.id] { index.removeRoot(id); }}}});
    return folders;
}

void FileIndexSettingsPane::refresh()
{
    const FileIndex &index = parts.state.fileIndex();
    rows->show(folders());
    scanning->setVisible(index.isScanning());
    status->setText(fromUtf8(index.statusText().get()));
    status->setVisible(!index.statusText()->empty());
    // Where the status says it already, once is enough.
    const std::string wrong = index.problem().value_or(std::string());
    problem->setText(fromUtf8(wrong));
    problem->setVisible(!wrong.empty() && wrong != index.statusText().get());
}

void FileIndexSettingsPane::applyAppearance()
{
    SettingsPane::applyAppearance();
    rows->applyAppearance();
}

// Clipboard

ClipboardSettingsPane::ClipboardSettingsPane(const PaneParts &parts) : SettingsPane(parts)
{
    QVBoxLayout *cards = column();
    SettingsCard *history = card(cards);
    enabled = toggle(L10n::key("Enable Clipboard History"), &AppPreferences::clipboardEnabled);
    history->column().addWidget(enabled);
    limit = new NumberField(parts.appearance, shownText(L10n::key("Maximum History Items (1–10,000)")), history);
    limit->edited = [this](int number) { edit([&](AppPreferences &draft) { draft.clipboardLimit = number; }); };
    history->column().addWidget(limit);
    history->addNote(shownText(L10n::key("Text and URLs stay on this Mac. Password-manager concealed and transient items are "
                                         "skipped. Unmarked sensitive text may still be captured; pause history when "
                                         "needed.")));
    history->addButtons({button(L10n::key("Clear Clipboard History…"), &SettingsState::clearClipboard)});
    cards->addStretch();
}

void ClipboardSettingsPane::refresh()
{
    enabled->setChecked(parts.state.preferences->clipboardEnabled);
    limit->show(parts.state.preferences->clipboardLimit);
    if (parts.state.saving)
        limit->write(); // what is saved is seen
}

// AI

AISettingsPane::AISettingsPane(const PaneParts &parts) : SettingsPane(parts)
{
    QVBoxLayout *cards = column();
    SettingsCard *provider = card(cards);
    auto *label = new Text(parts.appearance, TypeSize::Body, Text::Tone::Main, QFont::Normal, provider);
    label->setText(shownText(L10n::key("Provider")));
    auto *name = new Text(parts.appearance, TypeSize::Body, Text::Tone::Secondary, QFont::Normal, provider);
    name->setText(shownText(L10n::key("OpenAI · Responses API")));
    provider->addRow(label, name);
    provider->addNote(fromUtf8(parts.state.providerNote()));
    provider->column().addSpacing(4);
    model = new LineField(parts.appearance, shownText(L10n::key("Model")), LineField::Kind::Plain, provider);
    model->edited = [this](const std::string &typed) { edit([&](AppPreferences &draft) { draft.model = typed; }); };
    provider->column().addWidget(model);
    key = field(L10n::key("API Key (leave blank to keep saved key)"), &SettingsState::apiKey, LineField::Kind::Secret);
    provider->column().addWidget(key);
    provider->addButtons({button(L10n::key("Remove Saved API Key"), &SettingsState::removeKey)});

    SettingsCard *consent = card(cards);
    enabled = toggle(L10n::key("Enable AI Requests"), &AppPreferences::aiEnabled);
    consent->column().addWidget(enabled);
    consent->addNote(shownText(
        L10n::key("Ask AI sends your request and selected tool results to OpenAI. Clipboard reads require a separate approval "
                  "before content is sent. Search and clipboard history otherwise remain local.")));
    confirms = toggle(L10n::key("Confirm AI Write Operations"), &AppPreferences::confirmToolWrites);
    consent->column().addWidget(confirms);
    consent->addNote(shownText(L10n::key("Destructive and remote MCP tools always require approval.")));
    cards->addStretch();
}

void AISettingsPane::refresh()
{
    const AppPreferences &draft = parts.state.preferences;
    model->show(draft.model);
    key->show(parts.state.apiKey);
    enabled->setChecked(draft.aiEnabled);
    confirms->setChecked(draft.confirmToolWrites);
}

// MCP

MCPSettingsPane::MCPSettingsPane(const PaneParts &parts) : SettingsPane(parts)
{
    constexpr int jsonLines = 8;
    QVBoxLayout *cards = column();
    list = card(cards);
    rows = new SettingsRows(parts.appearance, parts.icons, list);
    list->column().addWidget(rows);

    SettingsCard *server = card(cards);
    const QString heading = shownText(L10n::key("Add a stdio server"));
    server->addHeading(heading);
    json = new TextEditor(parts.appearance, heading, TextEditor::Letters::Code, jsonLines, server);
    json->edited = [this](const std::string &typed) { this->parts.state.serverJSON = typed; };
    server->column().addWidget(json);
    server->addButtons({button(L10n::key("Add Server"), &SettingsState::addServer)});

    SettingsCard *credential = card(cards);
    credential->addHeading(shownText(L10n::key("MCP Credential · Keychain")));
    account = field(L10n::key("Account reference"), &SettingsState::credentialAccount);
    secret = field(L10n::key("Secret"), &SettingsState::credentialValue, LineField::Kind::Secret);
    auto *fields = new QHBoxLayout;
    fields->setSpacing(16);
    for (LineField *one : {account, secret}) {
        one->submitted = [this] { this->parts.state.saveCredential(); };
        fields->addWidget(one, 1);
    }
    credential->column().addLayout(fields);
    credential->addNote(shownText(L10n::key("Use secretEnvironment: {\"ENV_KEY\": \"account-reference\"}. Never put secrets in "
                                            "args or JSON environment values.")));
    credential->addButtons({button(L10n::key("Save Credential"), &SettingsState::saveCredential)});
    cards->addStretch();
}

std::vector<SettingsRows::Row> MCPSettingsPane::servers() const
{
    SettingsState &state = parts.state;
    const auto &status = state.mcp().status();
    std::vector<SettingsRows::Row> servers;
    for (const MCPServerConfiguration &server : state.mcp().configurations()) {
        const auto known = status.find(server.id);
        const SettingsRows::Action actions[] = {{.text = shownText(L10n::key("Connect")),
                                                    .symbol = {},
                                                    .name = {},
                                                    .run = [&state, server] { state.connect(server); }},
            {.text = shownText(L10n::key("Disconnect")),
                .symbol = {},
                .name = {},
                .run = [&state, server] { state.disconnect(server); }},
            {.text = {}, .symbol = "minus.circle", .name = shownText(L10n::key("Remove server")), .run = [&state, server] {
                 state.removeServer(server);
             }}};
        servers.push_back({.key = server.id,
            .symbol = "point.3.connected.trianglepath.dotted",
            .title = foreignLine(server.name),
            .subtitle = shownText(known == status.end() ? L10n::key("Disconnected") : known->second),
            .actions = {std::begin(actions), std::end(actions)}});
    }
    return servers;
}

void MCPSettingsPane::refresh()
{
    const SettingsState &state = parts.state;
    rows->show(servers());
    list->setVisible(!parts.state.mcp().configurations().empty());
    json->show(state.serverJSON);
    account->show(state.credentialAccount);
    secret->show(state.credentialValue);
}

void MCPSettingsPane::applyAppearance()
{
    SettingsPane::applyAppearance();
    rows->applyAppearance();
}

} // namespace korvane
