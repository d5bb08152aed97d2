#include "qt_system_clipboard.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>

namespace tellwyn {

QtSystemClipboard::QtSystemClipboard(QObject* parent) : QObject(parent) {
    if (hasSystemClipboard()) {
        connect(QGuiApplication::clipboard(), &QClipboard::dataChanged, this, [this] { ++m_changeCount; });
    }
}

bool QtSystemClipboard::hasSystemClipboard() const {
    return qobject_cast<QGuiApplication*>(QCoreApplication::instance()) != nullptr;
}

std::optional<QString> QtSystemClipboard::string() const {
    if (!hasSystemClipboard()) {
        return m_localText;
    }
    const QMimeData* data = QGuiApplication::clipboard()->mimeData(QClipboard::Clipboard);
    if (data == nullptr || !data->hasText()) {
        return std::nullopt;
    }
    return data->text();
}

void QtSystemClipboard::setString(const QString& text) {
    if (!hasSystemClipboard()) {
        m_localText = text;
        ++m_changeCount;
        return;
    }
    // dataChanged follows and moves the counter.
    QGuiApplication::clipboard()->setText(text, QClipboard::Clipboard);
}

} // namespace tellwyn
