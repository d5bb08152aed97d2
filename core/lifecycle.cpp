// Server life: construction, settings, set-up, start, running state, clean-up timer, stop,
// port change, auto-start, sleep, wake and termination.

#include "account_check_timings.h"
#include "blocked_source_log.h"
#include "clock.h"
#include "display_probe.h"
#include "preferences.h"
#include "screen_stream_hub.h"
#include "serial_queue.h"
#include "server_log_manager.h"
#include "server_manager.h"
#include "service_advertiser.h"
#include "sign_in_memory.h"
#include "system_events.h"
#include "system_identity.h"

#include <QPointer>
#include <QTimeZone>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace tellwyn {

namespace {
constexpr auto autoStartDelay = 1000ms;
constexpr auto cleanupInterval = 6000ms;

QString enabledText(bool enabled) {
    return enabled ? u"enabled"_s : u"disabled"_s;
}

} // namespace

ServerManager::ServerManager(AgentEnvironment environment, QObject* parent)
    : QObject(parent), m_environment(std::move(environment)),
      // Quality of service "user initiated": a viewer is waiting for the answer.
      m_authenticationQueue(
          std::make_unique<SerialQueue>(u"org.tellwyn.agent.authentication"_s, QThread::HighPriority)),
      m_uiLockBlockedUntil(QDateTime(QDate(1, 1, 1), QTime(0, 0), Qt::UTC)) {
    m_serverState.statusMessage = tr("Agent not started");
    m_permissionState.accountStatus = tr("Initializing...");
    m_signInMemory = std::make_unique<SignInMemory>(
        m_environment.dataDirectory.isEmpty() ? QString()
                                              : m_environment.dataDirectory + u"/signed-in-hosts.json"_s);
    m_accountCheckTimings = std::make_shared<AccountCheckTimings>();
    m_blockedSourceLog = std::make_unique<BlockedSourceLog>(
        m_environment.scheduler, this, [this](const QString& line) { log(line, u"SECURITY"_s); });

    log(u"AgentManager initialized"_s, u"INIT"_s);

    // Termination is handled synchronously inside the notification, before the event loop ends.
    connect(&m_environment.events, &SystemEvents::willTerminate, this, &ServerManager::handleAppTermination,
            Qt::DirectConnection);
    connect(&m_environment.events, &SystemEvents::screensDidSleep, this,
            &ServerManager::handleSleepNotification);
    connect(&m_environment.events, &SystemEvents::screensDidWake, this,
            &ServerManager::handleWakeNotification);

    QMetaObject::invokeMethod(this, &ServerManager::loadSettings, Qt::QueuedConnection);
}

ServerManager::~ServerManager() {
    // A task waiting in a sleep holds itself through its continuation; nothing would end it now.
    std::set<TaskPtr> tasks;
    {
        QMutexLocker locker(&m_taskLock);
        tasks.swap(m_activeTasks);
    }
    for (const TaskPtr& task : tasks) {
        task->abandon();
    }
}

void ServerManager::log(const QString& message, const QString& category) const {
    ServerLogManager::shared().log(message, category);
}

void ServerManager::updateServerState(const std::function<void(ServerState&)>& change) {
    ServerState next = m_serverState;
    change(next);
    m_serverState = std::move(next);
    Q_EMIT serverStateChanged();
    Q_EMIT changed();
}

void ServerManager::updatePermissionState(const std::function<void(PermissionState&)>& change) {
    PermissionState next = m_permissionState;
    change(next);
    m_permissionState = std::move(next);
    Q_EMIT permissionStateChanged();
    Q_EMIT changed();
}

void ServerManager::updateSettingsState(const std::function<void(SettingsState&)>& change) {
    SettingsState next = m_settingsState;
    change(next);
    m_settingsState = std::move(next);
    Q_EMIT settingsStateChanged();
    Q_EMIT changed();
}

void ServerManager::setStatusMessage(const QString& text) {
    updateServerState([&](ServerState& state) { state.statusMessage = text; });
}

void ServerManager::setConfiguringPort(bool value) {
    m_isConfiguringPort = value;
    Q_EMIT isConfiguringPortChanged();
    Q_EMIT changed();
}

void ServerManager::loadSettings() {
    Preferences& preferences = m_environment.preferences;
    configureSystemCredentials();

    const bool autoStart = preferences.boolValue(PreferenceKey::autoStartServer);
    updateSettingsState([&](SettingsState& settings) { settings.autoStartServer = autoStart; });
    log(u"Auto-start server setting loaded: %1"_s.arg(enabledText(autoStart)), u"SERVER"_s);

    // A port given on the command line replaces the stored one, and is kept like a port change.
    if (m_environment.port) {
        preferences.set(PreferenceKey::serverPort, static_cast<int>(*m_environment.port));
    }
    const qint64 storedPort = preferences.integerValue(PreferenceKey::serverPort);
    if (storedPort >= 1 && storedPort <= 65535) {
        updateSettingsState(
            [&](SettingsState& settings) { settings.serverPort = static_cast<quint16>(storedPort); });
    }
    log(u"Loaded server port: %1"_s.arg(m_settingsState.serverPort), u"SERVER"_s);

    updateSettingsState([&](SettingsState& settings) {
        settings.enableFileTransfers =
            preferences.storedBool(PreferenceKey::enableFileTransfers).value_or(true);
        settings.enableClipboardSharing =
            preferences.storedBool(PreferenceKey::enableClipboardSharing).value_or(true);
        settings.enableLoginItems = preferences.boolValue(PreferenceKey::enableLoginItems);
    });

    loadPasswordProtectionSettings();

    const bool firstLaunch = !preferences.object(PreferenceKey::isFirstLaunch).has_value() ||
                             preferences.boolValue(PreferenceKey::isFirstLaunch);
    updateSettingsState([&](SettingsState& settings) { settings.isFirstLaunch = firstLaunch; });

    setupServer();

    if (m_settingsState.autoStartServer && !m_serverState.isRunning) {
        log(u"Auto-start enabled - attempting to start server"_s, u"SERVER"_s);
        m_environment.scheduler.runAfter(autoStartDelay, this, [this] {
            const TaskPtr task = Task::create();
            trackTask(task);
            startServer([task] { task->finish(); });
        });
    }
}

void ServerManager::configureSystemCredentials() {
    const QString username = m_environment.identity.loginName();
    updateSettingsState([&](SettingsState& settings) { settings.currentUsername = username; });
    m_serverUsername = username;
    updatePermissionState([](PermissionState& permissions) {
        permissions.accountStatus = tr("✅ Using this computer's current account");
    });
    m_environment.preferences.set(PreferenceKey::useSystemCredentials, true);
    m_environment.preferences.remove(PreferenceKey::customUsername);
    log(u"Server configured to use this computer's current account for user: %1"_s.arg(username), u"AUTH"_s);
}

void ServerManager::finishFirstLaunch() {
    updateSettingsState([](SettingsState& settings) { settings.isFirstLaunch = false; });
    m_environment.preferences.set(PreferenceKey::isFirstLaunch, false);
}

void ServerManager::setupServer() {
    log(u"Setting up HLVP server"_s, u"SERVER"_s);
    if (m_serverRunningCancellable) {
        QObject::disconnect(*m_serverRunningCancellable);
        m_serverRunningCancellable.reset();
    }

    HLVPServer::Options options;
    options.identityDirectory = m_environment.dataDirectory;
    options.listenAddress = m_environment.listenAddress;
    options.client = m_environment.clientSettings;
    options.client.systemClipboard = m_environment.systemClipboard;
    options.client.agentName = m_environment.identity.localizedComputerName().value_or(QString());
    options.client.agentVersion = QString::fromLatin1(TELLWYN_VERSION);
    m_server = std::make_unique<HLVPServer>(m_settingsState.serverPort, maxConnections, options);

    m_server->setLogFunction([](const QString& message, const QString& category) {
        ServerLogManager::shared().log(message, category);
    });
    const QPointer<ServerManager> weak(this);
    m_server->setQuietSource(
        [weak](const QString& host) { return weak && weak->m_blockedSourceLog->isQuiet(host); });
    m_server->setOnNewConnection([weak](const std::shared_ptr<HLVPServerClient>& client, const QString& key) {
        if (weak) {
            weak->handleNewConnection(client, key);
        }
    });
    m_server->setOnConnectionClosed([weak](const QString& key) {
        if (weak) {
            weak->handleConnectionClosed(key);
        }
    });
    // Values are delivered later; one that a replaced server sent before it was replaced is
    // dropped, so that a port change does not flicker the status through "stopped".
    const quint64 generation = ++m_serverGeneration;
    m_serverRunningCancellable = connect(
        m_server.get(), &HLVPServer::isRunningChanged, this,
        [this, generation](bool isRunning) {
            if (generation == m_serverGeneration) {
                handleServerRunningChange(isRunning);
            }
        },
        Qt::QueuedConnection);

    log(u"Server setup completed"_s, u"SERVER"_s);
}

bool ServerManager::detectHeadlessMode() {
    const int count = m_environment.displays.displayCount();
    if (count == 0) {
        log(u"Headless server detected - no displays available"_s, u"SERVER"_s);
        return true;
    }
    log(u"Display detected: %1 screen(s) available"_s.arg(count), u"SERVER"_s);
    return false;
}

void ServerManager::startServer(std::function<void()> completion) {
    log(u"Attempting to start HLVP server"_s, u"SERVER"_s);
    const bool headless = detectHeadlessMode();
    screenCaptureStartupPreflight();

    if (headless) {
        log(u"Headless mode detected - allowing server to run without screen capture"_s, u"SERVER"_s);
        updatePermissionState(
            [](PermissionState& permissions) { permissions.screenCaptureAuthorized = true; });
        setStatusMessage(tr("Headless mode - screen capture disabled"));
    } else if (!m_permissionState.screenCaptureAuthorized) {
        log(u"Screen recording permission not granted - server will start but capture will be gated"_s,
            u"WARN"_s);
        setStatusMessage(
            tr("Warning: Screen recording not yet authorized. Grant permission in TellwynAgent settings."));
    }

    log(u"Starting remote service on port %1"_s.arg(m_settingsState.serverPort), u"SERVER"_s);
    if (!m_server) {
        // Only reachable when a start is asked for before the settings load has run.
        setupServer();
    }
    const QPointer<ServerManager> weak(this);
    m_server->start(this,
                    [weak, headless, completion = std::move(completion)](std::optional<HLVPError> error) {
                        if (weak) {
                            weak->finishStart(error, headless);
                        }
                        if (completion) {
                            completion();
                        }
                    });
}

void ServerManager::finishStart(const std::optional<HLVPError>& error, bool headless) {
    if (error) {
        setStatusMessage(tr("Failed to start remote service: %1").arg(error->localizedDescription()));
        log(u"Remote service startup failed: %1"_s.arg(error->localizedDescription()), u"ERROR"_s);
        log(u"Failed to start remote service: %1"_s.arg(error->printed()), u"ERROR"_s);
        log(u"Check logs for connection attempts"_s, u"SERVER"_s);
        return;
    }

    updateServerState([](ServerState& state) {
        state.isRunning = true;
        state.statusMessage = tr("Remote service started successfully");
    });
    updateClipboardMonitor();
    if (m_isAdvertisingEnabled) {
        const QString name = m_environment.identity.localizedComputerName().value_or(u"Unknown Computer"_s);
        m_environment.advertiser.publish(m_settingsState.serverPort, name);
        log(u"Started DNS-SD service publishing"_s, u"DNS-SD"_s);
    }
    log(u"Remote service startup completed successfully"_s, u"SERVER"_s);
    log(u"HLVP Server startup sequence completed - Port: %1, Mode: %2"_s.arg(m_settingsState.serverPort)
            .arg(headless ? u"Headless"_s : u"Normal"_s),
        u"SERVER"_s);
    log(u"Check logs for connection attempts"_s, u"SERVER"_s);
}

void ServerManager::handleServerRunningChange(bool isRunning) {
    updateServerState([&](ServerState& state) { state.isRunning = isRunning; });
    if (isRunning) {
        setStatusMessage(tr("Remote service running on port %1").arg(m_settingsState.serverPort));
        startCleanupTimer();
    } else {
        setStatusMessage(tr("Remote service stopped"));
        m_cleanupTimer.reset();
    }
}

void ServerManager::startCleanupTimer() {
    m_cleanupTimer.reset();
    const QPointer<ServerManager> weak(this);
    m_cleanupTimer = m_environment.scheduler.repeating(cleanupInterval, this, [weak] {
        if (weak) {
            QMetaObject::invokeMethod(weak, &ServerManager::cleanupStaleClients, Qt::QueuedConnection);
        }
    });
}

void ServerManager::stopServer() {
    log(u"Stopping HLVP server"_s, u"SERVER"_s);
    m_environment.advertiser.stop();
    log(u"Stopped DNS-SD service publishing"_s, u"DNS-SD"_s);
    m_cleanupTimer.reset();
    cancelAllTasks();
    for (const TaskPtr& task : std::as_const(m_statsPushTasks)) {
        task->cancel();
    }
    m_statsPushTasks.clear();

    const auto clients = m_serverState.connectedClients;
    for (const auto& client : clients) {
        client->stopStreaming();
        client->disconnect();
    }
    if (m_server) {
        m_server->stop();
    }
    stopClipboardMonitor();

    updateServerState([](ServerState& state) {
        state.connectedClients.clear();
        state.authenticatedClients.clear();
        state.streamingClients.clear();
    });
    m_clientComputerNames.clear();
    m_lastClientActivity.clear();
    for (const auto& connections : std::as_const(m_clientCancellables)) {
        for (const auto& connection : connections) {
            QObject::disconnect(connection);
        }
    }
    m_clientCancellables.clear();
    m_clientRemoteHosts.clear();
    m_quietClients.clear();

    updateServerState([](ServerState& state) {
        state.isRunning = false;
        state.statusMessage = tr("Remote service stopped");
    });
    log(u"Remote service stopped successfully"_s, u"SERVER"_s);
}

void ServerManager::stopClipboardMonitor() {
    m_clipboardMonitorTimer.reset();
    m_lastSentClipboardContent.reset();
    m_lastRemoteAppliedClipboardContent.reset();
    m_lastObservedClipboardChangeCount = -1;
}

void ServerManager::updateServerPort(quint16 port, std::function<void()> completion) {
    setConfiguringPort(true);
    updateSettingsState([&](SettingsState& settings) { settings.serverPort = port; });
    m_environment.preferences.set(PreferenceKey::serverPort, static_cast<int>(port));
    log(u"Server port updated to %1"_s.arg(port), u"SERVER"_s);

    auto finish = [weak = QPointer<ServerManager>(this), completion = std::move(completion)] {
        if (weak) {
            weak->setConfiguringPort(false);
        }
        if (completion) {
            completion();
        }
    };
    if (!m_serverState.isRunning) {
        // The next start listens on the new port.
        if (m_server) {
            setupServer();
        }
        finish();
        return;
    }
    stopServer();
    setupServer();
    startServer(std::move(finish));
}

void ServerManager::setAutoStartServer(bool enabled) {
    updateSettingsState([&](SettingsState& settings) { settings.autoStartServer = enabled; });
    m_environment.preferences.set(PreferenceKey::autoStartServer, enabled);
    log(u"Auto-start server %1"_s.arg(enabledText(enabled)), u"SERVER"_s);
}

void ServerManager::handleSleepNotification() {
    log(u"System going to sleep - stopping all client streams"_s, u"SERVER"_s);
    const QStringList keys = m_server ? m_server->getConnectedClients() : QStringList();
    for (const QString& key : keys) {
        if (const auto client = m_serverState.connectedClients.value(key)) {
            client->stopStreaming();
        }
    }
    setStatusMessage(tr("System sleeping - streams paused"));
}

void ServerManager::handleWakeNotification() {
    log(u"System waking up - resuming services"_s, u"SERVER"_s);
    checkScreenCapturePermission();
    setStatusMessage(tr("System resumed - ready for streams"));
}

void ServerManager::handleAppTermination() {
    log(u"Application terminating - cleaning up resources"_s, u"SERVER"_s);
    stopServer();
    if (m_serverRunningCancellable) {
        QObject::disconnect(*m_serverRunningCancellable);
        m_serverRunningCancellable.reset();
    }
    log(u"All subscriptions cancelled"_s, u"SERVER"_s);
}

void ServerManager::trackTask(const TaskPtr& task) {
    {
        QMutexLocker locker(&m_taskLock);
        m_activeTasks.insert(task);
    }
    task->whenFinished([weak = QPointer<ServerManager>(this), weakTask = std::weak_ptr<Task>(task)] {
        const TaskPtr finished = weakTask.lock();
        if (weak && finished) {
            QMutexLocker locker(&weak->m_taskLock);
            weak->m_activeTasks.erase(finished);
        }
    });
}

void ServerManager::cancelAllTasks() {
    std::set<TaskPtr> tasks;
    {
        QMutexLocker locker(&m_taskLock);
        tasks = m_activeTasks;
    }
    for (const TaskPtr& task : tasks) {
        task->cancel();
    }
    QMutexLocker locker(&m_taskLock);
    m_activeTasks.clear();
}

qsizetype ServerManager::activeTaskCount() const {
    QMutexLocker locker(&m_taskLock);
    return static_cast<qsizetype>(m_activeTasks.size());
}

} // namespace tellwyn
