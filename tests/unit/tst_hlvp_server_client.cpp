// The connection objects of the protocol library: the agent's phase rule, sends on a closed
// connection, a viewer that stops reading, and what a viewer refuses from an agent. Real TLS on
// loopback.

#include "hlvp_connection.h"
#include "hlvp_server.h"
#include "log_lines.h"

#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <csignal>
#include <memory>

using namespace Qt::StringLiterals;
using namespace tellwyn;
using namespace tellwyn::testing;

class TestHlvpServerClient : public QObject {
    Q_OBJECT

    QTemporaryDir identity;
    std::unique_ptr<HLVPServer> server;
    QList<std::shared_ptr<HLVPServerClient>> accepted;
    QStringList libraryLines;

    void startServer(HLVPServerClient::Settings settings) {
        HLVPServer::Options options;
        options.identityDirectory = identity.path();
        options.listenAddress = QHostAddress::LocalHost;
        options.client = std::move(settings);
        server = std::make_unique<HLVPServer>(freeLoopbackPort(), 4, options);
        server->setLogFunction([this](const QString& line, const QString& category) {
            libraryLines.append(u"[%1] %2"_s.arg(category, line));
        });
        server->setOnNewConnection([this](const std::shared_ptr<HLVPServerClient>& client, const QString&) {
            client->setLogFunction([this](const QString& line, const QString& category) {
                libraryLines.append(u"[%1] %2"_s.arg(category, line));
            });
            accepted.append(client);
        });
        bool started = false;
        server->start(this, [&](const std::optional<HLVPError>& error) { started = !error; });
        QTRY_VERIFY(started);
    }

    std::unique_ptr<HLVPConnection> connectViewer() {
        auto viewer = std::make_unique<HLVPConnection>();
        QSignalSpy ready(viewer.get(), &HLVPConnection::ready);
        viewer->connectToAgent(u"127.0.0.1"_s, server->port(), u"Unit Viewer"_s);
        return ready.wait(5000) ? std::move(viewer) : nullptr;
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
        startServer({});
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
        QTRY_VERIFY(client->connectionState() == HLVP::ConnectionState::disconnected);
        QVERIFY(!client->markAuthenticated());
        QVERIFY(client->connectionState() == HLVP::ConnectionState::disconnected);
        // Calling disconnect again, after the end, changes nothing.
        client->disconnect();
        QCOMPARE(states.size(), 2);
    }

    void sendingOnAClosedConnectionFailsLater() {
        startServer({});
        auto viewer = connectViewer();
        QVERIFY(viewer);
        const auto client = accepted.constFirst();
        viewer->abort();
        QTRY_VERIFY(client->connectionState() == HLVP::ConnectionState::disconnected);

        std::optional<std::optional<HLVPError>> outcome;
        client->sendEncryptedMessage(HeartbeatMessage{},
                                     [&](const std::optional<HLVPError>& error) { outcome = error; });
        QVERIFY(!outcome); // never in the caller's stack
        QTRY_VERIFY(outcome.has_value());
        QVERIFY(outcome->has_value());
        QVERIFY((*outcome)->code() == HLVPError::Code::notConnected);
    }

    void signedInTrafficIsRefusedBeforeSignInAndPassedOnAfter() {
        startServer({});
        auto viewer = connectViewer();
        QVERIFY(viewer);
        const auto client = accepted.constFirst();
        QList<HLVPMessage> delivered;
        client->setOnMessageReceived([&](const HLVPMessage& message) { delivered.append(message); });
        QList<HLVPMessage> toViewer;
        connect(viewer.get(), &HLVPConnection::messageReceived, this,
                [&](const HLVPMessage& message) { toViewer.append(message); });

        viewer->send(InputEventMessage{u"keyDown"_s, {}, {}, {}, 36, {}, {}});
        QTRY_COMPARE(toViewer.size(), 1);
        QCOMPARE(std::get<ErrorMessage>(toViewer.constFirst()).code, u"notAuthenticated"_s);
        QCOMPARE(std::get<ErrorMessage>(toViewer.constFirst()).refersTo,
                 std::optional<QString>(u"inputEvent"_s));
        QVERIFY(delivered.isEmpty());

        QVERIFY(client->markAuthenticated());
        viewer->send(InputEventMessage{u"keyDown"_s, {}, {}, {}, 36, {}, {}});
        QTRY_COMPARE(delivered.size(), 1);
        QVERIFY(std::holds_alternative<InputEventMessage>(delivered.constFirst()));
        QVERIFY(client->connectionState() == HLVP::ConnectionState::authenticated);
    }

    void aViewerHangsUpOnAnAgentThatSendsWhatOnlyViewersSend() {
        startServer({});
        auto viewer = connectViewer();
        QVERIFY(viewer);
        QSignalSpy failed(viewer.get(), &HLVPConnection::failed);
        accepted.constFirst()->sendEncryptedMessage(FileOfferMessage{u"t1"_s, u"a.txt"_s, 1, {}});
        QTRY_COMPARE_WITH_TIMEOUT(failed.size(), 1, 60000);
        QCOMPARE(failed.constFirst().at(1).toInt(), int(HLVPConnection::protocolError));
    }

    void aViewerThatStopsReadingIsCutOffInsteadOfBuffered() {
        HLVPServerClient::Settings settings;
        settings.maxPendingOutputBytes = 256 * 1024;
        startServer(settings);

        // A real TLS peer that is then frozen: it holds the connection open and reads nothing.
        QProcess peer;
        peer.setProgram(u"openssl"_s);
        peer.setArguments(
            {u"s_client"_s, u"-quiet"_s, u"-tls1_3"_s, u"-connect"_s, u"127.0.0.1:%1"_s.arg(server->port())});
        peer.start();
        QVERIFY(peer.waitForStarted());
        QTRY_COMPARE(accepted.size(), 1);
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
        QTRY_VERIFY(failure.has_value());
        QVERIFY(failure->code() == HLVPError::Code::sendFailed);
        QTRY_VERIFY(client->connectionState() == HLVP::ConnectionState::disconnected);
        QVERIFY(!libraryLines.filter(u"the viewer is not reading"_s).isEmpty());
        QVERIFY(libraryLines.filter(u"the viewer is not reading"_s)
                    .constFirst()
                    .startsWith(u"[SECURITY] Client %1: "_s.arg(client->clientKey())));

        ::kill(pid_t(peer.processId()), SIGCONT);
        peer.kill();
        peer.waitForFinished();
    }
};

QTEST_GUILESS_MAIN(TestHlvpServerClient)
#include "tst_hlvp_server_client.moc"
