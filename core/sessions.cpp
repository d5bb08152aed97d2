// Client sessions: registration, handshake deadline, connection state, message dispatch,
// clean-up, idle sweep, user disconnect and the statistics push.

#include "account_verifier.h"
#include "blocked_source_log.h"
#include "clock.h"
#include "server_log_manager.h"
#include "server_manager.h"
#include "system_stats_provider.h"

#include <QCoreApplication>
#include <QPointer>
#include <QThread>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

constexpr auto handshakeDeadline = std::chrono::seconds(5);
// A connection holds one of the few slots; one that has not signed in by then gives it back.
constexpr auto signInDeadline = std::chrono::seconds(120);
constexpr auto statsPushInterval = std::chrono::seconds(10);
constexpr double idleTimeoutSeconds = 60.0;

QString fallbackLabel(const QString& key) {
    return u"Client "_s + key.left(8);
}

void logLine(const QString& message, const QString& category) {
    ServerLogManager::shared().log(message, category);
}

// Work posted for a client must run even when the manager has gone, to say so; it is posted to
// the application object, which outlives the manager.
void postToMainQueue(std::function<void()> work) {
    QMetaObject::invokeMethod(QCoreApplication::instance(), std::move(work), Qt::QueuedConnection);
}

} // namespace

QString ServerManager::displayLabel(const QString& key) const {
    const auto name = m_clientComputerNames.constFind(key);
    return name != m_clientComputerNames.cend() ? *name : fallbackLabel(key);
}

std::optional<QDateTime> ServerManager::lastClientActivity(const QString& key) const {
    const auto found = m_lastClientActivity.constFind(key);
    return found != m_lastClientActivity.cend() ? std::optional<QDateTime>(*found) : std::nullopt;
}

SystemStatsProvider& ServerManager::statsProvider() const {
    return m_environment.statsProvider;
}

void ServerManager::handleNewConnection(const std::shared_ptr<HLVPServerClient>& client, const QString& key) {
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(
            this, [this, client, key] { handleNewConnection(client, key); }, Qt::QueuedConnection);
        return;
    }
    const QPointer<ServerManager> weak(this);

    client->configureFileTransfers(m_settingsState.enableFileTransfers, fileTransferDirectory());
    client->configureClipboardSharing(m_settingsState.enableClipboardSharing);

    // Published after the rest of registration, as observers may look the client up at once.
    QMetaObject::invokeMethod(
        this,
        [this, client, key] {
            m_clientRemoteHosts.insert(key, client->remoteHostKey());
            updateServerState([&](ServerState& state) { state.connectedClients.insert(key, client); });
        },
        Qt::QueuedConnection);

    m_lastClientActivity.insert(key, m_environment.clock.now());
    m_clientRemoteHosts.insert(key, client->remoteHostKey());
    m_clientComputerNames.insert(key, fallbackLabel(key));
    if (m_blockedSourceLog->isQuiet(client->remoteHostKey())) {
        m_quietClients.insert(key);
    }

    client->setOnMessageReceived([weak, key](const HLVPMessage& message) {
        postToMainQueue([weak, key, message] {
            if (!weak) {
                logLine(u"onMessageReceived callback called for %1 with message: %2"_s.arg(
                            fallbackLabel(key), messageTypeName(message)),
                        u"MESSAGE"_s);
                logLine(u"ServerManager is nil in onMessageReceived callback"_s, u"ERROR"_s);
                return;
            }
            weak->logClient(key,
                            u"onMessageReceived callback called for %1 with message: %2"_s.arg(
                                weak->displayLabel(key), messageTypeName(message)),
                            u"MESSAGE"_s);
            weak->logClient(key, u"Calling handleMessage for %1"_s.arg(weak->displayLabel(key)),
                            u"MESSAGE"_s);
            weak->handleMessage(message, key);
        });
    });
    installTransferCallbacks(*client, key);
    configureScreenStreaming(*client, key);
    client->setLogFunction([weak, key](const QString& message, const QString& category) {
        postToMainQueue([weak, key, message, category] {
            if (weak) {
                weak->forwardClientLog(key, message, category);
            } else {
                QString line = message;
                logLine(line.replace(u"Client "_s + key + u':', fallbackLabel(key) + u':'), category);
            }
        });
    });

    m_clientCancellables.insert(key, {});
    const HLVP::ConnectionState current = client->connectionState();
    m_clientCancellables[key].push_back(connect(
        client.get(), &HLVPServerClient::connectionStateChanged, this,
        [this, key](HLVP::ConnectionState state) { handleClientConnectionState(key, state); },
        Qt::QueuedConnection));
    // A subscription also delivers the value current at the time it was made.
    QMetaObject::invokeMethod(
        this, [this, key, current] { handleClientConnectionState(key, current); }, Qt::QueuedConnection);

    logClient(key, u"%1 connected"_s.arg(displayLabel(key)), u"CONNECT"_s);

    m_environment.scheduler.runAfter(handshakeDeadline, this, [weak, key] {
        if (weak) {
            weak->checkHandshakeDeadline(key);
        }
    });
    m_environment.scheduler.runAfter(signInDeadline, this, [this, key] {
        // A check under way decides the connection's fate itself when it comes back.
        if (!m_serverState.connectedClients.contains(key) ||
            m_serverState.authenticatedClients.contains(key) || m_authenticationInProgress.contains(key)) {
            return;
        }
        logClient(key,
                  u"%1 did not sign in within %2 s. Disconnecting."_s.arg(displayLabel(key))
                      .arg(signInDeadline.count()),
                  u"SECURITY"_s);
        cleanupDisconnectedClient(key);
    });
}

void ServerManager::handleClientConnectionState(const QString& key, HLVP::ConnectionState state) {
    // Values still in the queue when the subscription ended are not delivered.
    if (!m_clientCancellables.contains(key)) {
        return;
    }
    const QString printed =
        state == HLVP::ConnectionState::disconnected ? u"disconnected"_s : HLVP::toString(state);
    logClient(key, u"%1 connection state changed to: %2"_s.arg(displayLabel(key), printed), u"CONNECTION"_s);
    if (state == HLVP::ConnectionState::disconnected) {
        logClient(key, u"%1 triggering cleanup due to disconnection"_s.arg(displayLabel(key)),
                  u"CONNECTION"_s);
        QMetaObject::invokeMethod(
            this, [this, key] { cleanupDisconnectedClient(key); }, Qt::QueuedConnection);
    }
}

void ServerManager::handleConnectionClosed(const QString& key) {
    logClient(key, u"Server-level connection closed callback triggered for %1"_s.arg(displayLabel(key)),
              u"CONNECTION"_s);
    cleanupDisconnectedClient(key);
}

void ServerManager::checkHandshakeDeadline(const QString& key) {
    const auto client = m_serverState.connectedClients.value(key);
    if (!client) {
        return;
    }
    if (m_serverState.authenticatedClients.contains(key) || client->isHandshakeReceived()) {
        return;
    }
    logClient(key,
              u"🚫 GHOST CLIENT DETECTED: %1 sent no handshake in 5s. Disconnecting."_s.arg(displayLabel(key)),
              u"SECURITY"_s);
    cleanupDisconnectedClient(key);
}

void ServerManager::handleMessage(const HLVPMessage& message, const QString& key) {
    m_lastClientActivity.insert(key, m_environment.clock.now());
    logClient(
        key, u"ServerManager received message: %1 from %2"_s.arg(messageTypeName(message), displayLabel(key)),
        u"MESSAGE"_s);

    if (const auto* handshake = std::get_if<HandshakeMessage>(&message)) {
        m_clientComputerNames.insert(key, handshake->clientName);
        logClient(
            key,
            u"Handshake noted from %1: version %2"_s.arg(displayLabel(key)).arg(handshake->protocolVersion),
            u"HANDSHAKE"_s);
    } else if (const auto* authentication = std::get_if<AuthenticationMessage>(&message)) {
        handleAuthentication(*authentication, key);
        // The check works on a copy of its own; this wipes the text every copy of the message shares.
        QString password = authentication->credentials.value(u"password"_s);
        wipeSecret(password);
    } else if (std::holds_alternative<ScreenCaptureRequest>(message) ||
               std::holds_alternative<InputEventMessage>(message)) {
        // Screen streaming and input are served by the protocol library.
    } else if (std::holds_alternative<HeartbeatMessage>(message)) {
        logClient(key, u"Heartbeat received from %1"_s.arg(displayLabel(key)), u"HEARTBEAT"_s);
    } else if (std::holds_alternative<HeartbeatResponseMessage>(message)) {
        logClient(key, u"Heartbeat response received from %1"_s.arg(displayLabel(key)), u"HEARTBEAT"_s);
    } else if (const auto* goodbye = std::get_if<DisconnectMessage>(&message)) {
        logClient(key,
                  u"%1 requested disconnect with reason: '%2' - TYPE: DisconnectMessage"_s.arg(
                      displayLabel(key), goodbye->reason),
                  u"CONNECT"_s);
        cleanupDisconnectedClient(key);
    } else {
        logClient(
            key,
            u"Received unknown message type: %1 from %2"_s.arg(messageTypeName(message), displayLabel(key)),
            u"WARN"_s);
    }
}

void ServerManager::cleanupDisconnectedClient(const QString& key) {
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(
            this,
            [weak = QPointer<ServerManager>(this), key] {
                if (weak) {
                    weak->cleanupDisconnectedClient(key);
                }
            },
            Qt::QueuedConnection);
        return;
    }
    const auto client = m_serverState.connectedClients.value(key);
    if (!client) {
        return;
    }
    logClient(key,
              u"Cleaning up disconnected client %1 - stopping any active streaming"_s.arg(displayLabel(key)),
              u"CONNECTION"_s);
    client->stopStreaming();
    client->disconnect();

    ServerState next = m_serverState;
    next.connectedClients.remove(key);
    next.authenticatedClients.remove(key);
    next.streamingClients.remove(key);
    m_serverState = std::move(next);

    forgetClientEntries(key);
    updateClipboardMonitor();
    Q_EMIT serverStateChanged();
    Q_EMIT changed();
    logClient(key, u"%1 fully cleaned up and removed from all lists"_s.arg(displayLabel(key)),
              u"CONNECTION"_s);
    m_quietClients.remove(key);
}

void ServerManager::forgetClientEntries(const QString& key) {
    m_clientComputerNames.remove(key);
    m_lastClientActivity.remove(key);
    for (const auto& connection : m_clientCancellables.take(key)) {
        QObject::disconnect(connection);
    }
    m_clientRemoteHosts.remove(key);
    if (const TaskPtr task = m_statsPushTasks.take(key)) {
        task->cancel();
    }
}

void ServerManager::cleanupStaleClients() {
    const QStringList keys = m_serverState.connectedClients.keys();
    const QDateTime now = m_environment.clock.now();
    QStringList stale;
    for (const QString& key : keys) {
        const auto& client = m_serverState.connectedClients.value(key);
        if (client->connectionState() == HLVP::ConnectionState::disconnected) {
            stale.append(key);
            continue;
        }
        const QDateTime lastActivity = m_lastClientActivity.value(key, now);
        if (double(lastActivity.msecsTo(now)) / 1000.0 > idleTimeoutSeconds) {
            stale.append(key);
        }
    }
    for (const QString& key : std::as_const(stale)) {
        cleanupDisconnectedClient(key);
    }
}

void ServerManager::disconnectClient(const QString& key) {
    const auto client = m_serverState.connectedClients.value(key);
    if (!client) {
        logClient(key, u"%1 not found for disconnect"_s.arg(displayLabel(key)), u"ERROR"_s);
        return;
    }
    logClient(key, u"Disconnecting %1"_s.arg(displayLabel(key)), u"CONNECT"_s);
    client->sendEncryptedMessage(
        DisconnectMessage{u"Normal disconnect"_s, std::nullopt}, [](const std::optional<HLVPError>& error) {
            if (error) {
                logLine(
                    u"Failed to send encrypted message to client: %1"_s.arg(error->localizedDescription()),
                    u"ERROR"_s);
            }
        });
    client->disconnect();

    updateServerState([&](ServerState& state) {
        state.connectedClients.remove(key);
        state.authenticatedClients.remove(key);
        state.streamingClients.remove(key);
    });
    forgetClientEntries(key);
    logClient(key, u"%1 disconnected"_s.arg(displayLabel(key)), u"CONNECT"_s);
}

void ServerManager::startStatsPush(const QString& key) {
    if (const TaskPtr previous = m_statsPushTasks.value(key)) {
        previous->cancel();
    }
    const TaskPtr task = Task::create();
    m_statsPushTasks.insert(key, task);
    trackTask(task);
    runStatsPushStep(task, key);
}

void ServerManager::runStatsPushStep(const std::weak_ptr<Task>& weakTask, const QString& key) {
    const TaskPtr task = weakTask.lock();
    if (!task) {
        return;
    }
    if (task->isCancelled()) {
        task->finish();
        return;
    }
    const auto client = m_serverState.connectedClients.value(key);
    if (!m_serverState.authenticatedClients.contains(key) || !client) {
        task->finish();
        return;
    }
    const QPointer<ServerManager> weak(this);
    statsProvider().makeSnapshot(this, [weak, weakTask, key, client](SystemStatsMessage snapshot) {
        client->sendEncryptedMessage(snapshot, [weak, weakTask, key](const std::optional<HLVPError>& error) {
            const TaskPtr pushTask = weakTask.lock();
            if (!weak || !pushTask) {
                if (pushTask) {
                    pushTask->finish();
                }
                return;
            }
            if (error) {
                weak->logClient(key,
                                u"Failed to send system stats to %1: %2"_s.arg(weak->displayLabel(key),
                                                                               error->localizedDescription()),
                                u"ERROR"_s);
            }
            pushTask->sleep(weak->m_environment.scheduler, statsPushInterval, weak, [weak, weakTask, key] {
                if (weak) {
                    weak->runStatsPushStep(weakTask, key);
                } else if (const TaskPtr sleptTask = weakTask.lock()) {
                    sleptTask->finish();
                }
            });
        });
    });
}

void ServerManager::forwardClientLog(const QString& key, const QString& message, const QString& category) {
    QString line = message;
    line.replace(u"Client "_s + key + u':', displayLabel(key) + u':');
    logClient(key, line, category);
}

void ServerManager::logClient(const QString& key, const QString& message, const QString& category) const {
    if (!m_quietClients.contains(key)) {
        log(message, category);
    }
}

} // namespace tellwyn
