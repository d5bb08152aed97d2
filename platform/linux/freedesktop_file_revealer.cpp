#include "freedesktop_file_revealer.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDesktopServices>
#include <QFileInfo>

using namespace Qt::StringLiterals;

namespace tellwyn {

FreedesktopFileRevealer::FreedesktopFileRevealer(QObject* parent)
    : FreedesktopFileRevealer(
          QDBusConnection::sessionBus(), [](const QUrl& folder) { QDesktopServices::openUrl(folder); },
          parent) {
}

FreedesktopFileRevealer::FreedesktopFileRevealer(QDBusConnection bus, OpenFolder openFolder, QObject* parent)
    : QObject(parent), m_bus(std::move(bus)), m_openFolder(std::move(openFolder)) {
}

void FreedesktopFileRevealer::reveal(const QString& filePath) {
    const QUrl folder = QUrl::fromLocalFile(QFileInfo(filePath).absolutePath());
    if (!m_bus.isConnected()) {
        m_openFolder(folder);
        return;
    }
    QDBusMessage call =
        QDBusMessage::createMethodCall(u"org.freedesktop.FileManager1"_s, u"/org/freedesktop/FileManager1"_s,
                                       u"org.freedesktop.FileManager1"_s, u"ShowItems"_s);
    call << QStringList{QUrl::fromLocalFile(QFileInfo(filePath).absoluteFilePath())
                            .toString(QUrl::FullyEncoded)}
         << QString();
    // Without a file manager on the bus the call fails at once (no activatable service); a hung one
    // is given the bus's usual time.
    auto* watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher, folder] {
        watcher->deleteLater();
        if (watcher->isError()) {
            m_openFolder(folder);
        }
    });
}

} // namespace tellwyn
