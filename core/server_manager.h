#pragma once

#include "hlvp_server.h"
#include "server_state.h"
#include "task.h"

#include <QHash>
#include <QHostAddress>
#include <QMetaObject>
#include <QMutex>
#include <QObject>

#include <functional>
#include <memory>
#include <optional>
#include <set>

namespace tellwyn {

class AccountVerifier;
class ServiceAdvertiser;
class Clock;
class DisplayProbe;
class HLVPCredentialStore;
class HLVPScreenCapture;
class PermissionService;
class ScreenSource;
class ScreenStreamHub;
class LoginItem;
class SystemClipboard;
class Preferences;
class Scheduler;
class ScheduledTimer;
class SerialQueue;
class SystemEvents;
class SystemIdentity;
class SystemStatsProvider;

// What the agent core needs from the machine. The application passes the platform's
// implementations; tests pass fakes and a virtual clock.
struct AgentEnvironment {
    Clock& clock;
    Scheduler& scheduler;
    Preferences& preferences;
    SystemIdentity& identity;
    DisplayProbe& displays;
    SystemEvents& events;
    QString dataDirectory;                          // the TLS identity lives here
    QHostAddress listenAddress = QHostAddress::Any; // where the server listens
    SystemStatsProvider* statsProvider = nullptr;   // the process's single provider when null
    AccountVerifier* accountVerifier = nullptr;     // checks viewers' passwords; none refuses every sign-in
    ServiceAdvertiser* advertiser = nullptr;    // the process's single advertiser when null
    SystemClipboard* systemClipboard = nullptr;               // the machine's clipboard; none: nothing is shared
    HLVPCredentialStore* credentialStore = nullptr; // the keyring; none: the lock password stays in memory
    LoginItem* loginItem = nullptr;                 // starting at login; none: registering fails
    PermissionService* permissions = nullptr;       // screen capture and input; none: neither is allowed
    std::function<std::unique_ptr<HLVPScreenCapture>()> makeScreenCapture = {}; // for the test capture
    // Where screen streams read the display; made on the capture thread while a viewer streams.
    // None, or a non-empty `screenStreamingUnavailable`, refuses every stream with that text.
    std::function<std::unique_ptr<ScreenSource>()> makeScreenSource = {};
    QString screenStreamingUnavailable = {};
    HLVPServerClient::Settings clientSettings = {}; // per-connection limits; name and version are filled in
};

// The agent core: the protocol server and its life, the published state the user interface
// shows, the settings, and every per-client table. Everything here runs on the main thread.
class ServerManager final : public QObject {
    Q_OBJECT
public:
    static constexpr qsizetype maximumPendingAuthentications = 8;
    static constexpr int maxAuthFailuresPerEndpoint = 5;
    static constexpr int maxAuthFailuresPerUsername = 15;
    static constexpr double authFailureWindow = 300.0;
    static constexpr qsizetype maximumAuthFailureEntries = 512;
    static constexpr double permissionCacheTimeout = 300.0;
    static constexpr int maxConnections = 32;

    explicit ServerManager(AgentEnvironment environment, QObject* parent = nullptr);
    ~ServerManager() override;

    // Published state.
    bool isAdvertisingEnabled() const { return m_isAdvertisingEnabled; }
    const ServerState& serverState() const { return m_serverState; }
    const PermissionState& permissionState() const { return m_permissionState; }
    const SettingsState& settingsState() const { return m_settingsState; }
    bool isConfiguringPort() const { return m_isConfiguringPort; }
    bool isRefreshingPermissions() const { return m_isRefreshingPermissions; }
    bool screenCaptureRequiresRelaunch() const { return m_screenCaptureRequiresRelaunch; }

    HLVPServer* server() const { return m_server.get(); }
    qsizetype activeTaskCount() const;

    // Server life.
    void loadSettings();
    void configureSystemCredentials();
    void setupServer();
    bool detectHeadlessMode();
    // Asynchronous: `completion` runs once the start attempt has ended, successful or not.
    void startServer(std::function<void()> completion = {});
    void handleServerRunningChange(bool isRunning);
    void startCleanupTimer();
    void stopServer();
    void updateServerPort(quint16 port, std::function<void()> completion = {});
    void setAutoStartServer(bool enabled);
    void trackTask(const TaskPtr& task);
    void cancelAllTasks();
    void handleAppTermination();
    void handleSleepNotification();
    void handleWakeNotification();

    // Client sessions.
    void handleNewConnection(const std::shared_ptr<HLVPServerClient>& client, const QString& key);
    void handleConnectionClosed(const QString& key);
    void checkHandshakeDeadline(const QString& key);
    void handleMessage(const HLVPMessage& message, const QString& key);
    void cleanupDisconnectedClient(const QString& key);
    void cleanupStaleClients();
    void disconnectClient(const QString& key);
    void startStatsPush(const QString& key);
    void forwardClientLog(const QString& key, const QString& message, const QString& category);
    QString displayLabel(const QString& key) const;
    QString clientComputerName(const QString& key) const { return m_clientComputerNames.value(key); }
    QString clientRemoteHost(const QString& key) const { return m_clientRemoteHosts.value(key); }
    std::optional<QDateTime> lastClientActivity(const QString& key) const;
    bool hasStatsPushTask(const QString& key) const { return m_statsPushTasks.contains(key); }

    // Sign-in.
    void handleAuthentication(const AuthenticationMessage& message, const QString& key);
    void handleUserCredentialAuthentication(const AuthenticationMessage& message, const QString& key);
    AuthRateLimitKeys makeAuthRateLimitKeys(const QString& key, const QString& username) const;
    bool isAuthFailureBlocked(const std::optional<AuthFailureRecord>& record, qint64 limit) const;
    bool isAuthenticationRateLimited(const AuthRateLimitKeys& keys) const;
    void recordAuthFailure(QHash<QString, AuthFailureRecord>& map, const QString& key);
    // Runs on the authentication queue; touches nothing of the manager.
    static bool verifySystemCredentials(AccountVerifier* verifier, const QString& loginName, const QString& userName,
                                        const QString& password);
    void handleAuthenticationResult(bool valid, const QString& userName, const QString& key,
                                    const AuthRateLimitKeys& keys);
    void completeAuthentication(const QString& key);
    void sendAuthenticationFailure(const QString& key, const QString& reason);
    void removeClientAfterAuthenticationFailure(const std::shared_ptr<HLVPServerClient>& client, const QString& key);
    const QHash<QString, AuthFailureRecord>& endpointAuthFailures() const { return m_endpointAuthFailures; }
    const QHash<QString, AuthFailureRecord>& globalAuthFailures() const { return m_globalAuthFailures; }
    qsizetype pendingAuthenticationCount() const { return m_authenticationInProgress.size(); }

    // Clipboard sharing and file transfers.
    QString fileTransferDirectory() const;
    void updateClipboardMonitor();
    void pollClipboard();
    void handleClipboardSnapshot(const QString& text, const QString& key);
    void applyFeatureSettings();
    // What the settings screen does: change the switches in the settings, then apply them.
    void setFeatureSwitches(bool enableFileTransfers, bool enableClipboardSharing, bool enableLoginItems);
    bool isClipboardMonitorRunning() const { return m_clipboardMonitorTimer != nullptr; }

    // Screen streams.
    void configureScreenStreaming(HLVPServerClient& client, const QString& key);
    std::optional<ErrorMessage> screenStreamRefusal() const;
    void handleScreenStreamChange(const QString& key, bool started, quint32 streamID, const QString& detail);
    ScreenStreamHub* screenStreams() const { return m_screenStreams.get(); }

    // Permissions.
    void screenCaptureStartupPreflight();
    void checkScreenCapturePermission();
    void checkAccessibilityPermission();
    void refreshAllPermissions();
    void requestScreenCapturePermission();
    void requestAccessibilityPermission();
    void validateScreenCaptureRuntime();
    void finishScreenCaptureValidation(bool success);
    void openScreenRecordingSettings();
    void refreshScreenRecordingPermission();
    void refreshAccessibilityPermission();
    std::optional<bool> cachedPermission(const QString& key) const;

    // Launch at login and the menu lock.
    void loadPasswordProtectionSettings();
    void setPasswordProtection(bool enabled);
    bool updateLockPassword(const QString& password);
    bool verifyLockPassword(const QString& text);
    void registerLoginItem();
    void unregisterLoginItem();
    qint64 uiLockFailures() const { return m_uiLockFailures; }
    QDateTime uiLockBlockedUntil() const { return m_uiLockBlockedUntil; }

Q_SIGNALS:
    void serverStateChanged();
    void permissionStateChanged();
    void settingsStateChanged();
    void isConfiguringPortChanged();
    void isRefreshingPermissionsChanged();
    void screenCaptureRequiresRelaunchChanged();
    // Any published part of the manager changed.
    void changed();

private:
    void log(const QString& message, const QString& category) const;
    void installTransferCallbacks(HLVPServerClient& client, const QString& key);
    // Removes a client's name, activity time, state subscription and remote host, and cancels
    // its statistics push: what every way of removing a client does after the published tables.
    void forgetClientEntries(const QString& key);
    void handleClientConnectionState(const QString& key, HLVP::ConnectionState state);
    void runStatsPushStep(const std::weak_ptr<Task>& weakTask, const QString& key);
    SystemStatsProvider& statsProvider() const;
    void setStatusMessage(const QString& text);
    void updateServerState(const std::function<void(ServerState&)>& change);
    void updatePermissionState(const std::function<void(PermissionState&)>& change);
    void updateSettingsState(const std::function<void(SettingsState&)>& change);
    void setConfiguringPort(bool value);
    void setScreenCaptureRequiresRelaunch(bool value);
    void setRefreshingPermissions(bool value);
    PermissionService* permissionService() const;
    void stopClipboardMonitor();
    void finishStart(const std::optional<HLVPError>& error, bool headless);

    AgentEnvironment m_environment;

    // Fields in declaration order.
    std::unique_ptr<HLVPServer> m_server;
    std::optional<QMetaObject::Connection> m_serverRunningCancellable;
    std::unique_ptr<ScheduledTimer> m_cleanupTimer;
    std::unique_ptr<SerialQueue> m_authenticationQueue;
    QSet<QString> m_authenticationInProgress;
    bool m_isAdvertisingEnabled = true;
    ServerState m_serverState;
    PermissionState m_permissionState;
    SettingsState m_settingsState;
    bool m_isConfiguringPort = false;
    bool m_isRefreshingPermissions = false;
    bool m_screenCaptureRequiresRelaunch = false;
    QHash<QString, AuthFailureRecord> m_endpointAuthFailures;
    QHash<QString, AuthFailureRecord> m_globalAuthFailures;
    QHash<QString, QString> m_clientRemoteHosts;
    QHash<QString, QString> m_clientComputerNames;
    QHash<QString, QDateTime> m_lastClientActivity;
    QHash<QString, std::vector<QMetaObject::Connection>> m_clientCancellables;
    QHash<QString, TaskPtr> m_statsPushTasks;
    bool m_isCheckingPermissions = false;
    bool m_isValidatingScreenCaptureRuntime = false;
    QHash<QString, PermissionCacheEntry> m_permissionCache;
    std::set<TaskPtr> m_activeTasks;
    mutable QMutex m_taskLock;
    QString m_serverUsername;
    std::unique_ptr<ScheduledTimer> m_clipboardMonitorTimer;
    qint64 m_lastObservedClipboardChangeCount = -1;
    std::optional<QString> m_lastRemoteAppliedClipboardContent;
    std::optional<QString> m_lastSentClipboardContent;
    qint64 m_uiLockFailures = 0;
    QDateTime m_uiLockBlockedUntil;
    std::unique_ptr<ScreenStreamHub> m_screenStreams;
};

} // namespace tellwyn
