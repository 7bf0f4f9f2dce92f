#include "Vorrel/Views/FileFilters.h"

#include "CommandCore/IndexedFile.h"
#include "Vorrel/Shell/L10n.h"

#include <QFontMetrics>
#include <QHBoxLayout>

#include <algorithm>

namespace korvane {

static constexpr int widestFolder = 72; // of a folder's name

FileFilters::FileFilters(Appearance &appearance, IconStore &icons, PaletteState &state, QWidget *parent) :
    QWidget(parent), state(state), appearance(appearance),
    _type(new Picker(appearance, icons, fromUtf8(L10n::shown("Type")), this)),
    _sort(new Picker(appearance, icons, fromUtf8(L10n::shown("Sort")), this)), _folder(new Picker(appearance, icons, {}, this)),
    hint(new HintLine(appearance, this))
{
    for (const FileKind kind : allFileKinds)
        _type->addEntry(shownText(rawValue(kind)), [&state, kind] { state.setFileKind(kind); });
    for (const std::string_view sort : fileSorts)
        _sort->addEntry(shownText(sort), [&state, sort] { state.setFileSort(std::string(sort)); });
    _folder->setSymbol("folder");
    _folder->addEntry(fromUtf8(L10n::shown("All Folders")), [&state] { state.resetFileDirectory(); });
    auto *choose = new FlatButton(appearance, icons, FlatButton::Style::Filled, this);
    choose->setText(fromUtf8(L10n::shown("Choose Folder…")));
    connect(choose, &QAbstractButton::clicked, this, [&state] { state.chooseFileDirectory(); });
    hint->setObjectName(QStringLiteral("hint"));
    hint->setLine(fromUtf8(L10n::shown("↵ Open · esc Back")));

    auto *line = new QHBoxLayout(this);
    line->setContentsMargins(Metrics::margin - 8, 4, Metrics::margin - 8, 4);
    line->setSpacing(4);
    for (QWidget *one : std::initializer_list<QWidget *>{_type, _sort, _folder, choose})
        line->addWidget(one);
    line->addStretch();
    line->addWidget(hint); // below one another with that of the footer
    refresh();
}

void FileFilters::refresh()
{
    if (readText != state.query()) {
        readText = state.query();
        try {
            shown = FileSearchQuery(state.query());
        } catch (const AppError &) {
            // Half a filter, still being typed.
        }
    }
    _type->show(int(std::ranges::find(allFileKinds, shown.kind) - allFileKinds.begin()));
    _sort->show(int(std::ranges::find(fileSorts, shown.sort) - fileSorts.begin()));
    showFolder();
    fitHint();
}

void FileFilters::showFolder()
{
    if (shown.pathTerms.empty()) {
        _folder->setToolTip({});
        return _folder->show(0);
    }
    const QString path = fromUtf8(shown.pathTerms.front());
    const QString name = fromUtf8(lastPathComponent(shown.pathTerms.front()));
    const QFontMetrics metrics(appearance.font(TypeSize::Small, QFont::Medium));
    _folder->setToolTip(path);
    _folder->show(-1, metrics.elidedText(name.isEmpty() ? path : name, Qt::ElideMiddle, widestFolder));
}

void FileFilters::fitHint()
{
    const int hidden = hint->isHidden() ? hint->sizeHint().width() + layout()->spacing() : 0;
    hint->setVisible(layout()->sizeHint().width() + hidden <= width());
}

void FileFilters::resizeEvent(QResizeEvent *) { fitHint(); }

} // namespace korvane
