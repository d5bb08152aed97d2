// Client sessions of the agent core, with real TLS connections on loopback and virtual time for
// every interval of the sessions (handshake deadline, idle sweep).

#include "event_wait.h"
#include "log_lines.h"
#include "loopback_agent.h"
#include "server_log_manager.h"
#include "server_manager_access.h"

#include <QTest>
#include <memory>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace tellwyn;
using namespace tellwyn::testing;

class TestServerManagerSessions : public QObject {
    Q_OBJECT

    std::unique_ptr<LoopbackAgent> agent;
    ServerManager* manager = nullptr;
    VirtualTime* time = nullptr;

    std::unique_ptr<LoopbackViewer> connectViewer(const std::optional<QString>& name) {
        return agent->connectViewer(name);
    }
    static void settle() { LoopbackAgent::settle(); }

private Q_SLOTS:
    void init() {
        agent = std::make_unique<LoopbackAgent>();
        QVERIFY(agent->start());
        manager = agent->manager.get();
        time = &agent->time;
    }

    void cleanup() { agent.reset(); }

    void registrationFillsTheTablesAndLogsTheFallbackLabel() {
        const auto viewer = connectViewer(u"Viewer One"_s);
        QVERIFY(viewer);
        const QString key = viewer->key;
        QVERIFY(!key.isEmpty());
        const QString key8 = key.left(8);
        QCOMPARE(manager->clientRemoteHost(key), u"127.0.0.1"_s);
        QVERIFY(ServerManagerTestAccess(*manager).lastClientActivity(key).has_value());
        QVERIFY(loggedInOrder(
            {u"[CONNECT] Client %1 connected"_s.arg(key8),
             u"[CONNECTION] Client %1 connection state changed to: connected"_s.arg(key8),
             u"[MESSAGE] onMessageReceived callback called for Client %1 with message: "
             u"HandshakeMessage"_s.arg(key8),
             u"[MESSAGE] Calling handleMessage for Client %1"_s.arg(key8),
             u"[MESSAGE] ServerManager received message: HandshakeMessage from Client %1"_s.arg(key8),
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
        const QString key = viewer->key;
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
        QVERIFY(!ServerManagerTestAccess(*manager).lastClientActivity(key));
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
        const QString key = viewer->key;
        viewer->connection->disconnectFromAgent(reason);
        TRY_VERIFY(viewer->closed);
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
        QCOMPARE(loggedCount(u"[CONNECTION] %1 fully cleaned up and removed from all lists"_s.arg(fallback)),
                 1);
        QVERIFY(loggedInOrder(
            {u"[CONNECTION] Server-level connection closed callback triggered for %1"_s.arg(fallback)}));
        QVERIFY(!manager->serverState().connectedClients.contains(key));
        QVERIFY(manager->clientComputerName(key).isEmpty());
    }

    void connectionLostWithoutGoodbyeIsCleanedUpFromTheStateValue() {
        const auto viewer = connectViewer(u"Viewer Four"_s);
        QVERIFY(viewer);
        const QString key = viewer->key;
        viewer->connection->abort();
        TRY_VERIFY(!manager->serverState().connectedClients.contains(key));
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
        const QString key = viewer->key;
        // The sweep runs every 6 s; at 60 s the viewer has been idle exactly 60 s, which is allowed.
        time->advance(60s);
        QVERIFY(manager->serverState().connectedClients.contains(key));
        time->advance(6s);
        QVERIFY(!manager->serverState().connectedClients.contains(key));
        TRY_VERIFY(viewer->closed);
    }

    void messagesKeepAViewerActive() {
        const auto viewer = connectViewer(u"Viewer Six"_s);
        QVERIFY(viewer);
        const QString key = viewer->key;
        LoopbackAgent::signIn(*viewer, u"alice"_s, u"correct horse"_s);
        TRY_VERIFY(manager->serverState().authenticatedClients.contains(key));
        for (int round = 0; round < 3; ++round) {
            time->advance(30s);
            viewer->connection->send(HeartbeatMessage{quint32(round)});
            TRY_COMPARE(loggedCount(u"[HEARTBEAT] Heartbeat received from Viewer Six"_s), round + 1);
        }
        time->advance(54s);
        QVERIFY(manager->serverState().connectedClients.contains(key));
        // The library answers heartbeats itself, echoing the sequence number.
        TRY_COMPARE(viewer->count<HeartbeatResponseMessage>(), 3);
        QCOMPARE(viewer->last<HeartbeatResponseMessage>()->sequenceNumber, std::optional<quint32>(2));
    }

    void userDisconnectSaysGoodbyeAndForgetsTheClient() {
        const auto viewer = connectViewer(u"Viewer Seven"_s);
        QVERIFY(viewer);
        const QString key = viewer->key;
        manager->disconnectClient(key);
        QVERIFY(!manager->serverState().connectedClients.contains(key));
        QVERIFY(loggedInOrder({u"[CONNECT] Disconnecting Viewer Seven"_s,
                               u"[CONNECT] Client %1 disconnected"_s.arg(key.left(8))}));
        TRY_VERIFY(viewer->closed);
        const auto* goodbye = viewer->last<DisconnectMessage>();
        QVERIFY(goodbye);
        QCOMPARE(goodbye->reason, u"Normal disconnect"_s);
        // The user's disconnect does not run the full clean-up, and what the closed connection
        // reports afterwards finds nothing to clean.
        settle();
        QCOMPARE(
            loggedCount(u"[CONNECTION] Cleaning up disconnected client Viewer Seven - stopping any active "
                        u"streaming"_s),
            0);

        manager->disconnectClient(u"ABCDEFGH-0000"_s);
        QVERIFY(loggedInOrder({u"[ERROR] Client ABCDEFGH not found for disconnect"_s}));
    }

    void libraryLinesCarryTheDisplayLabel() {
        const auto viewer = connectViewer(u"Viewer Eight"_s);
        QVERIFY(viewer);
        const QString key = viewer->key;
        // Clipboard traffic before sign-in is refused by the library, which says so in its log.
        viewer->connection->send(ClipboardMessage{u"secret"_s, std::nullopt});
        TRY_VERIFY(viewer->last<ErrorMessage>());
        QCOMPARE(viewer->last<ErrorMessage>()->code, u"notAuthenticated"_s);
        settle();
        const QStringList lines = loggedLines();
        QVERIFY(lines.contains(
            u"[SECURITY] Viewer Eight: refused clipboard: Sign in before sending \"clipboard\" "
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
        TRY_VERIFY(first->closed);
        // A deadline that fires after the stop finds nothing to do.
        time->advance(5s);
        QCOMPARE(loggedLines().filter(u"GHOST CLIENT"_s).size(), 0);
    }

    // Heartbeats keep a connection from the idle rule, not from the sign-in deadline; a signed-in
    // viewer is not touched by it.
    void aViewerThatDoesNotSignInWithinTwoMinutesIsDropped() {
        const auto stranger = connectViewer(u"Stranger"_s);
        const auto member = connectViewer(u"Member"_s);
        QVERIFY(stranger && member);
        LoopbackAgent::signIn(*member, u"alice"_s, u"correct horse"_s);
        TRY_VERIFY(manager->serverState().authenticatedClients.contains(member->key));
        for (quint32 round = 1; round <= 3; ++round) {
            time->advance(39s);
            stranger->connection->send(HeartbeatMessage{round});
            member->connection->send(HeartbeatMessage{round});
            TRY_COMPARE(stranger->count<HeartbeatResponseMessage>(), qsizetype(round));
            TRY_COMPARE(member->count<HeartbeatResponseMessage>(), qsizetype(round));
        }
        time->advance(2999ms);
        QVERIFY(manager->serverState().connectedClients.contains(stranger->key));
        time->advance(1ms);
        QVERIFY(!manager->serverState().connectedClients.contains(stranger->key));
        QVERIFY(loggedInOrder({u"[SECURITY] Stranger did not sign in within 120 s. Disconnecting."_s}));
        TRY_VERIFY(stranger->closed);
        QVERIFY(manager->serverState().connectedClients.contains(member->key));
        QVERIFY(!member->closed);
    }
};

QTEST_GUILESS_MAIN(TestServerManagerSessions)
#include "tst_server_manager_sessions.moc"
