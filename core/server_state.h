#pragma once

#include "hlvp.h"

#include <QDateTime>
#include <QMap>
#include <QSet>
#include <QString>
#include <memory>

namespace tellwyn {

class HLVPServerClient;

// Published records of ServerManager. Each is replaced whole on every change; observers re-read it.

struct ServerState {
    bool isRunning = false;
    QString statusMessage;
    QMap<QString, std::shared_ptr<HLVPServerClient>> connectedClients;
    QSet<QString> authenticatedClients;
    QSet<QString> streamingClients; // keys of the viewers watching the screen now
};

struct PermissionState {
    bool screenCaptureAuthorized = false;
    bool networkAuthorized = false;
    bool accessibilityAuthorized = false;
    QString accountStatus;
};

struct SettingsState {
    QString currentUsername;
    bool autoStartServer = false;
    quint16 serverPort = HLVP::defaultPort;
    bool passwordProtectionEnabled = false;
    QString serverPassword;
    bool isFirstLaunch = true;
    bool enableFileTransfers = true;
    bool enableClipboardSharing = true;
    bool enableLoginItems = false;
};

// Failed sign-ins of one endpoint or one user name within the failure window.
struct AuthFailureRecord {
    qint64 count = 0;
    QDateTime firstFailure;
    QDateTime blockedUntil;
};

struct AuthRateLimitKeys {
    QString endpoint;
    QString username;
};

struct PermissionCacheEntry {
    bool value = false;
    QDateTime timestamp;
};

// Preference keys.
namespace PreferenceKey {
inline const QString autoStartServer = QStringLiteral("autoStartServer");
inline const QString serverPort = QStringLiteral("serverPort");
inline const QString enableFileTransfers = QStringLiteral("enableFileTransfers");
inline const QString enableClipboardSharing = QStringLiteral("enableClipboardSharing");
inline const QString enableLoginItems = QStringLiteral("enableLoginItems");
inline const QString isFirstLaunch = QStringLiteral("isFirstLaunch");
inline const QString useSystemCredentials = QStringLiteral("useSystemCredentials");
inline const QString customUsername = QStringLiteral("customUsername");
inline const QString passwordProtectionEnabled = QStringLiteral("PasswordProtectionEnabled");
inline const QString serverPassword = QStringLiteral("ServerPassword");
} // namespace PreferenceKey

} // namespace tellwyn
