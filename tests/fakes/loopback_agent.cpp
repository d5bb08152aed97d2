#include "loopback_agent.h"

#include "event_wait.h"
#include "log_lines.h"
#include "server_log_manager.h"

#include <QSignalSpy>
#include <QSslSocket>
#include <QTest>

using namespace Qt::StringLiterals;

namespace tellwyn::testing {

LoopbackViewer::LoopbackViewer() {
    QObject::connect(connection.get(), &HLVPConnection::messageReceived, connection.get(),
                     [this](const HLVPMessage& message) { received.append(message); });
    QObject::connect(connection.get(), &HLVPConnection::closed, connection.get(), [this] { closed = true; });
}

LoopbackAgent::LoopbackAgent() = default;

LoopbackAgent::~LoopbackAgent() {
    manager.reset();
    VirtualTime::drainEvents();
}

bool LoopbackAgent::start() {
    ServerLogManager::shared().setEchoToStandardOutput(false);
    port = freeLoopbackPort();
    AgentEnvironment environment{time,  time,       preferences,         identity, displays, events,
                                 stats, advertiser, dataDirectory.path()};
    environment.listenAddress = QHostAddress(QHostAddress::LocalHost);
    environment.port = port;
    environment.accountVerifier = &verifier;
    environment.systemClipboard = &systemClipboard;
    environment.permissions = permissions;
    environment.makeScreenSource = makeScreenSource;
    environment.screenStreamingUnavailable = screenStreamingUnavailable;
    environment.makeInputInjector = makeInputInjector;
    manager = std::make_unique<ServerManager>(environment);
    VirtualTime::drainEvents();
    bool started = false;
    manager->startServer([&] { started = true; });
    VirtualTime::drainEvents();
    ServerLogManager::shared().clearLogs();
    VirtualTime::drainEvents();
    return started && manager->serverState().isRunning;
}

std::unique_ptr<LoopbackViewer> LoopbackAgent::connectViewer(const std::optional<QString>& name,
                                                             const QString& from) {
    auto viewer = std::make_unique<LoopbackViewer>();
    const QStringList before = manager->serverState().connectedClients.keys();
    if (name) {
        QSignalSpy ready(viewer->connection.get(), &HLVPConnection::ready);
        viewer->connection->setLocalAddress(QHostAddress(from));
        viewer->connection->connectToAgent(u"127.0.0.1"_s, port, *name);
        if (!ready.wait(eventDeadlineMs)) {
            return nullptr;
        }
    } else {
        auto* socket = new QSslSocket(viewer->connection.get());
        socket->setPeerVerifyMode(QSslSocket::VerifyNone);
        socket->bind(QHostAddress(from));
        QSignalSpy encrypted(socket, &QSslSocket::encrypted);
        socket->connectToHostEncrypted(u"127.0.0.1"_s, port);
        // The agent runs on this thread: wait with the event loop running.
        if (!encrypted.wait(eventDeadlineMs)) {
            return nullptr;
        }
    }
    const bool registered = QTest::qWaitFor(
        [&] {
            VirtualTime::drainEvents();
            for (const QString& key : manager->serverState().connectedClients.keys()) {
                if (!before.contains(key)) {
                    viewer->key = key;
                }
            }
            return !viewer->key.isEmpty();
        },
        eventDeadlineMs);
    VirtualTime::drainEvents();
    return registered ? std::move(viewer) : nullptr;
}

void LoopbackAgent::signIn(LoopbackViewer& viewer, const QString& user, const QString& password) {
    AuthenticationMessage message;
    message.method = HLVP::AuthenticationMethod::password;
    message.credentials = {{u"username"_s, user}, {u"password"_s, password}};
    viewer.connection->send(message);
}

const AuthenticationResponseMessage* LoopbackAgent::signInAndWait(LoopbackViewer& viewer, const QString& user,
                                                                  const QString& password) {
    const qsizetype answersBefore = viewer.count<AuthenticationResponseMessage>();
    signIn(viewer, user, password);
    const bool answered = QTest::qWaitFor(
        [&] { return viewer.count<AuthenticationResponseMessage>() > answersBefore; }, eventDeadlineMs);
    return answered ? viewer.last<AuthenticationResponseMessage>() : nullptr;
}

void LoopbackAgent::settle() {
    for (int i = 0; i < 5; ++i) {
        QTest::qWait(20);
        VirtualTime::drainEvents();
    }
}

} // namespace tellwyn::testing
