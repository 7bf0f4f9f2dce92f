#include "Vorrel/Views/QtPasteboard.h"

#include "Support/Text.h"
#include "Vorrel/Views/ViewText.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>

#include <memory>

namespace korvane {

Task<bool> QtPasteboard::setText(std::string text)
{
    QClipboard &clipboard = *QGuiApplication::clipboard();
    if (displayable(text) == text) {
        clipboard.setText(fromUtf8(text));
    } else { // the toolkit's own texts would lose the bytes
        auto bytes = std::make_unique<QMimeData>();
        bytes->setData(QStringLiteral("text/plain"), QByteArray::fromStdString(text));
        clipboard.setMimeData(bytes.release());
    }
    co_return clipboard.ownsClipboard();
}

} // namespace korvane
