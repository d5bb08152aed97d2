#include "event_wait.h"
#include "fake_discovery.h"
#include "log_lines.h"
#include "manager_fixture.h"
#include "server_log_manager.h"
#include "server_manager_access.h"
#include "service_advertiser.h"

#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <memory>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace tellwyn;
using namespace tellwyn::testing;

Q_DECLARE_METATYPE(std::optional<QString>)

namespace {

bool acceptsConnections(quint16 port) {
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    return socket.waitForConnected(eventDeadlineMs);
}

} // namespace

class TestServerManagerLifecycle : public QObject, ManagerFixture {
    Q_OBJECT

    FakeServicePublisher* publisher = nullptr;
    std::unique_ptr<ServiceAdvertiser> advertiser;
    quint16 port = 0;
    QStringList statusHistory;

    // A manager on the fakes whose settings load is still posted.
    void makeManager(AgentEnvironment environment) {
        manager = std::make_unique<ServerManager>(environment);
        connect(manager.get(), &ServerManager::serverStateChanged, this, [this, m = manager.get()] {
            if (statusHistory.isEmpty() || statusHistory.constLast() != m->serverState().statusMessage) {
                statusHistory.append(m->serverState().statusMessage);
            }
        });
    }
    void makeManager() { makeManager(fakeEnvironment(advertiser.get())); }

    // A manager whose settings are loaded, with the free port stored.
    void loadedManager() {
        preferences.set(u"serverPort"_s, port);
        makeManager();
        VirtualTime::drainEvents();
    }

    void startAndSettle() {
        bool done = false;
        manager->startServer([&] { done = true; });
        VirtualTime::drainEvents();
        QVERIFY(done);
    }

private Q_SLOTS:
    void initTestCase() { ServerLogManager::shared().setEchoToStandardOutput(false); }

    void init() {
        manager.reset();
        advertiser.reset();
        resetFakes();
        auto ownedPublisher = std::make_unique<FakeServicePublisher>();
        publisher = ownedPublisher.get();
        advertiser = std::make_unique<ServiceAdvertiser>(
            std::move(ownedPublisher), std::make_unique<FakeNetworkPathMonitor>(), *time, identity);
        port = freeLoopbackPort();
        statusHistory.clear();
    }

    void cleanup() { manager.reset(); }

    void firstLaunchLoadsDefaultsAfterConstruction() {
        preferences.set(u"customUsername"_s, u"mallory"_s);
        makeManager();
        QVERIFY(ServerManagerTestAccess(*manager).server() ==
                nullptr); // the settings load is posted, not run in place
        QCOMPARE(manager->serverState().statusMessage, u"Agent not started"_s);
        QCOMPARE(manager->permissionState().accountStatus, u"Initializing..."_s);
        VirtualTime::drainEvents();

        const SettingsState& settings = manager->settingsState();
        QCOMPARE(settings.currentUsername, u"alice"_s);
        QCOMPARE(settings.autoStartServer, false);
        QCOMPARE(settings.serverPort, HLVP::defaultPort);
        QCOMPARE(settings.enableFileTransfers, true);
        QCOMPARE(settings.enableClipboardSharing, true);
        QCOMPARE(settings.enableLoginItems, false);
        QCOMPARE(settings.isFirstLaunch, true);
        QCOMPARE(manager->permissionState().accountStatus, u"✅ Using this computer's current account"_s);
        QCOMPARE(preferences.values.value(u"useSystemCredentials"_s), QVariant(true));
        QVERIFY(!preferences.values.contains(u"customUsername"_s));

        QVERIFY(ServerManagerTestAccess(*manager).server() != nullptr);
        QCOMPARE(ServerManagerTestAccess(*manager).server()->port(), HLVP::defaultPort);
        QCOMPARE(ServerManagerTestAccess(*manager).server()->maxConnections(), 32);
        QVERIFY(!manager->serverState().isRunning);
        QCOMPARE(manager->serverState().statusMessage, u"Agent not started"_s);
        QVERIFY(loggedInOrder(
            {u"[INIT] AgentManager initialized"_s,
             u"[AUTH] Server configured to use this computer's current account for user: alice"_s,
             u"[SERVER] Auto-start server setting loaded: disabled"_s, u"[SERVER] Loaded server port: 5905"_s,
             u"[SERVER] Setting up HLVP server"_s, u"[SERVER] Server setup completed"_s}));
        time->advance(10s);
        QVERIFY(!loggedLines().contains(u"[SERVER] Attempting to start HLVP server"_s));
    }

    void storedPortIsUsedOnlyWhenInRange_data() {
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<int>("expected");
        QTest::newRow("zero") << QVariant(0) << 5905;
        QTest::newRow("above range") << QVariant(70000) << 5905;
        QTest::newRow("text") << QVariant(u"abc"_s) << 5905;
        QTest::newRow("lowest") << QVariant(1) << 1;
        QTest::newRow("highest") << QVariant(65535) << 65535;
        QTest::newRow("INI text number") << QVariant(u"6000"_s) << 6000;
    }
    void storedPortIsUsedOnlyWhenInRange() {
        QFETCH(QVariant, stored);
        QFETCH(int, expected);
        preferences.set(u"serverPort"_s, stored);
        makeManager();
        VirtualTime::drainEvents();
        QCOMPARE(int(manager->settingsState().serverPort), expected);
        QVERIFY(loggedLines().contains(u"[SERVER] Loaded server port: %1"_s.arg(expected)));
    }

    // A port from the command line replaces the stored one and is kept for the next start.
    void commandLinePortReplacesTheStoredOneAndIsKept() {
        preferences.set(u"serverPort"_s, 6000);
        AgentEnvironment environment = fakeEnvironment(advertiser.get());
        environment.port = quint16(6123);
        makeManager(environment);
        VirtualTime::drainEvents();
        QCOMPARE(manager->settingsState().serverPort, quint16(6123));
        QCOMPARE(preferences.values.value(u"serverPort"_s).toInt(), 6123);
    }

    void featureSwitchesCountAnythingButABooleanAsOn_data() {
        QTest::addColumn<QVariant>("stored"); // invalid: absent
        QTest::addColumn<bool>("expected");
        QTest::newRow("absent") << QVariant() << true;
        QTest::newRow("false") << QVariant(false) << false;
        QTest::newRow("INI false") << QVariant(u"false"_s) << false;
        QTest::newRow("true") << QVariant(true) << true;
        QTest::newRow("number zero") << QVariant(0) << true;
    }
    void featureSwitchesCountAnythingButABooleanAsOn() {
        QFETCH(QVariant, stored);
        QFETCH(bool, expected);
        if (stored.isValid()) {
            preferences.set(u"enableFileTransfers"_s, stored);
            preferences.set(u"enableClipboardSharing"_s, stored);
        }
        preferences.set(u"enableLoginItems"_s, true);
        preferences.set(u"isFirstLaunch"_s, false);
        makeManager();
        VirtualTime::drainEvents();
        QCOMPARE(manager->settingsState().enableFileTransfers, expected);
        QCOMPARE(manager->settingsState().enableClipboardSharing, expected);
        QCOMPARE(manager->settingsState().enableLoginItems, true);
        QCOMPARE(manager->settingsState().isFirstLaunch, false);
    }

    void autoStartBeginsOneSecondAfterTheSettingsLoad() {
        preferences.set(u"autoStartServer"_s, true);
        loadedManager();
        QVERIFY(loggedInOrder({u"[SERVER] Auto-start server setting loaded: enabled"_s,
                               u"[SERVER] Server setup completed"_s,
                               u"[SERVER] Auto-start enabled - attempting to start server"_s}));
        time->advance(999ms);
        QVERIFY(!loggedLines().contains(u"[SERVER] Attempting to start HLVP server"_s));
        QVERIFY(!manager->serverState().isRunning);
        time->advance(1ms);
        QVERIFY(loggedLines().contains(u"[SERVER] Attempting to start HLVP server"_s));
        QVERIFY(manager->serverState().isRunning);
        QCOMPARE(ServerManagerTestAccess(*manager).activeTaskCount(),
                 0); // the start task was tracked and let go when done
        QVERIFY(acceptsConnections(port));
    }

    void headlessStartGrantsCaptureAndEndsOnTheRunningText() {
        loadedManager();
        startAndSettle();

        QVERIFY(manager->serverState().isRunning);
        QVERIFY(manager->permissionState().screenCaptureAuthorized);
        QCOMPARE(statusHistory, QStringList({u"Headless mode - screen capture disabled"_s,
                                             u"Remote service started successfully"_s,
                                             u"Remote service running on port %1"_s.arg(port)}));
        QVERIFY(loggedInOrder({
            u"[SERVER] Attempting to start HLVP server"_s,
            u"[SERVER] Headless server detected - no displays available"_s,
            u"[SERVER] Headless mode detected - allowing server to run without screen capture"_s,
            u"[SERVER] Starting remote service on port %1"_s.arg(port),
            u"[DNS-SD] Started DNS-SD service publishing"_s,
            u"[SERVER] Remote service startup completed successfully"_s,
            u"[SERVER] HLVP Server startup sequence completed - Port: %1, Mode: Headless"_s.arg(port),
            u"[SERVER] Check logs for connection attempts"_s,
        }));
        QVERIFY(acceptsConnections(port));
        QCOMPARE(time->pendingTimerCount(), 1); // the clean-up timer
    }

    void startAdvertisesPortAndComputerNameAndStopWithdraws_data() {
        QTest::addColumn<std::optional<QString>>("computerName");
        QTest::addColumn<QString>("instanceName");
        QTest::newRow("named computer")
            << std::optional<QString>(u"Alice's Workstation"_s) << u"TellwynAgent - Alice's Workstation"_s;
        QTest::newRow("no name") << std::optional<QString>() << u"TellwynAgent - Unknown Computer"_s;
    }

    void startAdvertisesPortAndComputerNameAndStopWithdraws() {
        QFETCH(std::optional<QString>, computerName);
        QFETCH(QString, instanceName);
        identity.computerName = computerName;
        loadedManager();
        startAndSettle();

        QCOMPARE(publisher->services.size(), 1);
        QPointer<FakePublishedService> service = publisher->latest();
        QCOMPARE(service->description.name, instanceName);
        QCOMPARE(service->description.port, port);
        Q_EMIT service->didPublish(service->description.name, port);
        VirtualTime::drainEvents();
        QCOMPARE(advertiser->publishedPort(), port);

        manager->stopServer();
        QVERIFY(service.isNull() || service->stopped);
        VirtualTime::drainEvents();
        QCOMPARE(advertiser->publishedPort(), quint16(0));
    }

    void startWithDisplaysButNoCapturePermissionWarnsAndStarts() {
        displays.count = 2;
        loadedManager();
        startAndSettle();
        QVERIFY(manager->serverState().isRunning);
        QVERIFY(!manager->permissionState().screenCaptureAuthorized);
        QCOMPARE(
            statusHistory.constFirst(),
            u"Warning: Screen recording not yet authorized. Grant permission in TellwynAgent settings."_s);
        QVERIFY(loggedInOrder({
            u"[SERVER] Display detected: 2 screen(s) available"_s,
            u"[WARN] Screen recording permission not granted - server will start but capture will be gated"_s,
            u"[SERVER] HLVP Server startup sequence completed - Port: %1, Mode: Normal"_s.arg(port),
        }));
    }

    void startOnAPortInUseFailsWithTheReason() {
        QTcpServer occupant;
        QVERIFY(occupant.listen(QHostAddress::LocalHost, port));
        loadedManager();
        startAndSettle();

        const QString reason = u"Port %1 is already in use by another program."_s.arg(port);
        QVERIFY(!manager->serverState().isRunning);
        QCOMPARE(manager->serverState().statusMessage, u"Failed to start remote service: "_s + reason);
        QVERIFY(loggedInOrder({
            u"[ERROR] Remote service startup failed: "_s + reason,
            u"[ERROR] Failed to start remote service: HLVPError.addressInUse(\"%1\")"_s.arg(reason),
            u"[SERVER] Check logs for connection attempts"_s,
        }));
        QVERIFY(!loggedLines().contains(u"[DNS-SD] Started DNS-SD service publishing"_s));
        QCOMPARE(time->pendingTimerCount(), 0); // no clean-up timer

        // The user may try again once the port is free.
        occupant.close();
        startAndSettle();
        QVERIFY(manager->serverState().isRunning);
    }

    void unusableDataFolderFailsTheStartWithAClearReason() {
        QTemporaryDir scratch;
        QFile blocker(scratch.filePath(u"not-a-folder"_s));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        preferences.set(u"serverPort"_s, port);
        AgentEnvironment environment = fakeEnvironment(advertiser.get());
        environment.dataDirectory = blocker.fileName() + u"/data"_s;
        makeManager(environment);
        VirtualTime::drainEvents();
        startAndSettle();
        QVERIFY(!manager->serverState().isRunning);
        QVERIFY(manager->serverState().statusMessage.startsWith(
            u"Failed to start remote service: Cannot create"_s));
    }

    void cleanupTimerLivesExactlyWhileTheServerRuns() {
        loadedManager();
        startAndSettle();
        QCOMPARE(time->pendingTimerCount(), 1);

        // A stop reported by the library.
        ServerManagerTestAccess(*manager).server()->stop();
        VirtualTime::drainEvents();
        QVERIFY(!manager->serverState().isRunning);
        QCOMPARE(manager->serverState().statusMessage, u"Remote service stopped"_s);
        QCOMPARE(time->pendingTimerCount(), 0);

        startAndSettle();
        QCOMPARE(time->pendingTimerCount(), 1);
        manager->stopServer();
        QCOMPARE(time->pendingTimerCount(), 0);
        QVERIFY(!acceptsConnections(port));
    }

    void portChangeWhileRunningRestartsOnTheNewPort() {
        loadedManager();
        startAndSettle();
        HLVPServer* const before = ServerManagerTestAccess(*manager).server();
        const quint16 newPort = freeLoopbackPort();

        QList<bool> configuring;
        connect(manager.get(), &ServerManager::isConfiguringPortChanged, this,
                [&] { configuring.append(manager->isConfiguringPort()); });
        statusHistory.clear();
        bool done = false;
        manager->updateServerPort(newPort, [&] { done = true; });
        QVERIFY(manager->isConfiguringPort());
        VirtualTime::drainEvents();
        QVERIFY(done);
        QCOMPARE(configuring, QList<bool>({true, false}));
        // The replaced server's late "stopped" does not flicker through the status.
        QCOMPARE(statusHistory.count(u"Remote service stopped"_s), 1);
        QCOMPARE(statusHistory.constLast(), u"Remote service running on port %1"_s.arg(newPort));

        QVERIFY(ServerManagerTestAccess(*manager).server() != before);
        QCOMPARE(ServerManagerTestAccess(*manager).server()->port(), newPort);
        QVERIFY(manager->serverState().isRunning);
        QCOMPARE(preferences.values.value(u"serverPort"_s).toInt(), int(newPort));
        QVERIFY(acceptsConnections(newPort));
        QVERIFY(!acceptsConnections(port));
        // The stop and start lines themselves are pinned by the start and termination tests.
        QVERIFY(loggedInOrder({u"[SERVER] Server port updated to %1"_s.arg(newPort),
                               u"[SERVER] Starting remote service on port %1"_s.arg(newPort)}));
    }

    void portChangeWhileStoppedIsUsedByTheNextStart() {
        loadedManager();
        const quint16 newPort = freeLoopbackPort();
        bool done = false;
        manager->updateServerPort(newPort, [&] { done = true; });
        QVERIFY(done);
        QVERIFY(!manager->isConfiguringPort());
        QCOMPARE(preferences.values.value(u"serverPort"_s).toInt(), int(newPort));
        QVERIFY(!manager->serverState().isRunning);
        startAndSettle();
        QVERIFY(acceptsConnections(newPort));
        QVERIFY(!acceptsConnections(port));
        QCOMPARE(manager->serverState().statusMessage, u"Remote service running on port %1"_s.arg(newPort));
    }

    void autoStartSettingIsStoredWithoutStartingOrStopping() {
        loadedManager();
        manager->setAutoStartServer(true);
        QCOMPARE(preferences.values.value(u"autoStartServer"_s), QVariant(true));
        QVERIFY(manager->settingsState().autoStartServer);
        QVERIFY(!manager->serverState().isRunning);
        manager->setAutoStartServer(false);
        QCOMPARE(preferences.values.value(u"autoStartServer"_s), QVariant(false));
        QVERIFY(loggedInOrder(
            {u"[SERVER] Auto-start server enabled"_s, u"[SERVER] Auto-start server disabled"_s}));
    }

    void sleepAndWakeKeepTheServerAndSetTheirTexts() {
        loadedManager();
        startAndSettle();
        Q_EMIT events.screensDidSleep();
        QCOMPARE(manager->serverState().statusMessage, u"System sleeping - streams paused"_s);
        Q_EMIT events.screensDidWake();
        VirtualTime::drainEvents();
        QCOMPARE(manager->serverState().statusMessage, u"System resumed - ready for streams"_s);
        QVERIFY(manager->serverState().isRunning);
        QVERIFY(acceptsConnections(port));
        QVERIFY(loggedInOrder({u"[SERVER] System going to sleep - stopping all client streams"_s,
                               u"[SERVER] System waking up - resuming services"_s}));
    }

    void terminationWhileRunningStopsAndLogsInOrder() {
        loadedManager();
        startAndSettle();
        ServerLogManager::shared().clearLogs();
        VirtualTime::drainEvents();

        Q_EMIT events.willTerminate();
        // Handled inside the notification: nothing needs the event loop.
        QVERIFY(!manager->serverState().isRunning);
        QVERIFY(ServerManagerTestAccess(*manager).server() != nullptr);
        QCOMPARE(loggedLines(), QStringList({u"[SERVER] Application terminating - cleaning up resources"_s,
                                             u"[SERVER] Stopping HLVP server"_s,
                                             u"[DNS-SD] Stopped DNS-SD service publishing"_s,
                                             u"[SERVER] Remote service stopped successfully"_s,
                                             u"[SERVER] All subscriptions cancelled"_s}));
        QVERIFY(!acceptsConnections(port));
    }

    void stoppingAStoppedServerRunsEveryStep() {
        loadedManager();
        manager->stopServer();
        manager->stopServer();
        const QStringList lines = loggedLines();
        QCOMPARE(lines.count(u"[SERVER] Stopping HLVP server"_s), 2);
        QCOMPARE(lines.count(u"[SERVER] Remote service stopped successfully"_s), 2);
        QCOMPARE(manager->serverState().statusMessage, u"Remote service stopped"_s);
    }

    void stopCancelsTrackedTasks() {
        loadedManager();
        const TaskPtr finishing = Task::create();
        const TaskPtr pending = Task::create();
        ServerManagerTestAccess(*manager).trackTask(finishing);
        ServerManagerTestAccess(*manager).trackTask(pending);
        QCOMPARE(ServerManagerTestAccess(*manager).activeTaskCount(), 2);
        finishing->finish();
        QCOMPARE(ServerManagerTestAccess(*manager).activeTaskCount(), 1);
        manager->stopServer();
        QVERIFY(pending->isCancelled());
        QVERIFY(!finishing->isCancelled());
        QCOMPARE(ServerManagerTestAccess(*manager).activeTaskCount(), 0);
    }
};

QTEST_GUILESS_MAIN(TestServerManagerLifecycle)
#include "tst_server_manager_lifecycle.moc"
