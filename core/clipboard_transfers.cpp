// Clipboard sharing and file-transfer policy: which connections share the clipboard and receive
// files, where files go, when the machine's clipboard is watched and what is sent to whom.

#include "clock.h"
#include "preferences.h"
#include "server_log_manager.h"
#include "server_manager.h"
#include "system_clipboard.h"

#include <QDir>
#include <QPointer>
#include <QStandardPaths>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {
constexpr auto clipboardPollInterval = std::chrono::milliseconds(1500);
}

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
    client.setOnViewerActivity([weak, key] {
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

void ServerManager::updateClipboardMonitor() {
    const bool mustRun = m_serverState.isRunning && m_settingsState.enableClipboardSharing &&
                         !m_serverState.authenticatedClients.isEmpty();
    if (mustRun && !m_clipboardMonitorTimer) {
        const QPointer<ServerManager> weak(this);
        m_clipboardMonitorTimer = m_environment.scheduler.repeating(clipboardPollInterval, this, [weak] {
            QMetaObject::invokeMethod(
                weak,
                [weak] {
                    if (weak) {
                        weak->pollClipboard();
                    }
                },
                Qt::QueuedConnection);
        });
        log(u"Clipboard sync monitor started"_s, u"CLIPBOARD"_s);
    } else if (!mustRun && m_clipboardMonitorTimer) {
        stopClipboardMonitor();
        log(u"Clipboard sync monitor stopped"_s, u"CLIPBOARD"_s);
    }
}

void ServerManager::pollClipboard() {
    SystemClipboard* systemClipboard = m_environment.systemClipboard;
    if (systemClipboard == nullptr) {
        return;
    }
    const qint64 changeCount = systemClipboard->changeCount();
    if (changeCount == m_lastObservedClipboardChangeCount) {
        return;
    }
    m_lastObservedClipboardChangeCount = changeCount;
    const std::optional<QString> text = systemClipboard->string();
    if (!text || text->isEmpty()) {
        return;
    }
    if (text->toUtf8().size() > HLVP::maxClipboardBytes) {
        return;
    }
    if (text == m_lastRemoteAppliedClipboardContent || text == m_lastSentClipboardContent) {
        return;
    }
    m_lastSentClipboardContent = *text;
    for (const QString& key : std::as_const(m_serverState.authenticatedClients)) {
        const auto client = m_serverState.connectedClients.value(key);
        if (!client) {
            continue;
        }
        const QPointer<ServerManager> weak(this);
        client->sendClipboardSync(*text, [weak, key](const std::optional<HLVPError>& error) {
            if (error) {
                const QString label = weak ? weak->displayLabel(key) : u"Client "_s + key.left(8);
                ServerLogManager::shared().log(
                    u"Clipboard sync to %1 failed: %2"_s.arg(label, error->localizedDescription()),
                    u"CLIPBOARD"_s);
            }
        });
    }
}

void ServerManager::handleClipboardSnapshot(const QString& text, const QString& key) {
    m_lastRemoteAppliedClipboardContent = text;
    if (m_environment.systemClipboard != nullptr) {
        m_lastObservedClipboardChangeCount = m_environment.systemClipboard->changeCount();
    }
    log(u"Clipboard snapshot received from %1 (%2 bytes)"_s.arg(displayLabel(key)).arg(text.toUtf8().size()),
        u"CLIPBOARD"_s);
}

void ServerManager::applyFeatureSettings() {
    Preferences& preferences = m_environment.preferences;
    preferences.set(PreferenceKey::enableFileTransfers, m_settingsState.enableFileTransfers);
    preferences.set(PreferenceKey::enableClipboardSharing, m_settingsState.enableClipboardSharing);
    preferences.set(PreferenceKey::enableLoginItems, m_settingsState.enableLoginItems);
    const QString directory = fileTransferDirectory();
    for (const auto& client : std::as_const(m_serverState.connectedClients)) {
        client->configureFileTransfers(m_settingsState.enableFileTransfers, directory);
        client->configureClipboardSharing(m_settingsState.enableClipboardSharing);
    }
    updateClipboardMonitor();
}

void ServerManager::setFeatureSwitches(bool enableFileTransfers, bool enableClipboardSharing,
                                       bool enableLoginItems) {
    updateSettingsState([&](SettingsState& settings) {
        settings.enableFileTransfers = enableFileTransfers;
        settings.enableClipboardSharing = enableClipboardSharing;
        settings.enableLoginItems = enableLoginItems;
    });
    applyFeatureSettings();
}

} // namespace tellwyn
