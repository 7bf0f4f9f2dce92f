#pragma once

#include "CommandCore/FileSearchQuery.h"
#include "Vorrel/Views/FlatMenu.h"

namespace korvane {

/// Kind, order and folder of a search for files, as the text in the field says them; choosing one rewrites that text.
class FileFilters : public QWidget {
    Q_OBJECT

public:
    FileFilters(Appearance &appearance, IconStore &icons, PaletteState &state, QWidget *parent = nullptr);
    /// Shows what the query says. While it cannot be read the values before stay.
    void refresh();

    Picker &type() { return *_type; }
    Picker &sort() { return *_sort; }
    Picker &folder() { return *_folder; }

protected:
    void resizeEvent(QResizeEvent *event) override;

private:
    void showFolder();
    void fitHint(); ///< Gives way to the controls where letters are large.

    PaletteState &state;
    Appearance &appearance;
    FileSearchQuery shown; ///< The last one that could be read.
    std::optional<std::string> readText; ///< What it was read from.
    Picker *_type, *_sort, *_folder;
    HintLine *hint;
};

} // namespace korvane
