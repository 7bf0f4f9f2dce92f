#include "Vorrel/Views/AgentSettingsView.h"

#include "CommandCore/Commands.h"
#include "Vorrel/Shell/L10n.h"
#include "Vorrel/Views/AgentList.h"

#include <QHBoxLayout>
#include <QPainter>
#include <QScrollArea>
#include <QScrollBar>
#include <QVBoxLayout>

#include <algorithm>

namespace korvane {

static constexpr int viewMargin = 24, listWidth = 192;
static constexpr int promptLines = 6, instructionLines = 9;

namespace {

/// Adds a value to a list or takes it out; the order of the others stays.
void put(std::vector<std::string> &list, const std::string &value, bool in)
{
    std::erase(list, value);
    if (in)
        list.push_back(value);
}

bool holds(const std::vector<std::string> &list, const std::string &value)
{
    return std::ranges::find(list, value) != list.end();
}

/// A line between two parts of the page.
class Rule : public QWidget {
public:
    Rule(Appearance &appearance, Qt::Orientation orientation, QWidget *parent) : QWidget(parent), appearance(appearance)
    {
        orientation == Qt::Horizontal ? setFixedHeight(1) : setFixedWidth(1);
    }

protected:
    void paintEvent(QPaintEvent *) override { QPainter(this).fillRect(rect(), appearance.theme().separator); }

private:
    Appearance &appearance;
};

} // namespace

// ToggleList

ToggleList::ToggleList(Appearance &appearance, QWidget *parent) : QWidget(parent), appearance(appearance)
{
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(4);
}

void ToggleList::show(const std::vector<std::string> &next, const std::vector<std::string> &chosen)
{
    if (next != names) {
        names = next;
        const auto focused = std::ranges::find_if(toggles, [](const Toggle *toggle) { return toggle->hasFocus(); });
        const auto place = std::size_t(focused - toggles.begin());
        const auto old = std::exchange(toggles, {});
        for (const std::string &name : names) {
            auto *toggle = new Toggle(appearance, foreignLine(name), this);
            connect(toggle, &QAbstractButton::clicked, this, [this, name](bool on) { turned(name, on); });
            layout()->addWidget(toggle);
            toggles.push_back(toggle);
        }
        if (place < old.size() && !toggles.empty())
            toggles[std::min(place, toggles.size() - 1)]->setFocus(Qt::OtherFocusReason);
        for (Toggle *toggle : old) {
            toggle->hide();
            toggle->deleteLater();
        }
    }
    for (std::size_t i = 0; i < toggles.size(); i++)
        toggles[i]->setChecked(holds(chosen, names[i]));
}

// SkillRow

/// A skill that an Agent may be given, with its instructions to be read before that.
class SkillRow : public QWidget {
public:
    /// `unverified` stands for a path that is stored and was not found.
    SkillRow(const PaneParts &parts, const Skill &skill, bool unverified, QWidget *parent) :
        QWidget(parent), skill(skill), unverified(unverified)
    {
        toggle = new Toggle(parts.appearance, foreignLine(unverified ? skill.path : skill.name), this);
        auto *about = new Text(parts.appearance, TypeSize::Small, Text::Tone::Secondary, QFont::Normal, this);
        about->setText(unverified ? shownText(L10n::key("Scan to verify this skill.")) : foreignLine(skill.description));
        about->setWordWrap(true);
        auto *column = new QVBoxLayout(this);
        column->setContentsMargins(0, 0, 0, 8);
        column->setSpacing(2);
        column->addWidget(toggle);
        column->addWidget(about);
        toggle->setAccessibleDescription(about->text());
        if (unverified)
            return;
        auto *path = new ElidedText(parts.appearance, TypeSize::Caption, Text::Tone::Secondary, this);
        path->setText(foreignLine(skill.path));
        column->addWidget(path);
        addInstructions(parts, *column);
    }

    bool shows(const Skill &other, bool otherUnverified) const { return skill == other && unverified == otherUnverified; }

    Toggle *toggle;

private:
    void addInstructions(const PaneParts &parts, QVBoxLayout &column)
    {
        const QString title = shownText(L10n::key("Review instructions"));
        disclosure = makeButton(
            parts.appearance, parts.icons, title, [this] { turn(); }, FlatButton::Style::Quiet);
        disclosure->setCheckable(true);
        disclosure->setSymbol("chevron.right");
        disclosure->setAccessibleDescription(toggle->name());
        column.addWidget(disclosure);
        // Most are never read: made when one is.
        make = [this, &appearance = parts.appearance, &column, title] {
            instructions = new TextEditor(appearance, title, TextEditor::Letters::Code, instructionLines, this);
            instructions->editor().setReadOnly(true);
            instructions->editor().setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
            instructions->editor().setPlainText(foreignText(skill.instructions));
            column.addWidget(instructions);
        };
    }

    void turn()
    {
        if (!instructions)
            make();
        instructions->setVisible(disclosure->isChecked());
        disclosure->setSymbol(disclosure->isChecked() ? "chevron.down" : "chevron.right");
    }

    const Skill skill;
    const bool unverified;
    FlatButton *disclosure = nullptr;
    TextEditor *instructions = nullptr;
    std::function<void()> make;
};

// The page

AgentSettingsView::AgentSettingsView(const PaneParts &parts, AgentStore &store) : SettingsPane(parts), store(store)
{
    auto *columns = new QHBoxLayout;
    columns->setSpacing(0);
    columns->addWidget(buildList());
    columns->addWidget(new Rule(parts.appearance, Qt::Vertical, this));
    columns->addWidget(buildEditor(), 1);
    auto *rows = new QVBoxLayout(this);
    rows->setContentsMargins(0, 0, 0, 0);
    rows->setSpacing(0);
    rows->addLayout(columns, 1);
    rows->addWidget(new Rule(parts.appearance, Qt::Horizontal, this));
    rows->addWidget(buildFoot());
    applyAppearance();
}

AgentSettingsView::~AgentSettingsView() = default;

Text *AgentSettingsView::heading(const char *text, QWidget *parent)
{
    auto *heading = new Text(parts.appearance, TypeSize::Title, Text::Tone::Main, QFont::DemiBold, parent);
    heading->setText(shownText(text));
    heading->setWordWrap(true);
    return heading;
}

QWidget *AgentSettingsView::buildList()
{
    auto *whole = new QWidget(this);
    whole->setFixedWidth(listWidth);
    _list = new AgentList(parts.appearance, parts.icons, whole);
    _list->chosen = [this](const std::string &id) { choose(id); };
    FlatButton *make = makeButton(parts.appearance, parts.icons, shownText(L10n::key("New Agent")), [this] { makeNew(); });
    make->setSymbol("plus");
    auto *column = new QVBoxLayout(whole);
    column->setContentsMargins(viewMargin, 16, 8, 16);
    column->setSpacing(8);
    column->addWidget(heading(L10n::key("Agents"), whole));
    column->addWidget(_list, 1);
    column->addWidget(make);
    return whole;
}

LineField *AgentSettingsView::draftField(const char *name, std::string Agent::*text)
{
    auto *made = new LineField(parts.appearance, shownText(name), LineField::Kind::Plain);
    made->edited = [this, text](const std::string &typed) { edit([&](Agent &draft) { draft.*text = typed; }); };
    return made;
}

QWidget *AgentSettingsView::buildEditor()
{
    auto *page = new QWidget;
    auto *column = new QVBoxLayout(page);
    column->setContentsMargins(16, 16, viewMargin, 16);
    column->setSpacing(8);
    name = draftField(L10n::key("Agent name"), &Agent::name);
    model = draftField(L10n::key("Model identifier"), &Agent::model);
    const QString promptName = shownText(L10n::key("System prompt"));
    auto *promptLabel = new Text(parts.appearance, TypeSize::Small, Text::Tone::Secondary, QFont::Normal, page);
    promptLabel->setText(promptName);
    prompt = new TextEditor(parts.appearance, promptName, TextEditor::Letters::Reading, promptLines, page);
    prompt->edited = [this](const std::string &typed) { edit([&](Agent &draft) { draft.systemPrompt = typed; }); };
    column->addWidget(name);
    column->addWidget(model);
    column->addWidget(promptLabel);
    column->addSpacing(-4);
    column->addWidget(prompt);
    column->addSpacing(8);

    column->addWidget(heading(L10n::key("Allowed Tools · none selected means no tools"), page));
    tools = new ToggleList(parts.appearance, page);
    tools->turned = [this](const std::string &tool, bool on) { edit([&](Agent &draft) { put(draft.tools, tool, on); }); };
    column->addWidget(tools);
    column->addSpacing(8);
    buildSkills(*column);
    column->addStretch();

    editor = makeScrollArea(page, parts.appearance);
    return editor;
}

void AgentSettingsView::buildSkills(QVBoxLayout &column)
{
    QWidget *page = column.parentWidget();
    column.addWidget(heading(L10n::key("Skills"), page));
    auto *note = new Text(parts.appearance, TypeSize::Small, Text::Tone::Secondary, QFont::Normal, page);
    note->setWordWrap(true);
    note->setText(shownText(
        L10n::key("Reads ~/.config/korvane/skills, ~/.claude/skills and ~/.config/agents/skills. Selected instructions are sent "
                  "to the AI provider. Review and trust them before selecting.")));
    column.addWidget(note);
    skillRows = new QWidget(page);
    auto *rows = new QVBoxLayout(skillRows);
    rows->setContentsMargins(0, 0, 0, 0);
    rows->setSpacing(4);
    column.addWidget(skillRows);
    warnings = new Text(parts.appearance, TypeSize::Small, Text::Tone::Warning, QFont::Normal, page);
    warnings->setWordWrap(true);
    column.addWidget(warnings);
    scan = makeButton(parts.appearance, parts.icons, shownText(L10n::key("Scan Skills")), [this] { store.scanSkills(); });
    column.addWidget(scan);
}

QWidget *AgentSettingsView::buildFoot()
{
    auto *foot = new QWidget(this);
    message = new Text(parts.appearance, TypeSize::Small, Text::Tone::Main, QFont::Normal, foot);
    message->setWordWrap(true);
    auto *standing = new Text(parts.appearance, TypeSize::Small, Text::Tone::Secondary, QFont::Normal, foot);
    standing->setWordWrap(true);
    standing->setText(shownText(L10n::key("Agent changes use Save Agent. API keys and AI enablement remain in the AI tab.")));
    save = makeButton(parts.appearance, parts.icons, shownText(L10n::key("Save Agent")), [this] { store.save(); });
    auto *lines = new QVBoxLayout;
    lines->setSpacing(4);
    lines->addWidget(message);
    lines->addWidget(standing);
    auto *row = new QHBoxLayout(foot);
    row->setContentsMargins(viewMargin, 12, viewMargin, 12);
    row->setSpacing(16);
    row->addLayout(lines, 1);
    row->addWidget(save);
    return foot;
}

// Drafts

void AgentSettingsView::edit(const std::function<void(Agent &)> &change)
{
    Agent draft = store.draft;
    change(draft);
    store.draft = draft;
}

const Agent *AgentSettingsView::stored(const std::string &id) const
{
    const auto &all = store.agents();
    const auto found = std::ranges::find(all, id, &Agent::id);
    return found == all.end() ? nullptr : &*found;
}

bool AgentSettingsView::changed(const Agent &draft) const
{
    const Agent *before = stored(draft.id);
    return draft != (before ? *before : Agent{.id = draft.id, .name = L10n::text("New Agent")});
}

void AgentSettingsView::leaveDraft()
{
    const Agent &draft = store.draft;
    left.erase(draft.id);
    if (changed(draft))
        left.emplace(draft.id, draft);
}

void AgentSettingsView::choose(const std::string &id)
{
    if (store.draft->id == id)
        return;
    leaveDraft();
    const auto kept = left.find(id);
    const Agent *known = kept != left.end() ? &kept->second : stored(id);
    if (!known)
        return;
    store.draft = *known;
    store.message = std::nullopt;
    editor->verticalScrollBar()->setValue(0);
}

void AgentSettingsView::makeNew()
{
    leaveDraft();
    store.newAgent();
    editor->verticalScrollBar()->setValue(0);
    refresh();
    name->line().setFocus(Qt::OtherFocusReason);
    name->line().selectAll();
}

void AgentSettingsView::opened() { loading = spawn(parts.mainThread, load()); }

Task<void> AgentSettingsView::load()
{
    try {
        co_await store.load();
    } catch (const Cancelled &) {
        throw;
    } catch (...) {
        store.message = AppError::friendly(std::current_exception());
    }
}

// Showing

void AgentSettingsView::refreshList()
{
    const Agent &draft = store.draft;
    std::vector<AgentList::Entry> entries;
    const auto add = [&](const Agent &agent) {
        const bool unsaved = agent.id == draft.id ? changed(draft) : left.contains(agent.id);
        entries.push_back({.id = agent.id, .icon = agent.icon, .name = foreignLine(agent.name), .unsaved = unsaved});
    };
    for (const Agent &agent : store.agents())
        add(agent);
    std::ranges::sort(entries, [](const AgentList::Entry &one, const AgentList::Entry &other) {
        const int order = QString::localeAwareCompare(one.name, other.name);
        return order != 0 ? order < 0 : one.id < other.id;
    });
    for (const auto &[id, agent] : left)
        if (id != draft.id && !stored(id))
            add(agent);
    if (!stored(draft.id))
        add(draft);
    _list->show(std::move(entries), draft.id);
}

void AgentSettingsView::arrangeSkills(const std::vector<std::pair<Skill, bool>> &wanted)
{
    const auto showsIt = [](const SkillRow *row, const auto &skill) { return row->shows(skill.first, skill.second); };
    std::erase_if(skills, [&](SkillRow *row) {
        const bool stays = std::ranges::any_of(wanted, [&](const auto &skill) { return showsIt(row, skill); });
        if (!stays) {
            row->hide(); // while it has its place, so that the keyboard goes to the next one
            row->deleteLater();
        }
        return !stays;
    });
    // A row that stays is left as it is, with the keyboard and with instructions that are being read.
    std::vector<SkillRow *> arranged;
    for (const auto &skill : wanted) {
        const auto kept = std::ranges::find_if(skills, [&](const SkillRow *row) { return showsIt(row, skill); });
        SkillRow *row = kept != skills.end() ? *kept : makeSkill(skill.first, skill.second);
        skillRows->layout()->addWidget(row); // as the last one
        row->raise(); // for the order of the keyboard
        arranged.push_back(row);
    }
    skills = std::move(arranged);
}

SkillRow *AgentSettingsView::makeSkill(const Skill &skill, bool unverified)
{
    auto *row = new SkillRow(parts, skill, unverified, skillRows);
    connect(row->toggle, &QAbstractButton::clicked, this,
        [this, path = skill.path](bool on) { edit([&](Agent &draft) { put(draft.skills, path, on); }); });
    return row;
}

void AgentSettingsView::refreshSkills()
{
    const std::vector<Skill> &found = store.skills;
    std::vector<std::pair<Skill, bool>> wanted; // with whether it was not found
    for (const Skill &skill : found)
        wanted.emplace_back(skill, false);
    for (const std::string &path : store.draft->skills)
        if (std::ranges::find(found, path, &Skill::path) == found.end())
            wanted.emplace_back(Skill{.name = {}, .description = {}, .instructions = {}, .path = path}, true);

    const bool same = std::ranges::equal(
        skills, wanted, [](const SkillRow *row, const auto &skill) { return row->shows(skill.first, skill.second); });
    if (!same)
        arrangeSkills(wanted);
    for (std::size_t i = 0; i < skills.size(); i++)
        skills[i]->toggle->setChecked(holds(store.draft->skills, wanted[i].first.path));
    skillRows->setVisible(!skills.empty());
}

void AgentSettingsView::refresh()
{
    const Agent &draft = store.draft;
    refreshList();
    name->show(draft.name);
    model->show(draft.model);
    prompt->show(draft.systemPrompt);

    std::vector<std::string> names;
    for (const ToolDefinition &tool : store.tools().definitions())
        names.push_back(tool.name);
    // What is not offered any more can still be taken out.
    for (const std::string &tool : draft.tools)
        if (!holds(names, tool))
            names.push_back(tool);
    tools->show(names, draft.tools);
    refreshSkills();

    QStringList lines;
    for (const std::string &warning : store.warnings.get())
        lines += foreignLine(warning);
    warnings->setText(lines.join(u'\n'));
    warnings->setVisible(!lines.isEmpty());

    const QString said = store.message->has_value() ? shownText(store.message->value()) : QString();
    message->setText(said);
    message->setVisible(!said.isEmpty());
    scan->setEnabled(!store.working);
    save->setEnabled(!store.working);
}

void AgentSettingsView::applyAppearance()
{
    SettingsPane::applyAppearance();
    _list->applyAppearance();
}

} // namespace korvane
