#pragma once

#include "Vorrel/AI/AgentStore.h"
#include "Vorrel/Views/SettingsPanes.h"

#include <map>

class QScrollArea;

namespace korvane {

class AgentList;
class SkillRow;

/// Switches for a list of names, made anew when the names have changed; the keyboard stays at the same place among them.
class ToggleList : public QWidget {
public:
    explicit ToggleList(Appearance &appearance, QWidget *parent = nullptr);
    /// `chosen` are on.
    void show(const std::vector<std::string> &names, const std::vector<std::string> &chosen);

    std::function<void(const std::string &name, bool on)> turned = [](const std::string &, bool) {};

private:
    Appearance &appearance;
    std::vector<std::string> names;
    std::vector<Toggle *> toggles;
};

/// The page of the Agents: a list of them beside an editor of the one that is being edited. Reading the Agents anew changes
/// the list and never the editor; edits of an Agent that was left for another one are there again when it is chosen again, as
/// long as the program runs.
class AgentSettingsView : public SettingsPane {
    Q_OBJECT

public:
    /// Both outlive the view.
    AgentSettingsView(const PaneParts &parts, AgentStore &store);
    ~AgentSettingsView() override;

    void refresh() override;
    /// Reads the Agents anew.
    void opened() override;
    void applyAppearance() override;
    bool scrolls() const override { return false; }

    AgentList &list() const { return *_list; }

private:
    QWidget *buildList();
    QWidget *buildEditor();
    void buildSkills(QVBoxLayout &column);
    QWidget *buildFoot();
    LineField *draftField(const char *name, std::string Agent::*text);
    Text *heading(const char *text, QWidget *parent);

    Task<void> load();
    void edit(const std::function<void(Agent &)> &change);
    void choose(const std::string &id);
    void makeNew();
    /// Keeps the edits of the present draft, which makes room for another one.
    void leaveDraft();
    const Agent *stored(const std::string &id) const;
    bool changed(const Agent &draft) const;
    void refreshList();
    void refreshSkills();
    /// Shows these skills, each with whether it was not found.
    void arrangeSkills(const std::vector<std::pair<Skill, bool>> &wanted);
    SkillRow *makeSkill(const Skill &skill, bool unverified);

    AgentStore &store;
    std::map<std::string, Agent> left; ///< Drafts with edits that were left for another one.
    AgentList *_list;
    QScrollArea *editor;
    LineField *name, *model;
    TextEditor *prompt;
    ToggleList *tools;
    QWidget *skillRows;
    std::vector<SkillRow *> skills;
    Text *warnings, *message;
    FlatButton *scan, *save;
    TaskHandle loading;
};

} // namespace korvane
