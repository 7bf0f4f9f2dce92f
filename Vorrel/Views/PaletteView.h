#pragma once

#include "Vorrel/Views/ResultPreviewView.h"

#include <QStackedLayout>

namespace korvane {

class PaletteInput;
class PaletteSearchField;

/// The palette's contents: shows a `PaletteState` and calls its operations. However many of its properties
/// change in one turn of the event loop, it is brought up to date once. Main thread only.
class PaletteView : public QWidget {
    Q_OBJECT

public:
    /// All three outlive the view.
    PaletteView(PaletteState &state, Appearance &appearance, IconStore &icons, QWidget *parent = nullptr);
    ~PaletteView() override;

    PaletteSearchField &field();
    /// Shows the present state at once, laid out for painting.
    void refresh();
    /// How often the view has been brought up to date.
    int refreshes() const { return _refreshes; }

    /// Told at each refresh while a row of a file is selected.
    std::function<void()> fileSelected = [] {};

    ResultList &resultList() { return *results; }

protected:
    bool event(QEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;

private:
    void refreshSoon();
    void refreshMiddle();
    /// Scrolls the text in the middle, or selects a row further on.
    void turnPage(QAbstractSlider::SliderAction action);
    void applyAppearance();
    QString placeholder() const;
    /// Shows a page in the middle, made at its first use.
    template <class Page, class... Arguments> Page &page(Page *&kept, Arguments &&...arguments);
    class AssistantView;

    PaletteState &state;
    Appearance &appearance;
    IconStore &icons;
    std::vector<Subscription> subscriptions;
    bool refreshPending = false;
    int _refreshes = 0;

    PaletteInput *input;
    NestedHeader *header;
    SearchFilterBar *filters;
    ShortcutsBar *shortcuts;
    Text *checking;
    ErrorArea *errors;
    QStackedLayout *middle;
    ResultList *results;
    PaletteFooter *footer;
    // Pages that many sessions never show
    ActionsList *actionsPage = nullptr;
    ResultPreviewView *previewPage = nullptr;
    AssistantView *assistantPage = nullptr;
    ProgressView *progressPage = nullptr;
    EmptyState *emptyPage = nullptr;
};

} // namespace korvane
