#include "linux_system_identity.h"

#include <QSysInfo>
#include <QTemporaryFile>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace tellwyn;

class TestSystemIdentity : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void prettyNameAsHostnamedWritesIt_data() {
        QTest::addColumn<QByteArray>("machineInfo");
        QTest::addColumn<QString>("expected");
        QTest::newRow("plain") << QByteArray("CHASSIS=laptop\nPRETTY_HOSTNAME=Lab-PC\n") << u"Lab-PC"_s;
        QTest::newRow("double quotes and escapes")
            << QByteArray("PRETTY_HOSTNAME=\"Anna's \\\"Büro\\\" PC\"\n") << u"Anna's \"Büro\" PC"_s;
        QTest::newRow("single quotes") << QByteArray("PRETTY_HOSTNAME='Lab \\ PC'") << u"Lab \\ PC"_s;
        QTest::newRow("not set") << QByteArray("DEPLOYMENT=production\n") << QString();
    }
    void prettyNameAsHostnamedWritesIt() {
        QFETCH(QByteArray, machineInfo);
        QFETCH(QString, expected);
        QCOMPARE(LinuxSystemIdentity::prettyHostname(machineInfo), expected);
    }

    void withoutAPrettyNameTheHostNameIsUsed() {
        QTemporaryFile machineInfo;
        QVERIFY(machineInfo.open());
        machineInfo.write("PRETTY_HOSTNAME=\"Front Desk\"\n");
        machineInfo.flush();
        QCOMPARE(LinuxSystemIdentity(machineInfo.fileName()).localizedComputerName(),
                 std::optional<QString>(u"Front Desk"_s));
        QCOMPARE(LinuxSystemIdentity(u"/nonexistent/machine-info"_s).localizedComputerName(),
                 std::optional<QString>(QSysInfo::machineHostName()));
    }
};

QTEST_GUILESS_MAIN(TestSystemIdentity)
#include "tst_system_identity.moc"
