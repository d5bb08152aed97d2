// Client sessions of the agent core, with real TLS connections on loopback and virtual time for
// every interval of the sessions (handshake deadline, idle sweep).

#include "fake_platform.h"
#include "hlvp_codec.h"
#include "hlvp_connection.h"
#include "log_lines.h"
#include "server_log_manager.h"
#include "server_manager.h"
#include "virtual_time.h"

#include <QSignalSpy>
#include <QSslSocket>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace tellwyn;
using namespace tellwyn::testing;

namespace {

// A viewer on loopback that records what the agent sends it.
struct Viewer {
    std::unique_ptr<HLVPConnection> connection = std::make_unique<HLVPConnection>();
    QList<HLVPMessage> received;
    bool closed = false;

    Viewer() {
        QObject::connect(connection.get(), &HLVPConnection::messageReceived, connection.get(),
                         [this](const HLVPMessage& message) { received.append(message); });
        QObject::connect(connection.get(), &HLVPConnection::closed, connection.get(), [this] { closed = true; });
    }

    template <typename T>
    const T* last() const {
        for (auto it = received.crbegin(); it != received.crend(); ++it) {
            if (const auto* message = std::get_if<T>(&*it)) {
                return message;
            }
        }
        return nullptr;
    }
};

} // namespace

class TestServerManagerSessions : public QObject {
    Q_OBJECT

    std::unique_ptr<VirtualTime> time;
    std::unique_ptr<FakePreferences> preferences;
    std::unique_ptr<FakeSystemIdentity> identity;
    std::unique_ptr<FakeDisplayProbe> displays;
    std::unique_ptr<FakeSystemEvents> events;
    QTemporaryDir dataDirectory;
    std::unique_ptr<ServerManager> manager;
    quint16 port = 0;

    // The key of the one registered client that is not in `known`.
    QString newClientKey(const QStringList& known = {}) {
        for (const QString& key : manager->serverState().connectedClients.keys()) {
            if (!known.contains(key)) {
                return key;
            }
        }
        return {};
    }

    // Connects a viewer; with a name it hand-shakes and waits for the answer.
    std::unique_ptr<Viewer> connectViewer(const std::optional<QString>& name) {
        auto viewer = std::make_unique<Viewer>();
        const QStringList before = manager->serverState().connectedClients.keys();
        if (name) {
            viewer->connection->connectToAgent(u"127.0.0.1"_s, port, *name);
            QSignalSpy ready(viewer->connection.get(), &HLVPConnection::ready);
            if (!ready.wait(5000)) {
                return nullptr;
            }
        } else {
            // TLS only, never a message.
            auto* socket = new QSslSocket(viewer->connection.get());
            socket->setPeerVerifyMode(QSslSocket::VerifyNone);
            QSignalSpy encrypted(socket, &QSslSocket::encrypted);
            socket->connectToHostEncrypted(u"127.0.0.1"_s, port);
            // The agent runs on this thread: wait with the event loop running.
            if (!encrypted.wait(5000)) {
                return nullptr;
            }
        }
        for (int i = 0; i < 200 && newClientKey(before).isEmpty(); ++i) {
            QTest::qWait(10);
            VirtualTime::drainEvents();
        }
        VirtualTime::drainEvents();
        return viewer;
    }

    // Lets network traffic and posted work settle, without moving virtual time.
    static void settle() {
        for (int i = 0; i < 5; ++i) {
            QTest::qWait(20);
            VirtualTime::drainEvents();
        }
    }

private Q_SLOTS:
    void initTestCase() {
        ServerLogManager::shared().setEchoToStandardOutput(false);
        QVERIFY(dataDirectory.isValid());
    }

    void init() {
        time = std::make_unique<VirtualTime>();
        preferences = std::make_unique<FakePreferences>();
        identity = std::make_unique<FakeSystemIdentity>();
        displays = std::make_unique<FakeDisplayProbe>();
        events = std::make_unique<FakeSystemEvents>();
        port = freeLoopbackPort();
        preferences->set(u"serverPort"_s, port);
        manager = std::make_unique<ServerManager>(AgentEnvironment{*time, *time, *preferences, *identity, *displays,
                                                                   *events, dataDirectory.path(),
                                                                   QHostAddress(QHostAddress::LocalHost)});
        VirtualTime::drainEvents();
        bool started = false;
        manager->startServer([&] { started = true; });
        VirtualTime::drainEvents();
        QVERIFY(started);
        QVERIFY(manager->serverState().isRunning);
        ServerLogManager::shared().clearLogs();
        VirtualTime::drainEvents();
    }

    void cleanup() {
        manager.reset();
        VirtualTime::drainEvents();
    }

    void registrationFillsTheTablesAndLogsTheFallbackLabel() {
        const auto viewer = connectViewer(u"Viewer One"_s);
        QVERIFY(viewer);
        const QString key = newClientKey();
        QVERIFY(!key.isEmpty());
        const QString key8 = key.left(8);
        QCOMPARE(manager->clientRemoteHost(key), u"127.0.0.1"_s);
        QVERIFY(manager->lastClientActivity(key).has_value());
        QVERIFY(loggedInOrder({u"[CONNECT] Client %1 connected"_s.arg(key8),
                               u"[CONNECTION] Client %1 connection state changed to: connected"_s.arg(key8),
                               u"[MESSAGE] onMessageReceived callback called for Client %1 with message: "
                               u"HandshakeMessage"_s.arg(key8),
                               u"[MESSAGE] Calling handleMessage for Client %1"_s.arg(key8),
                               u"[MESSAGE] ServerManager received message: HandshakeMessage from Client %1"_s.arg(
                                   key8),
                               u"[HANDSHAKE] Handshake noted from Viewer One: version 1"_s}));
        QCOMPARE(manager->clientComputerName(key), u"Viewer One"_s);
        // The agent answered with its own name.
        const auto* response = viewer->last<HandshakeResponseMessage>();
        QVERIFY(response);
        QCOMPARE(response->agentName, u"Alice's Workstation"_s);
    }

    void silentConnectionIsRemovedFiveSecondsAfterRegistration() {
        const auto viewer = connectViewer(std::nullopt);
        QVERIFY(viewer);
        const QString key = newClientKey();
        QVERIFY(!key.isEmpty());
        time->advance(4999ms);
        QVERIFY(manager->serverState().connectedClients.contains(key));
        time->advance(1ms);
        const QString label = u"Client "_s + key.left(8);
        QVERIFY(loggedInOrder(
            {u"[SECURITY] 🚫 GHOST CLIENT DETECTED: %1 sent no handshake in 5s. Disconnecting."_s.arg(label),
             u"[CONNECTION] Cleaning up disconnected client %1 - stopping any active streaming"_s.arg(label),
             u"[CONNECTION] %1 fully cleaned up and removed from all lists"_s.arg(label)}));
        QVERIFY(!manager->serverState().connectedClients.contains(key));
        QVERIFY(manager->clientRemoteHost(key).isEmpty());
        QVERIFY(!manager->lastClientActivity(key));
    }

    void handshakeWithinTheDeadlineKeepsTheClient() {
        const auto viewer = connectViewer(u"Viewer Two"_s);
        QVERIFY(viewer);
        const QString key = newClientKey();
        time->advance(30s);
        QVERIFY(manager->serverState().connectedClients.contains(key));
        QCOMPARE(loggedCount(u"[SECURITY] 🚫 GHOST CLIENT DETECTED: Viewer Two sent no handshake in 5s. "
                             u"Disconnecting."_s),
                 0);
    }

    void disconnectMessageRemovesTheClientOnceWhateverFollows_data() {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("reason");
        QTest::newRow("named viewer") << u"Viewer Three"_s << u"Going home"_s;
        QTest::newRow("empty reason") << u"Viewer Three"_s << QString();
        QTest::newRow("empty name") << QString() << u"bye"_s;
    }

    void disconnectMessageRemovesTheClientOnceWhateverFollows() {
        QFETCH(QString, name);
        QFETCH(QString, reason);
        const auto viewer = connectViewer(name);
        QVERIFY(viewer);
        const QString key = newClientKey();
        viewer->connection->disconnectFromAgent(reason);
        QTRY_VERIFY(viewer->closed);
        settle();
        const QString fallback = u"Client "_s + key.left(8);
        // With an empty name the label is empty and the line starts with the text after it.
        // The log's reader trims each message, so the empty label's leading space is checked raw.
        const QString goodbyeLine =
            u"%1 requested disconnect with reason: '%2' - TYPE: DisconnectMessage"_s.arg(name, reason);
        QVERIFY(ServerLogManager::shared().logs().filter(u"[CONNECT] "_s + goodbyeLine).size() == 1);
        QVERIFY(loggedInOrder(
            {u"[CONNECT] "_s + goodbyeLine.trimmed(),
             u"[CONNECTION] Cleaning up disconnected client %1 - stopping any active streaming"_s.arg(name),
             u"[CONNECTION] %1 fully cleaned up and removed from all lists"_s.arg(fallback)}));
        // The closed connection and the server-level close that follow find nothing left to clean.
        QCOMPARE(loggedCount(u"[CONNECTION] %1 fully cleaned up and removed from all lists"_s.arg(fallback)), 1);
        QVERIFY(loggedInOrder(
            {u"[CONNECTION] Server-level connection closed callback triggered for %1"_s.arg(fallback)}));
        QVERIFY(!manager->serverState().connectedClients.contains(key));
        QVERIFY(manager->clientComputerName(key).isEmpty());
    }

    void connectionLostWithoutGoodbyeIsCleanedUpFromTheStateValue() {
        const auto viewer = connectViewer(u"Viewer Four"_s);
        QVERIFY(viewer);
        const QString key = newClientKey();
        viewer->connection->abort();
        QTRY_VERIFY(!manager->serverState().connectedClients.contains(key));
        settle();
        QVERIFY(loggedInOrder({u"[CONNECTION] Viewer Four connection state changed to: disconnected"_s,
                               u"[CONNECTION] Viewer Four triggering cleanup due to disconnection"_s}));
        QCOMPARE(loggedCount(u"[CONNECTION] Client %1 fully cleaned up and removed from all lists"_s.arg(
                     key.left(8))),
                 1);
    }

    void idleViewerIsRemovedAtTheFirstTickAfterSixtySeconds() {
        const auto viewer = connectViewer(u"Viewer Five"_s);
        QVERIFY(viewer);
        const QString key = newClientKey();
        // The sweep runs every 6 s; at 60 s the viewer has been idle exactly 60 s, which is allowed.
        time->advance(60s);
        QVERIFY(manager->serverState().connectedClients.contains(key));
        time->advance(6s);
        QVERIFY(!manager->serverState().connectedClients.contains(key));
        QTRY_VERIFY(viewer->closed);
    }

    void messagesKeepAViewerActive() {
        const auto viewer = connectViewer(u"Viewer Six"_s);
        QVERIFY(viewer);
        const QString key = newClientKey();
        for (int round = 0; round < 3; ++round) {
            time->advance(30s);
            viewer->connection->send(HeartbeatMessage{quint32(round)});
            QTRY_COMPARE(loggedCount(u"[HEARTBEAT] Heartbeat received from Viewer Six"_s), round + 1);
        }
        time->advance(54s);
        QVERIFY(manager->serverState().connectedClients.contains(key));
        // The library answers heartbeats itself, echoing the sequence number.
        QTRY_VERIFY(viewer->last<HeartbeatResponseMessage>());
        QCOMPARE(viewer->last<HeartbeatResponseMessage>()->sequenceNumber, std::optional<quint32>(2));
    }

    void userDisconnectSaysGoodbyeAndForgetsTheClient() {
        const auto viewer = connectViewer(u"Viewer Seven"_s);
        QVERIFY(viewer);
        const QString key = newClientKey();
        manager->disconnectClient(key);
        QVERIFY(!manager->serverState().connectedClients.contains(key));
        QVERIFY(loggedInOrder({u"[CONNECT] Disconnecting Viewer Seven"_s,
                               u"[CONNECT] Client %1 disconnected"_s.arg(key.left(8))}));
        QTRY_VERIFY(viewer->closed);
        const auto* goodbye = viewer->last<DisconnectMessage>();
        QVERIFY(goodbye);
        QCOMPARE(goodbye->reason, u"Normal disconnect"_s);
        // The user's disconnect does not run the full clean-up, and what the closed connection
        // reports afterwards finds nothing to clean.
        settle();
        QCOMPARE(loggedCount(u"[CONNECTION] Cleaning up disconnected client Viewer Seven - stopping any active "
                             u"streaming"_s),
                 0);

        manager->disconnectClient(u"ABCDEFGH-0000"_s);
        QVERIFY(loggedInOrder({u"[ERROR] Client ABCDEFGH not found for disconnect"_s}));
    }

    void libraryLinesCarryTheDisplayLabel() {
        const auto viewer = connectViewer(u"Viewer Eight"_s);
        QVERIFY(viewer);
        const QString key = newClientKey();
        // Clipboard traffic before sign-in is refused by the library, which says so in its log.
        viewer->connection->send(ClipboardMessage{u"secret"_s, std::nullopt});
        QTRY_VERIFY(viewer->last<ErrorMessage>());
        QCOMPARE(viewer->last<ErrorMessage>()->code, u"notAuthenticated"_s);
        settle();
        const QStringList lines = loggedLines();
        QVERIFY(lines.contains(u"[SECURITY] Viewer Eight: refused clipboard: Sign in before sending \"clipboard\" "
                               u"messages."_s));
        QVERIFY(!lines.join(u'\n').contains(u"Client "_s + key + u':'));
        QVERIFY(manager->serverState().connectedClients.contains(key));
    }

    void stoppingTheServerForgetsEveryClient() {
        const auto first = connectViewer(u"Viewer Nine"_s);
        const auto second = connectViewer(std::nullopt);
        QVERIFY(first && second);
        QCOMPARE(manager->serverState().connectedClients.size(), 2);
        manager->stopServer();
        QVERIFY(manager->serverState().connectedClients.isEmpty());
        QTRY_VERIFY(first->closed);
        // A deadline that fires after the stop finds nothing to do.
        time->advance(5s);
        QCOMPARE(loggedLines().filter(u"GHOST CLIENT"_s).size(), 0);
    }
};

QTEST_GUILESS_MAIN(TestServerManagerSessions)
#include "tst_servermanager_sessions.moc"
