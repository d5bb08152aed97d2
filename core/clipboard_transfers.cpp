// Clipboard sharing and file-transfer policy.

#include "server_manager.h"

#include "clock.h"

#include <QDir>
#include <QPointer>
#include <QStandardPaths>

using namespace Qt::StringLiterals;

namespace tellwyn {

QString ServerManager::fileTransferDirectory() const {
    // The download folder follows the XDG user-dirs setting; with none, the home folder serves.
    QString downloads = QStandardPaths::writableLocation(QStandardPaths::DownloadLocation);
    if (downloads.isEmpty()) {
        downloads = QDir::homePath();
    }
    return QDir(downloads).filePath(u"Tellwyn"_s);
}

void ServerManager::installTransferCallbacks(HLVPServerClient& client, const QString& key) {
    const QPointer<ServerManager> weak(this);
    client.setOnFileTransferActivity([weak, key] {
        QMetaObject::invokeMethod(
            weak,
            [weak, key] {
                if (weak) {
                    weak->m_lastClientActivity.insert(key, weak->m_environment.clock.now());
                }
            },
            Qt::QueuedConnection);
    });
    client.setOnClipboardReceived([weak, key](const QString& text) {
        QMetaObject::invokeMethod(
            weak,
            [weak, key, text] {
                if (weak) {
                    weak->handleClipboardSnapshot(text, key);
                }
            },
            Qt::QueuedConnection);
    });
}

// Clipboard texts from viewers are applied with the clipboard monitor, which comes with clipboard
// sharing; the library delivers none before then.
void ServerManager::handleClipboardSnapshot(const QString&, const QString&) {}

// The clipboard monitor comes with clipboard sharing; until then it never runs.
void ServerManager::updateClipboardMonitor() {}

} // namespace tellwyn
