// The computer's display name: machine-info's pretty host name, read without D-Bus, with its
// quoting undone; the host name when none is set.

#include "linux/linux_system_identity.h"

#include <QFile>
#include <QSysInfo>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace tellwyn;

class TestSystemIdentity : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void theDisplayNameIsThePrettyHostName_data() {
        QTest::addColumn<QByteArray>("machineInfo");
        QTest::addColumn<QString>("expected");
        QTest::newRow("double quotes and escapes")
            << QByteArray(
                   "ICON_NAME=computer-laptop\nPRETTY_HOSTNAME=\"Ana's \\\"Office\\\" PC\"\nCHASSIS=laptop\n")
            << u"Ana's \"Office\" PC"_s;
        QTest::newRow("single quotes keep backslashes")
            << QByteArray("PRETTY_HOSTNAME='Lab\\3 – Bench'\n") << u"Lab\\3 – Bench"_s;
        QTest::newRow("bare word") << QByteArray("PRETTY_HOSTNAME=Kitchen\n") << u"Kitchen"_s;
    }

    void theDisplayNameIsThePrettyHostName() {
        QFETCH(QByteArray, machineInfo);
        QFETCH(QString, expected);
        QTemporaryDir folder;
        QFile file(folder.filePath(u"machine-info"_s));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(machineInfo);
        file.close();
        QCOMPARE(LinuxSystemIdentity(file.fileName()).localizedComputerName(),
                 std::optional<QString>(expected));
    }

    void withoutAPrettyNameTheHostNameIsUsed() {
        QTemporaryDir folder;
        QFile file(folder.filePath(u"machine-info"_s));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("PRETTY_HOSTNAME=\n");
        file.close();
        const QString hostName = QSysInfo::machineHostName().trimmed();
        const std::optional<QString> expected =
            hostName.isEmpty() ? std::nullopt : std::optional<QString>(hostName);
        QCOMPARE(LinuxSystemIdentity(file.fileName()).localizedComputerName(), expected);
        QCOMPARE(LinuxSystemIdentity(folder.filePath(u"missing"_s)).localizedComputerName(), expected);
    }
};

QTEST_GUILESS_MAIN(TestSystemIdentity)
#include "tst_system_identity.moc"
