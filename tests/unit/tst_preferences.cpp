#include "fake_platform.h"
#include "linux/settings_preferences.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace tellwyn;
using tellwyn::testing::FakePreferences;

class TestPreferences : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // The typed reads follow the lenient rules of a preferences store whatever the stored type.
    void typedReads_data() {
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<bool>("asBool");
        QTest::addColumn<qint64>("asInteger");
        QTest::addColumn<int>("storedBool"); // -1: not a Boolean

        QTest::newRow("bool true") << QVariant(true) << true << qint64(1) << 1;
        QTest::newRow("bool false") << QVariant(false) << false << qint64(0) << 0;
        QTest::newRow("INI true") << QVariant(u"true"_s) << true << qint64(0) << 1;
        QTest::newRow("INI false") << QVariant(u"false"_s) << false << qint64(0) << 0;
        QTest::newRow("number text") << QVariant(u"5905"_s) << true << qint64(5905) << -1;
        QTest::newRow("fraction text") << QVariant(u"5905.9"_s) << false << qint64(5905) << -1;
        QTest::newRow("zero") << QVariant(0) << false << qint64(0) << -1;
        QTest::newRow("large integer") << QVariant(qint64(70000)) << true << qint64(70000) << -1;
        QTest::newRow("yes") << QVariant(u"YES"_s) << true << qint64(0) << -1;
        QTest::newRow("garbage") << QVariant(u"maybe"_s) << false << qint64(0) << -1;
        QTest::newRow("huge double") << QVariant(1e300) << true << qint64(0) << -1;
        QTest::newRow("absent") << QVariant() << false << qint64(0) << -1;
    }
    void typedReads() {
        QFETCH(QVariant, stored);
        QFETCH(bool, asBool);
        QFETCH(qint64, asInteger);
        QFETCH(int, storedBool);
        FakePreferences preferences;
        if (stored.isValid()) {
            preferences.set(u"key"_s, stored);
        }
        QCOMPARE(preferences.object(u"key"_s).has_value(), stored.isValid());
        QCOMPARE(preferences.boolValue(u"key"_s), asBool);
        QCOMPARE(preferences.integerValue(u"key"_s), asInteger);
        const std::optional<bool> expected =
            storedBool < 0 ? std::nullopt : std::optional<bool>(storedBool == 1);
        QCOMPARE(preferences.storedBool(u"key"_s), expected);
    }

    void settingsFileKeepsTypedValuesAcrossRuns() {
        QTemporaryDir directory;
        const QString path = directory.filePath(u"agent.conf"_s);
        {
            SettingsPreferences preferences(path);
            QVERIFY(preferences.problem().isEmpty());
            preferences.set(u"autoStartServer"_s, true);
            preferences.set(u"serverPort"_s, 5906);
            preferences.set(u"customUsername"_s, u"bob"_s);
            preferences.remove(u"customUsername"_s);
        }
        SettingsPreferences reopened(path);
        QCOMPARE(reopened.storedBool(u"autoStartServer"_s), std::optional<bool>(true));
        QCOMPARE(reopened.integerValue(u"serverPort"_s), qint64(5906));
        QVERIFY(!reopened.object(u"customUsername"_s).has_value());
    }

    void brokenFileIsKeptAsideAndDefaultsAreUsed() {
        QTemporaryDir directory;
        const QString path = directory.filePath(u"agent.conf"_s);
        const QByteArray broken = "[General\nserverPort=6000\n\x01\xff garbage\n";
        {
            QFile file(path);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(broken);
        }
        SettingsPreferences preferences(path);
        QVERIFY(preferences.problem().contains(u"could not be parsed"_s));
        QVERIFY(!preferences.object(u"serverPort"_s).has_value());

        // The user's file is still there, byte for byte, under the name the message gives.
        const QStringList aside = QDir(directory.path()).entryList({u"agent.conf.broken-*"_s}, QDir::Files);
        QCOMPARE(aside.size(), 1);
        QVERIFY(preferences.problem().contains(aside.constFirst()));
        QFile kept(directory.filePath(aside.constFirst()));
        QVERIFY(kept.open(QIODevice::ReadOnly));
        QCOMPARE(kept.readAll(), broken);

        // New settings go to a fresh file.
        preferences.set(u"serverPort"_s, 5905);
        QCOMPARE(SettingsPreferences(path).integerValue(u"serverPort"_s), qint64(5905));
    }

    void unreadableLocationKeepsPreferencesInMemory() {
        QTemporaryDir directory;
        // A folder where the file should be: it cannot be read as preferences nor replaced.
        const QString path = directory.filePath(u"agent.conf"_s);
        QVERIFY(QDir().mkpath(path + u"/inner"_s));
        SettingsPreferences preferences(path);
        QVERIFY(!preferences.problem().isEmpty());
        preferences.set(u"serverPort"_s, 6001);
        QCOMPARE(preferences.integerValue(u"serverPort"_s), qint64(6001));
        QVERIFY(QFileInfo(path).isDir());
    }
};

QTEST_GUILESS_MAIN(TestPreferences)
#include "tst_preferences.moc"
