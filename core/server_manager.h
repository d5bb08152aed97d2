#pragma once

#include "hlvp_server.h"
#include "server_state.h"
#include "task.h"

#include <QHash>
#include <QHostAddress>
#include <QMetaObject>
#include <QMutex>
#include <QObject>
#include <QSet>
#include <functional>
#include <memory>
#include <optional>
#include <set>

namespace tellwyn {

namespace testing {
class ServerManagerTestAccess;
}

class AccountCheckTimings;
class AccountVerifier;
class BlockedSourceLog;
class ServiceAdvertiser;
class Clock;
class DisplayProbe;
class HLVPCredentialStore;
class HLVPScreenCapture;
class PermissionService;
class InputInjector;
class ScreenSource;
class ScreenStreamHub;
class LoginItem;
class SystemClipboard;
class Preferences;
class Scheduler;
class ScheduledTimer;
class SerialQueue;
class SignInMemory;
class SystemEvents;
class SystemIdentity;
class SystemStatsProvider;

// What the agent core needs from the machine. The application builds the platform's
// implementations, exactly one of each for the process, and passes them here; tests pass fakes
// and a virtual clock. The core never falls back to an instance of its own.
struct AgentEnvironment {
    Clock& clock;
    Scheduler& scheduler;
    Preferences& preferences;
    SystemIdentity& identity;
    DisplayProbe& displays;
    SystemEvents& events;
    SystemStatsProvider& statsProvider;             // the statistics signed-in viewers receive
    ServiceAdvertiser& advertiser;                  // publishes the running server by DNS-SD
    QString dataDirectory;                          // the TLS identity lives here
    QHostAddress listenAddress = QHostAddress::Any; // where the server listens
    // The port given on the command line: used in place of the stored one, and stored.
    std::optional<quint16> port = std::nullopt;
    AccountVerifier* accountVerifier = nullptr;     // checks viewers' passwords; none refuses every sign-in
    SystemClipboard* systemClipboard = nullptr;     // the machine's clipboard; none: nothing is shared
    HLVPCredentialStore* credentialStore = nullptr; // the keyring; none: the lock password stays in memory
    LoginItem* loginItem = nullptr;                 // starting at login; none: registering fails
    PermissionService* permissions = nullptr;       // screen capture and input; none: neither is allowed
    std::function<std::unique_ptr<HLVPScreenCapture>()> makeScreenCapture = {}; // for the test capture
    // Where screen streams read the display; made on the capture thread while a viewer streams.
    // None, or a non-empty `screenStreamingUnavailable`, refuses every stream with that text.
    std::function<std::unique_ptr<ScreenSource>()> makeScreenSource = {};
    QString screenStreamingUnavailable = {};
    // What puts a streaming viewer's pointer and keys into the session, one per viewer; none: input
    // is refused.
    std::function<std::unique_ptr<InputInjector>()> makeInputInjector = {};
    HLVPServerClient::Settings clientSettings = {}; // per-connection limits; name and version are filled in
};

// The agent core: the protocol server and its life, the published state the user interface
// shows, the settings, and every per-client table. Everything here runs on the main thread.
class ServerManager final : public QObject {
    Q_OBJECT
public:
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
    qint64 uiLockFailures() const { return m_uiLockFailures; }
    QDateTime uiLockBlockedUntil() const { return m_uiLockBlockedUntil; }

    // The first run's window has been shown: later starts are not first launches.
    void finishFirstLaunch();

    // What the dashboard shows of each connected client.
    QString displayLabel(const QString& key) const;
    QString clientComputerName(const QString& key) const { return m_clientComputerNames.value(key); }
    QString clientRemoteHost(const QString& key) const { return m_clientRemoteHosts.value(key); }

    // Server life. Asynchronous: `completion` runs once the attempt has ended, successful or not.
    void startServer(std::function<void()> completion = {});
    void stopServer();
    void updateServerPort(quint16 port, std::function<void()> completion = {});
    void setAutoStartServer(bool enabled);
    void disconnectClient(const QString& key);

    // What the settings screen does: change the switches in the settings, then apply them.
    void setFeatureSwitches(bool enableFileTransfers, bool enableClipboardSharing, bool enableLoginItems);
    void registerLoginItem();
    void unregisterLoginItem();

    // The menu lock.
    void setPasswordProtection(bool enabled);
    // Stores the password in the keyring; `completion` learns whether it was stored once the
    // keyring has answered. Until then the lock keeps the password it had.
    void updateLockPassword(const QString& password, std::function<void(bool stored)> completion = {});
    bool verifyLockPassword(const QString& text);

    // Permissions.
    void refreshAllPermissions();
    void requestScreenCapturePermission();
    void requestAccessibilityPermission();
    void openScreenRecordingSettings();

    // The application's termination and the screens' sleep and wake.
    void handleAppTermination();
    void handleSleepNotification();
    void handleWakeNotification();

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
    // Tests reach the internal steps through this one seam.
    friend class testing::ServerManagerTestAccess;

    static constexpr qsizetype maximumPendingAuthentications = 8;
    static constexpr int maxAuthFailuresPerEndpoint = 5;
    static constexpr int maxAuthFailuresPerUsername = 15;
    static constexpr double authFailureWindow = 300.0;
    static constexpr qsizetype maximumAuthFailureEntries = 512;
    static constexpr double permissionCacheTimeout = 300.0;
    static constexpr int maxConnections = 32;

    HLVPServer* server() const { return m_server.get(); }
    qsizetype activeTaskCount() const;

    // Server life.
    void loadSettings();
    void configureSystemCredentials();
    void setupServer();
    bool detectHeadlessMode();
    void handleServerRunningChange(bool isRunning);
    void startCleanupTimer();
    void trackTask(const TaskPtr& task);
    void cancelAllTasks();

    // Client sessions.
    void handleNewConnection(const std::shared_ptr<HLVPServerClient>& client, const QString& key);
    void handleConnectionClosed(const QString& key);
    void checkHandshakeDeadline(const QString& key);
    void handleMessage(const HLVPMessage& message, const QString& key);
    void cleanupDisconnectedClient(const QString& key);
    void cleanupStaleClients();
    void startStatsPush(const QString& key);
    void forwardClientLog(const QString& key, const QString& message, const QString& category);
    std::optional<QDateTime> lastClientActivity(const QString& key) const;
    bool hasStatsPushTask(const QString& key) const { return m_statsPushTasks.contains(key); }

    // Sign-in.
    void handleAuthentication(const AuthenticationMessage& message, const QString& key);
    void handleUserCredentialAuthentication(const AuthenticationMessage& message, const QString& key);
    AuthRateLimitKeys makeAuthRateLimitKeys(const QString& key, const QString& username) const;
    bool isAuthFailureBlocked(const std::optional<AuthFailureRecord>& record, qint64 limit) const;
    bool isAuthenticationRateLimited(const AuthRateLimitKeys& keys) const;
    void recordAuthFailure(QHash<QString, AuthFailureRecord>& map, const QString& key);
    // Runs on the authentication queue; touches nothing of the manager. A wrong user name takes
    // as long as a wrong password, by the durations kept in `timings`.
    static bool verifySystemCredentials(AccountVerifier* verifier, const QString& loginName,
                                        const QString& userName, const QString& password,
                                        const QString& remoteHost, AccountCheckTimings& timings);
    void handleAuthenticationResult(bool valid, const QString& userName, const QString& key,
                                    const AuthRateLimitKeys& keys);
    void completeAuthentication(const QString& key);
    void sendAuthenticationFailure(const QString& key, const QString& reason);
    void removeClientAfterAuthenticationFailure(const std::shared_ptr<HLVPServerClient>& client,
                                                const QString& key);

    // Clipboard sharing and file transfers.
    QString fileTransferDirectory() const;
    void updateClipboardMonitor();
    void pollClipboard();
    void handleClipboardSnapshot(const QString& text, const QString& key);
    void applyFeatureSettings();
    bool isClipboardMonitorRunning() const { return m_clipboardMonitorTimer != nullptr; }

    // Screen streams.
    void configureScreenStreaming(HLVPServerClient& client, const QString& key);
    std::optional<ErrorMessage> screenStreamRefusal() const;
    std::optional<ErrorMessage> inputRefusal();
    bool inputInjectionPermitted();
    void handleScreenStreamChange(const QString& key, bool started, quint32 streamID, const QString& detail);
    ScreenStreamHub* screenStreams() const { return m_screenStreams.get(); }

    // Permissions.
    void screenCaptureStartupPreflight();
    void checkScreenCapturePermission();
    void checkAccessibilityPermission();
    void validateScreenCaptureRuntime();
    void finishScreenCaptureValidation(bool success);
    void refreshScreenRecordingPermission();
    void refreshAccessibilityPermission();
    std::optional<bool> cachedPermission(const QString& key) const;

    void loadPasswordProtectionSettings();

    void log(const QString& message, const QString& category) const;
    // A line about one connection: left out while its source's refusals are being summarised.
    void logClient(const QString& key, const QString& message, const QString& category) const;
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
    quint64 m_serverGeneration = 0; // counts the servers built, to drop late values of replaced ones
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
    // The keyring has not yet answered the read at start: there is no password to compare with.
    bool m_lockPasswordPending = false;
    // Bumped by every read of the lock password and every password the keyring stored: a read's
    // answer counts only if nothing newer came since it was asked.
    quint64 m_lockPasswordRequests = 0;
    // Account checks queued or running, counted against their rate-limit keys until they end.
    QHash<QString, qint64> m_queuedAuthChecks;
    std::unique_ptr<SignInMemory> m_signInMemory;
    std::unique_ptr<BlockedSourceLog> m_blockedSourceLog;
    // Connections from a source whose refusals are being summarised.
    QSet<QString> m_quietClients;
    std::shared_ptr<AccountCheckTimings> m_accountCheckTimings;
    std::unique_ptr<ScreenStreamHub> m_screenStreams;
};

} // namespace tellwyn
