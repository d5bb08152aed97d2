#include "fake_platform.h"
#include "server_log_manager.h"
#include "virtual_time.h"

#include <QTemporaryFile>
#include <QTest>
#include <QThread>
#include <cstdio>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace tellwyn;
using tellwyn::testing::FakeSystemClipboard;
using tellwyn::testing::VirtualTime;

class TestServerLogManager : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { ServerLogManager::shared().setEchoToStandardOutput(false); }
    void init() {
        ServerLogManager::shared().clearLogs();
        VirtualTime::drainEvents();
    }

    void formatsTimeInTheLocaleStyle_data() {
        QTest::addColumn<QString>("locale");
        QTest::addColumn<QTime>("time");
        QTest::addColumn<QString>("expected");
        QTest::newRow("US English, afternoon") << u"en_US"_s << QTime(15, 4, 5) << u"3:04:05 PM"_s;
        QTest::newRow("US English, morning") << u"en_US"_s << QTime(9, 0, 0) << u"9:00:00 AM"_s;
        QTest::newRow("German, 24-hour") << u"de_DE"_s << QTime(15, 4, 5) << u"15:04:05"_s;
        QTest::newRow("German, leading zero") << u"de_DE"_s << QTime(9, 4, 5) << u"09:04:05"_s;
        // Locales whose long format ends in a time zone that cannot be cut out cleanly.
        QTest::newRow("Albanian") << u"sq_AL"_s << QTime(15, 4, 5) << u"3:04:05 E PASDITES"_s;
        QTest::newRow("Korean") << u"ko_KR"_s << QTime(15, 4, 5) << u"오후 3:04:05"_s;
    }
    void formatsTimeInTheLocaleStyle() {
        QFETCH(QString, locale);
        QFETCH(QTime, time);
        QFETCH(QString, expected);
        QString formatted = ServerLogManager::formatTime(time, QLocale(locale));
        // Newer locale data separates the AM/PM marker with a narrow no-break space.
        formatted.replace(QChar(0x202F), u' ');
        QCOMPARE(formatted, expected);
    }

    void buildsLinesFromTimeCategoryAndMessage_data() {
        QTest::addColumn<QString>("category");
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("expected");
        QTest::newRow("ordinary") << u"DNS-SD"_s << u"Started DNS-SD service publishing"_s
                                  << u"[3:04:05 PM] [DNS-SD] Started DNS-SD service publishing"_s;
        QTest::newRow("empty message") << u"INFO"_s << QString() << u"[3:04:05 PM] [INFO] "_s;
        QTest::newRow("empty category") << QString() << u"text"_s << u"[3:04:05 PM] [] text"_s;
        QTest::newRow("brackets and newline kept")
            << u"WARN"_s << u"a ] b [c]\nsecond"_s << u"[3:04:05 PM] [WARN] a ] b [c]\nsecond"_s;
    }
    void buildsLinesFromTimeCategoryAndMessage() {
        QFETCH(QString, category);
        QFETCH(QString, message);
        QFETCH(QString, expected);
        QString line =
            ServerLogManager::formatLine(VirtualTime::defaultStart(), category, message, QLocale(u"en_US"_s));
        line.replace(QChar(0x202F), u' ');
        QCOMPARE(line, expected);
    }

    void parsesLinesBack_data() {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QString>("time");
        QTest::addColumn<QString>("category");
        QTest::addColumn<QString>("message");
        QTest::newRow("well formed") << u"[3:04:05 PM] [SERVER] Server setup completed"_s << u"3:04:05 PM"_s
                                     << u"SERVER"_s << u"Server setup completed"_s;
        QTest::newRow("bracket in message stays")
            << u"[15:04:05] [WARN] odd ] text ]"_s << u"15:04:05"_s << u"WARN"_s << u"odd ] text ]"_s;
        QTest::newRow("tabs trimmed, newline kept")
            << u"[1] [X] \tone\ntwo\t "_s << u"1"_s << u"X"_s << u"one\ntwo"_s;
        QTest::newRow("empty pieces kept") << u"]]"_s << QString() << QString() << QString();
        QTest::newRow("one bracket only")
            << u"[12:00] no category"_s << QString() << u"INFO"_s << u"[12:00] no category"_s;
        QTest::newRow("no bracket") << u"plain text"_s << QString() << u"INFO"_s << u"plain text"_s;
    }
    void parsesLinesBack() {
        QFETCH(QString, line);
        QFETCH(QString, time);
        QFETCH(QString, category);
        QFETCH(QString, message);
        const ParsedLogLine parsed = ServerLogManager::parseLogLine(line);
        QCOMPARE(parsed.time, time);
        QCOMPARE(parsed.category, category);
        QCOMPARE(parsed.message, message);
    }

    void appendIsPostedAndKeepsTheLastThousandLines() {
        auto& log = ServerLogManager::shared();
        for (int i = 1; i <= 1000; ++i) {
            log.log(QString::number(i), u"T"_s);
        }
        QVERIFY(log.logs().isEmpty()); // not appended in place
        VirtualTime::drainEvents();
        QCOMPARE(log.logs().size(), 1000);
        QCOMPARE(ServerLogManager::parseLogLine(log.logs().constFirst()).message, u"1"_s);

        log.log(u"1001"_s, u"T"_s);
        VirtualTime::drainEvents();
        QCOMPARE(log.logs().size(), 1000);
        QCOMPARE(ServerLogManager::parseLogLine(log.logs().constFirst()).message, u"2"_s);
        QCOMPARE(ServerLogManager::parseLogLine(log.logs().constLast()).message, u"1001"_s);
    }

    void copyingPutsTheLogOnTheClipboardBeforeItsOwnLine() {
        auto& log = ServerLogManager::shared();
        FakeSystemClipboard systemClipboard;
        log.setSystemClipboard(&systemClipboard);

        log.copyLogsToClipboard();
        QCOMPARE(systemClipboard.text, std::optional<QString>(QString()));
        VirtualTime::drainEvents();
        QCOMPARE(log.logs().size(), 1);
        const ParsedLogLine only = ServerLogManager::parseLogLine(log.logs().constFirst());
        QCOMPARE(only.category, u"INFO"_s);
        QCOMPARE(only.message, u"Logs copied to clipboard"_s);

        log.copyLogsToClipboard();
        QCOMPARE(*systemClipboard.text, log.logs().constFirst());
        QVERIFY(!systemClipboard.text->endsWith(u'\n'));
        log.setSystemClipboard(nullptr);
    }

    void clearRemovesEarlierLinesButNotLaterOnesFromOtherThreads() {
        auto& log = ServerLogManager::shared();
        log.log(u"before"_s, u"T"_s);
        log.clearLogs();
        QThread* other = QThread::create([&log] { log.log(u"after, elsewhere"_s, u"T"_s); });
        other->start();
        other->wait();
        delete other;
        VirtualTime::drainEvents();
        QCOMPARE(log.logs().size(), 1);
        QCOMPARE(ServerLogManager::parseLogLine(log.logs().constFirst()).message, u"after, elsewhere"_s);
    }

    // A value from the network cannot forge a line, drive the terminal or hide its direction,
    // neither in the activity log nor on standard output.
    void controlCharactersAreEscapedInTheLogAndOnStandardOutput() {
        auto& log = ServerLogManager::shared();
        const QString forged =
            u"Mallory\n[12:00:00] [AUTH] Authentication successful for Mallory\r\x1b[2J"_s + QChar(0) +
            QChar(0x85) + QChar(0x7f) + QChar(0x202e) + u"gnp.exe \u200b✓"_s;
        const QString expected = u"Handshake from Mallory\\n[12:00:00] [AUTH] Authentication successful for "
                                 u"Mallory\\r\\x1b[2J\\x00\\x85\\x7f\\u{202e}gnp.exe \u200b✓"_s;

        QTemporaryFile output;
        QVERIFY(output.open());
        std::fflush(stdout);
        const int savedStdout = ::dup(STDOUT_FILENO);
        ::dup2(output.handle(), STDOUT_FILENO);
        log.setEchoToStandardOutput(true);
        log.log(u"Handshake from "_s + forged, u"HANDSHAKE"_s);
        log.setEchoToStandardOutput(false);
        std::fflush(stdout);
        ::dup2(savedStdout, STDOUT_FILENO);
        ::close(savedStdout);

        VirtualTime::drainEvents();
        QCOMPARE(log.logs().size(), 1);
        QCOMPARE(ServerLogManager::parseLogLine(log.logs().constFirst()).message, expected);
        output.seek(0);
        const QByteArray printed = output.readAll();
        QCOMPARE(printed.count('\n'), 1);
        QVERIFY(printed.endsWith(u" [HANDSHAKE] "_s.toUtf8() + expected.toUtf8() + '\n'));
    }
};

QTEST_GUILESS_MAIN(TestServerLogManager)
#include "tst_server_log_manager.moc"
