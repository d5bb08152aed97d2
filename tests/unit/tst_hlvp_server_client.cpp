// The connection objects of the protocol library: the agent's phase rule, sends on a closed
// connection, a viewer that stops reading, and what a viewer refuses from an agent. Real TLS on
// loopback.

#include "event_wait.h"
#include "hlvp_connection.h"
#include "hlvp_server.h"
#include "log_lines.h"

#include <QProcess>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <csignal>
#include <memory>
#include <sys/socket.h>
#include <utility>

using namespace Qt::StringLiterals;
using namespace tellwyn;
using namespace tellwyn::testing;

class TestHlvpServerClient : public QObject {
    Q_OBJECT

    QTemporaryDir identity;
    std::unique_ptr<HLVPServer> server;
    QList<std::shared_ptr<HLVPServerClient>> accepted;
    QStringList libraryLines;

    // A server on loopback with the test's identity; it and its clients log into libraryLines.
    void startServer(HLVPServer::Options options = {}, int maxConnections = 4) {
        options.identityDirectory = identity.path();
        options.listenAddress = QHostAddress::LocalHost;
        server = std::make_unique<HLVPServer>(freeLoopbackPort(), maxConnections, options);
        const auto log = [this](const QString& line, const QString& category) {
            libraryLines.append(u"[%1] %2"_s.arg(category, line));
        };
        server->setLogFunction(log);
        server->setOnNewConnection(
            [this, log](const std::shared_ptr<HLVPServerClient>& client, const QString&) {
                client->setLogFunction(log);
                accepted.append(client);
            });
        bool started = false;
        server->start(this, [&](const std::optional<HLVPError>& error) { started = !error; });
        TRY_VERIFY(started);
    }

    std::unique_ptr<HLVPConnection> connectViewer() {
        auto viewer = std::make_unique<HLVPConnection>();
        QSignalSpy ready(viewer.get(), &HLVPConnection::ready);
        viewer->connectToAgent(u"127.0.0.1"_s, server->port(), u"Unit Viewer"_s);
        return ready.wait(eventDeadlineMs) ? std::move(viewer) : nullptr;
    }

private Q_SLOTS:
    void init() {
        accepted.clear();
        libraryLines.clear();
    }

    void cleanup() {
        accepted.clear();
        server.reset();
    }

    void signInIsPossibleOnlyWhileTheConnectionIsOpen() {
        startServer();
        const auto viewer = connectViewer();
        QVERIFY(viewer);
        QCOMPARE(accepted.size(), 1);
        const auto client = accepted.constFirst();
        QVERIFY(client->isHandshakeReceived());
        QSignalSpy states(client.get(), &HLVPServerClient::connectionStateChanged);

        QVERIFY(client->markAuthenticated());
        QVERIFY(client->connectionState() == HLVP::ConnectionState::authenticated);
        QCOMPARE(states.size(), 1);

        client->disconnect();
        QVERIFY(!client->markAuthenticated());
        TRY_VERIFY(client->connectionState() == HLVP::ConnectionState::disconnected);
        QVERIFY(!client->markAuthenticated());
        QVERIFY(client->connectionState() == HLVP::ConnectionState::disconnected);
        // Calling disconnect again, after the end, changes nothing.
        client->disconnect();
        QCOMPARE(states.size(), 2);
    }

    void sendingOnAClosedConnectionFailsLater() {
        startServer();
        auto viewer = connectViewer();
        QVERIFY(viewer);
        const auto client = accepted.constFirst();
        viewer->abort();
        TRY_VERIFY(client->connectionState() == HLVP::ConnectionState::disconnected);

        std::optional<std::optional<HLVPError>> outcome;
        client->sendEncryptedMessage(HeartbeatMessage{},
                                     [&](const std::optional<HLVPError>& error) { outcome = error; });
        QVERIFY(!outcome); // never in the caller's stack
        TRY_VERIFY(outcome.has_value());
        QVERIFY(outcome->has_value());
        QVERIFY((*outcome)->code() == HLVPError::Code::notConnected);
    }

    void signedInTrafficIsRefusedBeforeSignInAndPassedOnAfter() {
        startServer();
        auto viewer = connectViewer();
        QVERIFY(viewer);
        const auto client = accepted.constFirst();
        QList<HLVPMessage> delivered;
        client->setOnMessageReceived([&](const HLVPMessage& message) { delivered.append(message); });
        QList<HLVPMessage> toViewer;
        connect(viewer.get(), &HLVPConnection::messageReceived, this,
                [&](const HLVPMessage& message) { toViewer.append(message); });

        const ErrorMessage viewerError{u"viewerTrouble"_s, u"Something went wrong here."_s, {}, {}};
        viewer->send(viewerError);
        TRY_COMPARE(toViewer.size(), 1);
        QCOMPARE(std::get<ErrorMessage>(toViewer.constFirst()).code, u"notAuthenticated"_s);
        QCOMPARE(std::get<ErrorMessage>(toViewer.constFirst()).refersTo, std::optional<QString>(u"error"_s));
        QVERIFY(delivered.isEmpty());

        QVERIFY(client->markAuthenticated());
        viewer->send(viewerError);
        TRY_COMPARE(delivered.size(), 1);
        QVERIFY(std::get<ErrorMessage>(delivered.constFirst()) == viewerError);
        QVERIFY(client->connectionState() == HLVP::ConnectionState::authenticated);
    }

    void aViewerHangsUpOnAnAgentThatSendsWhatOnlyViewersSend() {
        startServer();
        auto viewer = connectViewer();
        QVERIFY(viewer);
        QSignalSpy failed(viewer.get(), &HLVPConnection::failed);
        accepted.constFirst()->sendEncryptedMessage(FileOfferMessage{u"t1"_s, u"a.txt"_s, 1, {}});
        TRY_COMPARE(failed.size(), 1);
        QCOMPARE(failed.constFirst().at(1).toInt(), int(HLVPConnection::protocolError));
    }

    void aViewerThatStopsReadingIsCutOffInsteadOfBuffered() {
        HLVPServer::Options options;
        options.client.maxPendingOutputBytes = 256 * 1024;
        startServer(options);

        // A real TLS peer that is then frozen: it holds the connection open and reads nothing.
        QProcess peer;
        peer.setProgram(u"openssl"_s);
        peer.setArguments(
            {u"s_client"_s, u"-quiet"_s, u"-tls1_3"_s, u"-connect"_s, u"127.0.0.1:%1"_s.arg(server->port())});
        peer.start();
        QVERIFY(peer.waitForStarted());
        TRY_COMPARE(accepted.size(), 1);
        ::kill(pid_t(peer.processId()), SIGSTOP);
        const auto client = accepted.constFirst();

        SystemStatsMessage stats;
        stats.osVersion = QString(2000, u'x');
        std::optional<HLVPError> failure;
        qint64 sent = 0;
        // Far more than the kernel's socket buffers can take in.
        while (!failure && sent < 256LL * 1024 * 1024) {
            client->sendEncryptedMessage(stats, [&](const std::optional<HLVPError>& error) {
                if (error && !failure) {
                    failure = error;
                }
            });
            sent += 2048;
            QCoreApplication::processEvents();
        }
        TRY_VERIFY(failure.has_value());
        QVERIFY(failure->code() == HLVPError::Code::sendFailed);
        TRY_VERIFY(client->connectionState() == HLVP::ConnectionState::disconnected);
        QVERIFY(!libraryLines.filter(u"the viewer is not reading"_s).isEmpty());
        QVERIFY(libraryLines.filter(u"the viewer is not reading"_s)
                    .constFirst()
                    .startsWith(u"[SECURITY] Client %1: "_s.arg(client->clientKey())));

        ::kill(pid_t(peer.processId()), SIGCONT);
        peer.kill();
        peer.waitForFinished();
    }

    // Connections that end, or stay silent, before TLS completes never keep the door shut, and
    // the log says whose negotiation ended and why.
    void theDoorStaysOpenWhateverHappensBeforeTls_data() {
        QTest::addColumn<int>("count");
        QTest::addColumn<QString>("ending");
        // One row per way a negotiation can end, at the limit, just over it and well over it.
        const std::pair<int, const char*> rows[] = {
            {33, "close"}, {32, "reset"}, {40, "garbage"}, {32, "idle"}};
        for (const auto& [count, ending] : rows) {
            QTest::addRow("%d %s", count, ending) << count << QString::fromLatin1(ending);
        }
    }

    void theDoorStaysOpenWhateverHappensBeforeTls() {
        QFETCH(int, count);
        QFETCH(QString, ending);
        HLVPServer::Options options;
        options.tlsHandshakeTimeout = std::chrono::milliseconds(500);
        options.maxUnauthenticatedPerHost = 64;
        startServer(options, 32);

        std::vector<std::unique_ptr<QTcpSocket>> peers;
        for (int i = 0; i < count; ++i) {
            peers.push_back(std::make_unique<QTcpSocket>());
            peers.back()->connectToHost(QHostAddress::LocalHost, server->port());
        }
        TRY_VERIFY(std::all_of(peers.cbegin(), peers.cend(), [](const auto& peer) {
            return peer->state() != QAbstractSocket::HostLookupState &&
                   peer->state() != QAbstractSocket::ConnectingState;
        }));
        // Every connection reaches the server: the ones over the limit are refused by name.
        TRY_COMPARE(libraryLines.filter(u"Connection limit of 32 reached"_s).size(), count - 32);
        QTest::qWait(200);
        for (const auto& peer : peers) {
            if (ending == u"close"_s) {
                peer->close();
            } else if (ending == u"reset"_s) {
                const linger abortive{1, 0};
                ::setsockopt(int(peer->socketDescriptor()), SOL_SOCKET, SO_LINGER, &abortive,
                             sizeof abortive);
                peer->abort();
            } else if (ending == u"garbage"_s) {
                peer->write(QByteArray("GET / HTTP/1.0\r\n\r\n") + QByteArray(512, '\x17'));
            }
        }

        // Each ended negotiation is logged once; then the slots are free again.
        TRY_COMPARE(libraryLines.filter(u"[TLS] "_s).size(), 32);
        auto viewer = std::make_unique<HLVPConnection>();
        QSignalSpy ready(viewer.get(), &HLVPConnection::ready);
        viewer->connectToAgent(u"127.0.0.1"_s, server->port(), u"Late Viewer"_s);
        QVERIFY2(ready.wait(eventDeadlineMs), qPrintable(libraryLines.join(u'\n')));

        const QStringList tlsLines = libraryLines.filter(u"[TLS] "_s);
        for (const QString& line : tlsLines) {
            QVERIFY2(line.startsWith(u"[TLS] TLS negotiation with 127.0.0.1 failed: "_s), qPrintable(line));
            QVERIFY2(!line.endsWith(u"Unknown error"_s), qPrintable(line));
        }
        if (ending == u"idle"_s) {
            QVERIFY(tlsLines.contains(
                u"[TLS] TLS negotiation with 127.0.0.1 failed: TLS was not completed within "
                u"500 ms"_s));
        }
    }

    // One address may hold only its share of connections that have not signed in; signing in
    // frees its slot, and other addresses are not affected.
    void oneHostHoldsOnlyItsShareOfSlotsBeforeSignIn() {
        HLVPServer::Options options;
        options.maxUnauthenticatedPerHost = 3;
        startServer(options, 32);
        const auto connectFrom = [this](const QString& from) -> std::unique_ptr<HLVPConnection> {
            auto viewer = std::make_unique<HLVPConnection>();
            QSignalSpy ready(viewer.get(), &HLVPConnection::ready);
            QSignalSpy closed(viewer.get(), &HLVPConnection::closed);
            viewer->setLocalAddress(QHostAddress(from));
            viewer->connectToAgent(u"127.0.0.1"_s, server->port(), u"Viewer"_s);
            if (!QTest::qWaitFor([&] { return !ready.isEmpty() || !closed.isEmpty(); }, eventDeadlineMs) ||
                ready.isEmpty()) {
                return nullptr;
            }
            return viewer;
        };
        std::vector<std::unique_ptr<HLVPConnection>> held;
        for (int i = 0; i < 3; ++i) {
            held.push_back(connectFrom(u"127.0.0.1"_s));
            QVERIFY(held.back());
        }
        QVERIFY(!connectFrom(u"127.0.0.1"_s));
        QVERIFY(libraryLines.contains(
            u"[SECURITY] 127.0.0.1 already has 3 connections that have not signed in; refused another"_s));
        QVERIFY(connectFrom(u"127.0.0.2"_s));
        QVERIFY(accepted.constFirst()->markAuthenticated());
        QVERIFY(connectFrom(u"127.0.0.1"_s));
    }
};

QTEST_GUILESS_MAIN(TestHlvpServerClient)
#include "tst_hlvp_server_client.moc"
