#include "event_wait.h"
#include "linux/freedesktop_file_revealer.h"

#include <QDBusConnection>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace tellwyn;

// Stands in for the desktop's file manager on a private bus.
class FakeFileManager : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.FileManager1")
public:
    QList<QStringList> shown;
public Q_SLOTS:
    void ShowItems(const QStringList& uris, const QString& startupId) {
        Q_UNUSED(startupId)
        shown.append(uris);
    }
};

class TestFileRevealer : public QObject {
    Q_OBJECT

    QProcess m_daemon;
    QString m_address;

    QDBusConnection connect(const QString& name) { return QDBusConnection::connectToBus(m_address, name); }

private Q_SLOTS:
    void initTestCase() {
        m_daemon.start(u"dbus-daemon"_s, {u"--session"_s, u"--nofork"_s, u"--print-address=1"_s});
        QVERIFY2(m_daemon.waitForStarted(), "dbus-daemon is needed (package dbus-daemon)");
        QVERIFY(QTest::qWaitFor([this] { return m_daemon.canReadLine(); }, testing::eventDeadlineMs));
        m_address = QString::fromUtf8(m_daemon.readLine()).trimmed();
        QVERIFY(!m_address.isEmpty());
    }
    void cleanupTestCase() {
        m_daemon.terminate();
        m_daemon.waitForFinished();
    }

    void theFileManagerShowsTheFile() {
        QDBusConnection managerBus = connect(u"manager"_s);
        FakeFileManager manager;
        QVERIFY(managerBus.registerObject(u"/org/freedesktop/FileManager1"_s, &manager,
                                          QDBusConnection::ExportAllSlots));
        QVERIFY(managerBus.registerService(u"org.freedesktop.FileManager1"_s));

        QList<QUrl> opened;
        FreedesktopFileRevealer revealer(connect(u"agent1"_s),
                                         [&opened](const QUrl& url) { opened.append(url); });
        revealer.reveal(u"/tmp/Down loads/TellwynAgent (1).deb"_s);
        TRY_COMPARE(manager.shown.size(), 1);
        QCOMPARE(manager.shown.constFirst(),
                 QStringList{u"file:///tmp/Down%20loads/TellwynAgent%20(1).deb"_s});
        QTest::qWait(0);
        QVERIFY(opened.isEmpty());

        managerBus.unregisterService(u"org.freedesktop.FileManager1"_s);
        QDBusConnection::disconnectFromBus(u"manager"_s);
    }

    // Without a file manager on the bus, or without a bus, the folder opens instead.
    void withoutAFileManagerTheFolderOpens_data() {
        QTest::addColumn<bool>("bus");
        QTest::newRow("no file manager") << true;
        QTest::newRow("no session bus") << false;
    }
    void withoutAFileManagerTheFolderOpens() {
        QFETCH(bool, bus);
        QList<QUrl> opened;
        FreedesktopFileRevealer revealer(bus ? connect(u"agent2"_s) : QDBusConnection(u"never-connected"_s),
                                         [&opened](const QUrl& url) { opened.append(url); });
        revealer.reveal(u"/tmp/Downloads/TellwynAgent.deb"_s);
        TRY_COMPARE(opened, QList<QUrl>{QUrl::fromLocalFile(u"/tmp/Downloads"_s)});
    }
};

QTEST_GUILESS_MAIN(TestFileRevealer)
#include "tst_file_revealer.moc"
