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
        QTest::addColumn<QByteArray>("machineInfo"); // empty: no file at all
        QTest::addColumn<QString>("expected");       // empty: the host name
        QTest::newRow("double quotes, escapes")
            << QByteArray("CHASSIS=laptop\nPRETTY_HOSTNAME=\"Ana's \\\"PC\\\"\"\n") << u"Ana's \"PC\""_s;
        QTest::newRow("single quotes keep backslashes")
            << QByteArray("PRETTY_HOSTNAME='Lab\\3'\n") << u"Lab\\3"_s;
        QTest::newRow("bare word") << QByteArray("PRETTY_HOSTNAME=Kitchen\n") << u"Kitchen"_s;
        QTest::newRow("empty value") << QByteArray("PRETTY_HOSTNAME=\n") << QString();
        QTest::newRow("no file") << QByteArray() << QString();
    }
    void theDisplayNameIsThePrettyHostName() {
        QFETCH(QByteArray, machineInfo);
        QFETCH(QString, expected);
        QTemporaryDir folder;
        QFile file(folder.filePath(u"machine-info"_s));
        QVERIFY(machineInfo.isEmpty() || (file.open(QIODevice::WriteOnly) && file.write(machineInfo) > 0));
        file.close();
        const QString name = expected.isEmpty() ? QSysInfo::machineHostName().trimmed() : expected;
        QCOMPARE(LinuxSystemIdentity(file.fileName()).localizedComputerName(),
                 name.isEmpty() ? std::nullopt : std::optional<QString>(name));
    }
};

QTEST_GUILESS_MAIN(TestSystemIdentity)
#include "tst_system_identity.moc"
