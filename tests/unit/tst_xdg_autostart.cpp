// The autostart entry for launch at login: written where desktops look, valid by
// desktop-file-validate, starting the right program with awkward paths, and removed again.

#include "event_wait.h"
#include "linux/xdg_autostart_login_item.h"

#include <QDir>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace tellwyn;

class TestXdgAutostart : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void theEntryIsValidStartsTheAgentAndGoesAway_data() {
        QTest::addColumn<QString>("executable");
        QTest::newRow("plain path") << u"/usr/bin/tellwyn-agent"_s;
        QTest::newRow("spaces, quotes, dollar and percent")
            << u"/home/a b/\"odd\" $dir/100% sure\\tellwyn-agent"_s;
    }

    void theEntryIsValidStartsTheAgentAndGoesAway() {
        QFETCH(QString, executable);
        QTemporaryDir config;
        const QString folder = QDir(config.path()).filePath(u"autostart"_s);
        XdgAutostartLoginItem item(folder, executable, {u"--start"_s});
        QCOMPARE(item.registerItem(), std::nullopt);
        QCOMPARE(item.entryPath(), QDir(folder).filePath(u"tellwyn-agent.desktop"_s));

        const QString validator = QStandardPaths::findExecutable(u"desktop-file-validate"_s);
        QVERIFY2(!validator.isEmpty(), "desktop-file-validate is missing: run scripts/setup.sh test");
        QProcess validate;
        validate.start(validator, {item.entryPath()});
        QVERIFY(validate.waitForFinished(testing::eventDeadlineMs));
        QCOMPARE(validate.exitCode(), 0);
        QCOMPARE(validate.readAll(), QByteArray()); // no warnings either

        // Undo the two levels of quoting of Exec as a desktop would, and compare.
        QString exec;
        QFile file(item.entryPath());
        QVERIFY(file.open(QIODevice::ReadOnly));
        for (const QByteArray& line : file.readAll().split('\n')) {
            if (line.startsWith("Exec=")) {
                exec = QString::fromUtf8(line.mid(5));
            }
        }
        exec.replace(u"\\\\"_s, u"\\"_s); // string-level escapes
        QStringList arguments;
        QString current;
        bool quoted = false;
        for (qsizetype i = 0; i < exec.size(); ++i) {
            const QChar c = exec.at(i);
            if (quoted && c == u'\\' && i + 1 < exec.size()) {
                current += exec.at(++i);
            } else if (c == u'"') {
                quoted = !quoted;
            } else if (c == u' ' && !quoted) {
                arguments.append(current);
                current.clear();
            } else {
                current += c;
            }
        }
        arguments.append(current);
        for (QString& argument : arguments) {
            argument.replace(u"%%"_s, u"%"_s);
        }
        QCOMPARE(arguments, (QStringList{executable, u"--start"_s}));

        QCOMPARE(item.unregisterItem(), std::nullopt);
        QVERIFY(!QFile::exists(item.entryPath()));
        QCOMPARE(item.unregisterItem(), std::nullopt); // nothing there: nothing to do
    }

    void aFolderThatCannotBeMadeIsReported() {
        QTemporaryDir config;
        QFile blocker(QDir(config.path()).filePath(u"autostart"_s));
        QVERIFY(blocker.open(QIODevice::WriteOnly)); // a file where the folder should be
        blocker.close();
        XdgAutostartLoginItem item(blocker.fileName(), u"/usr/bin/tellwyn-agent"_s, {});
        const auto error = item.registerItem();
        QVERIFY(error);
        QVERIFY(error->startsWith(u"AutostartError."_s));
    }
};

QTEST_GUILESS_MAIN(TestXdgAutostart)
#include "tst_xdg_autostart.moc"
