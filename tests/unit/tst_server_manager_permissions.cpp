// Permissions: the 300 s cache, the guard of the full refresh, requests and their re-checks,
// the relaunch flag and one test capture at a time. Fakes and virtual time.

#include "hlvp_screen_capture.h"
#include "log_lines.h"
#include "manager_fixture.h"
#include "server_manager_access.h"

#include <QTest>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace tellwyn;
using namespace tellwyn::testing;

namespace {

// Holds each capture until the test answers it.
struct HeldCaptures {
    QList<HLVPScreenCapture::Completion> pending;
    int cleanups = 0;
};

class FakeScreenCapture final : public HLVPScreenCapture {
public:
    explicit FakeScreenCapture(HeldCaptures& held) : m_held(held) {}
    void captureScreen(quint32, double quality, QObject*, Completion done) override {
        QCOMPARE(quality, 0.05);
        m_held.pending.append(std::move(done));
    }
    void cleanup() override { ++m_held.cleanups; }

private:
    HeldCaptures& m_held;
};

} // namespace

class TestServerManagerPermissions : public QObject, ManagerFixture {
    Q_OBJECT

    HeldCaptures captures;
    ServerManagerTestAccess access() { return ServerManagerTestAccess(*manager); }

    int freshScreenQueries() {
        return int(
            loggedLines().filter(u"[PERMISSIONS] Screen recording permission status refreshed"_s).size());
    }
    QString status() const { return manager->serverState().statusMessage; }
    void answerCapture(bool success) {
        auto done = captures.pending.takeFirst();
        if (success) {
            done(ScreenCaptureMessage{0, 1, 1, "jpeg", std::nullopt});
        } else {
            done(HLVPError(HLVPError::Code::captureFailed, u"no picture"_s));
        }
        VirtualTime::drainEvents();
    }

private Q_SLOTS:
    void initTestCase() { ServerLogManager::shared().setEchoToStandardOutput(false); }

    void init() {
        resetFakes();
        captures = HeldCaptures();
        displays.count = 1;
        AgentEnvironment environment = fakeEnvironment();
        environment.permissions = &permissions;
        environment.makeScreenCapture = [this] {
            return std::make_unique<FakeScreenCapture>(captures);
        };
        startManager(environment);
        ServerLogManager::shared().clearLogs();
        VirtualTime::drainEvents();
    }

    void cleanup() { manager.reset(); }

    void answersAreCachedForLessThanThreeHundredSeconds() {
        permissions.captureAllowed = true;
        access().checkScreenCapturePermission();
        VirtualTime::drainEvents();
        QCOMPARE(freshScreenQueries(), 1);
        QCOMPARE(status(), u"Ready for connections"_s);
        time->advance(299s);
        access().checkScreenCapturePermission();
        VirtualTime::drainEvents();
        QCOMPARE(freshScreenQueries(), 1);
        QVERIFY(
            loggedLines().contains(u"[PERMISSIONS] Screen capture permissions loaded from cache: true"_s));
        time->advance(1s);
        permissions.captureAllowed = false;
        access().checkScreenCapturePermission();
        VirtualTime::drainEvents();
        QCOMPARE(freshScreenQueries(), 2);
        QVERIFY(!manager->permissionState().screenCaptureAuthorized);
        QCOMPARE(status(), u"Ready to start remote service"_s); // the server is not running
    }

    void aFullRefreshWithinTheGuardSecondIsSkipped() {
        manager->refreshAllPermissions();
        VirtualTime::drainEvents();
        QVERIFY(manager->isRefreshingPermissions());
        time->advance(999ms);
        manager->refreshAllPermissions();
        QVERIFY(loggedLines().contains(u"[PERMISSIONS] Permission check already in progress, skipping"_s));
        QCOMPARE(freshScreenQueries(), 1);
        time->advance(1ms);
        QVERIFY(!manager->isRefreshingPermissions());
        manager->refreshAllPermissions();
        VirtualTime::drainEvents();
        QCOMPARE(freshScreenQueries(), 2);
    }

    void aRequestThatLeavesTheProcessWithoutAccessAsksForARelaunchAndRechecks() {
        permissions.requestAnswer = true; // the user said yes, but this process still cannot capture
        QStringList statuses;
        connect(manager.get(), &ServerManager::serverStateChanged, this,
                [&] { statuses.append(manager->serverState().statusMessage); });
        manager->requestScreenCapturePermission();
        // The relaunch text is shown at once; the fresh query the request posted then says what it finds.
        QCOMPARE(
            status(),
            u"Screen recording is not allowed yet. Answer the desktop's screen-sharing dialog to activate remote viewing."_s);
        VirtualTime::drainEvents();
        QVERIFY(manager->screenCaptureRequiresRelaunch());
        QCOMPARE(statuses.constLast(), u"Ready to start remote service"_s);
        QVERIFY(loggedInOrder(
            {u"[PERMISSIONS] Screen recording permission request returned: true"_s,
             u"[PERMISSIONS] Screen recording request completed, but the desktop has not allowed screen "
             u"sharing yet"_s,
             u"[PERMISSIONS] Opened the desktop's settings for screen sharing"_s}));
        QCOMPARE(permissions.openedPages.constFirst(), PermissionService::SettingsPage::screenSharing);
        const int afterRequest = freshScreenQueries();
        // Re-checks 1, 3 and 6 s later, each a fresh query.
        time->advance(1s);
        QCOMPARE(freshScreenQueries(), afterRequest + 1);
        time->advance(2s);
        QCOMPARE(freshScreenQueries(), afterRequest + 2);
        permissions.captureAllowed = true; // the grant takes effect
        time->advance(3s);
        QCOMPARE(freshScreenQueries(), afterRequest + 3);
        QVERIFY(!manager->screenCaptureRequiresRelaunch());
        time->advance(60s);
        QCOMPARE(freshScreenQueries(), afterRequest + 3);
    }

    void aRequestWhenAlreadyGrantedOnlyClearsTheCache() {
        permissions.captureAllowed = true;
        access().screenCaptureStartupPreflight();
        QVERIFY(access().cachedPermission(u"screenCapture"_s));
        const int pending = time->pendingTimerCount();
        manager->requestScreenCapturePermission();
        QVERIFY(!access().cachedPermission(u"screenCapture"_s));
        QVERIFY(loggedLines().contains(
            u"[PERMISSIONS] Screen capture permissions already granted, skipping request"_s));
        QCOMPARE(permissions.screenCaptureRequests, 0);
        QCOMPARE(time->pendingTimerCount(), pending);
    }

    void oneTestCaptureAtATimeAndItsOutcomeSetsTheStatus() {
        permissions.captureAllowed = true;
        // Granted by the preflight of the request: one validation, no re-checks.
        manager->requestScreenCapturePermission();
        QVERIFY(loggedLines().contains(
            u"[PERMISSIONS] Screen recording permission already granted by preflight"_s));
        QCOMPARE(captures.pending.size(), 1);
        access().validateScreenCaptureRuntime();
        QCOMPARE(captures.pending.size(), 1);
        answerCapture(false);
        QCOMPARE(captures.cleanups, 1);
        QCOMPARE(status(),
                 u"Screen recording is granted, but capture validation failed. Relaunch TellwynAgent if "
                 u"remote viewing does not start."_s);
        QVERIFY(loggedLines().contains(u"[PERMISSIONS] Screen capture validation failed: no picture"_s));
        access().validateScreenCaptureRuntime();
        answerCapture(true);
        QCOMPARE(status(), u"Ready for connections"_s);
        QVERIFY(manager->permissionState().screenCaptureAuthorized);

        displays.count = 0;
        access().validateScreenCaptureRuntime();
        QVERIFY(captures.pending.isEmpty());
        QVERIFY(loggedLines().contains(
            u"[PERMISSIONS] Skipping screen capture runtime validation on headless server"_s));
    }

    void accessibilityIsQueriedThenCached() {
        permissions.inputAllowed = true;
        access().checkAccessibilityPermission();
        VirtualTime::drainEvents();
        QVERIFY(manager->permissionState().accessibilityAuthorized);
        access().checkAccessibilityPermission();
        VirtualTime::drainEvents();
        QVERIFY(loggedInOrder({u"[PERMISSIONS] Checking accessibility permissions"_s,
                               u"[PERMISSIONS] Accessibility permission status refreshed: true"_s,
                               u"[PERMISSIONS] Accessibility permissions granted"_s,
                               u"[PERMISSIONS] Accessibility permissions loaded from cache: true"_s}));
    }
};

QTEST_GUILESS_MAIN(TestServerManagerPermissions)
#include "tst_server_manager_permissions.moc"
