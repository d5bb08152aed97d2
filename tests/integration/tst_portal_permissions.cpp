// The portal permission service against a scripted desktop portal on a private session bus (run
// inside dbus-run-session): what is allowed, what is asked, and what is remembered.

#include "event_wait.h"
#include "linux/portal_permission_service.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>
#include <memory>
#include <sys/stat.h>

using namespace Qt::StringLiterals;
using namespace tellwyn;

class TestPortalPermissions : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_home;
    std::unique_ptr<QProcess> m_portal;
    QStringList m_calls;

    QString grantsFile() const { return m_home->filePath(u"data/portal-grants"_s); }

    PortalPermissionService makeService() { return {QDBusConnection::sessionBus(), grantsFile()}; }

    bool startPortal(const QStringList& arguments = {}) {
        stopPortal();
        m_portal = std::make_unique<QProcess>();
        m_portal->start(qEnvironmentVariable("TELLWYN_FAKE_PORTAL", u"fake_xdg_portal"_s), arguments);
        if (!m_portal->waitForReadyRead(testing::eventDeadlineMs)) {
            return false;
        }
        return m_portal->readLine().trimmed() == "ready";
    }

    void stopPortal() {
        if (m_portal) {
            m_portal->kill();
            m_portal->waitForFinished(5000);
            m_portal.reset();
            // Until the bus has seen the name go, calls would still be routed to it.
            TRY_VERIFY(!QDBusConnection::sessionBus().interface()->isServiceRegistered(
                u"org.freedesktop.portal.Desktop"_s));
        }
    }

    // Every call the portal has printed so far, without the session paths.
    QStringList calls() {
        if (m_portal) {
            while (m_portal->canReadLine()) {
                QString line = QString::fromUtf8(m_portal->readLine().trimmed());
                if (line.startsWith(u"CreateSession "_s) || line.startsWith(u"Close "_s)) {
                    line = line.section(u' ', 0, line.startsWith(u"Close "_s) ? 0 : 1);
                }
                m_calls.append(line);
            }
        }
        return m_calls;
    }

    static void awaitAnswer(PortalPermissionService& service) { TRY_VERIFY(!service.isRequestPending()); }

private Q_SLOTS:
    void initTestCase() { QVERIFY(QDBusConnection::sessionBus().isConnected()); }

    void init() {
        m_home = std::make_unique<QTemporaryDir>();
        m_calls.clear();
    }

    void cleanup() { stopPortal(); }

    void withoutAPortalNothingIsAllowedOrRemembered() {
        PortalPermissionService service = makeService();
        QVERIFY(!service.screenCaptureAllowed());
        QVERIFY(!service.inputInjectionAllowed());
        QVERIFY(!service.requestScreenCapture());
        QVERIFY(!service.requestInputInjection());
        awaitAnswer(service); // the failed calls end the requests
        QVERIFY(!service.screenCaptureAllowed());
        QVERIFY(!QFile::exists(grantsFile()));
    }

    void anApprovedDialogIsRememberedAndRestoredNextTime() {
        QVERIFY(startPortal());
        {
            PortalPermissionService service = makeService();
            QVERIFY(!service.screenCaptureAllowed());
            QVERIFY(calls().isEmpty());               // a query never opens a dialog
            QVERIFY(!service.requestScreenCapture()); // answers before the user has
            awaitAnswer(service);
            QVERIFY(service.screenCaptureAllowed());
            QVERIFY(!service.inputInjectionAllowed()); // a screen cast grants no input
        }
        struct stat status {};
        QCOMPARE(::stat(QFile::encodeName(grantsFile()).constData(), &status), 0);
        QCOMPARE(status.st_mode & 0777, 0600U);

        // A new process holds the grant, and asking again restores it instead of asking the user.
        PortalPermissionService restarted = makeService();
        TRY_VERIFY(restarted.screenCaptureAllowed()); // once the portal has said what it offers
        QVERIFY(restarted.requestScreenCapture());
        awaitAnswer(restarted);
        TRY_COMPARE(calls().size(), 8);
        QCOMPARE(calls(), QStringList({
                              u"CreateSession org.freedesktop.portal.ScreenCast"_s,
                              u"SelectSources types=1 persist_mode=2 restore_token="_s,
                              u"Start answer=0"_s,
                              u"Close"_s,
                              u"CreateSession org.freedesktop.portal.ScreenCast"_s,
                              u"SelectSources types=1 persist_mode=2 restore_token=restore-1"_s,
                              u"Start answer=0"_s,
                              u"Close"_s,
                          }));
        QVERIFY(restarted.screenCaptureAllowed());
    }

    void inputIsAskedOfTheRemoteDesktopPortal() {
        QVERIFY(startPortal());
        PortalPermissionService service = makeService();
        QVERIFY(!service.requestInputInjection());
        awaitAnswer(service);
        QVERIFY(service.inputInjectionAllowed());
        QVERIFY(!service.screenCaptureAllowed());
        TRY_COMPARE(calls().size(), 4);
        QCOMPARE(calls().mid(0, 2), QStringList({u"CreateSession org.freedesktop.portal.RemoteDesktop"_s,
                                                 u"SelectDevices types=3 persist_mode=2 restore_token="_s}));
    }

    void aCancelledDialogTakesBackTheGrant() {
        QVERIFY(startPortal());
        PortalPermissionService service = makeService();
        service.requestScreenCapture();
        awaitAnswer(service);
        QVERIFY(service.screenCaptureAllowed());

        QVERIFY(startPortal({u"--start-answer"_s, u"1"_s}));
        QVERIFY(service.requestScreenCapture()); // still held while the dialog is open
        awaitAnswer(service);
        QVERIFY(!service.screenCaptureAllowed());
        QFile grants(grantsFile());
        QVERIFY(grants.open(QIODevice::ReadOnly));
        QVERIFY(!grants.readAll().contains("screenCastRestoreToken"));
    }

    void aGrantCountsOnlyWhileThePortalOffersIt() {
        QVERIFY(startPortal());
        PortalPermissionService service = makeService();
        service.requestScreenCapture();
        service.requestInputInjection();
        awaitAnswer(service);
        QVERIFY(service.screenCaptureAllowed());
        QVERIFY(service.inputInjectionAllowed());

        // No monitors to cast, no pointer to move. A query never waits on the bus: it answers
        // from the portal's last reply and asks again in the background.
        QVERIFY(startPortal({u"--source-types"_s, u"6"_s, u"--device-types"_s, u"1"_s}));
        TRY_VERIFY(!service.screenCaptureAllowed());
        TRY_VERIFY(!service.inputInjectionAllowed());

        stopPortal();
        QVERIFY(startPortal());
        TRY_VERIFY(service.screenCaptureAllowed());
        stopPortal();
        TRY_VERIFY(!service.screenCaptureAllowed());
        TRY_VERIFY(!service.inputInjectionAllowed());
    }

    void noSettingsOpenOverAnOpenDialog() {
        // A settings program of our own, to see when it is started.
        const QString bin = m_home->filePath(u"bin"_s);
        QVERIFY(QDir().mkpath(bin));
        const QString marker = m_home->filePath(u"settings-opened"_s);
        QFile program(bin + u"/gnome-control-center"_s);
        QVERIFY(program.open(QIODevice::WriteOnly));
        program.write("#!/bin/sh\necho \"$@\" >> '" + QFile::encodeName(marker) + "'\n");
        program.close();
        QVERIFY(
            program.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner));
        const QByteArray path = qgetenv("PATH");
        qputenv("PATH", QFile::encodeName(bin) + ':' + path);
        const auto restorePath = qScopeGuard([path] { qputenv("PATH", path); });

        QVERIFY(startPortal());
        PortalPermissionService service = makeService();
        service.requestScreenCapture();
        QVERIFY(!service.openSettings(PermissionService::SettingsPage::screenRecording));
        awaitAnswer(service);
        QVERIFY(service.openSettings(PermissionService::SettingsPage::screenRecording));
        const auto opened = [&marker] {
            QFile file(marker);
            return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        };
        TRY_COMPARE(opened(), QByteArray("privacy\n"));
    }

    void oneDialogAtATimePerKind() {
        QVERIFY(startPortal());
        PortalPermissionService service = makeService();
        service.requestScreenCapture();
        service.requestScreenCapture();
        service.requestInputInjection();
        awaitAnswer(service);
        TRY_COMPARE(calls().size(), 8);
        QCOMPARE(calls().filter(u"CreateSession"_s).size(), 2);
        QCOMPARE(calls().filter(u"SelectSources"_s).size(), 1);
    }
};

QTEST_GUILESS_MAIN(TestPortalPermissions)
#include "tst_portal_permissions.moc"
