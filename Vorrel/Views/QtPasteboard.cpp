#include "Vorrel/Views/QtPasteboard.h"

#include "Vorrel/Views/ViewText.h"

#include <QClipboard>
#include <QGuiApplication>

namespace korvane {

Task<bool> QtPasteboard::setText(std::string text)
{
    QClipboard &clipboard = *QGuiApplication::clipboard();
    clipboard.setText(fromUtf8(text));
    co_return clipboard.ownsClipboard();
}

} // namespace korvane
