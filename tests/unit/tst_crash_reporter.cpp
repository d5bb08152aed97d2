#include "crash_record.h"
#include "crash_report.h"
#include "crash_reporter.h"
#include "stack_symbolizer.h"

#include <QRegularExpression>
#include <QTest>
#include <exception>
#include <execinfo.h>
#include <signal.h>
#include <vector>

using namespace Qt::StringLiterals;
using namespace tellwyn;

namespace {

const QStringList callStack{u"0   tellwyn-agent   0x0000000000401000 main + 12"_s,
                            u"1   libc.so.6       0x00007f0000001000 __libc_start_main + 133"_s};

ReportHeader sampleHeader() {
    return {u"TellwynAgent"_s, u"1.5.1"_s, u"Debian GNU/Linux 12 (bookworm) (Linux 6.1.0)"_s,
            QDateTime(QDate(2024, 5, 1), QTime(12, 34, 56), Qt::UTC)};
}

// The call chain whose symbolized stack is checked below.
[[gnu::noinline]] std::vector<std::uint64_t> captureInnerFrames() {
    void* frames[16];
    const int count = backtrace(frames, 16);
    std::vector<std::uint64_t> result;
    for (int i = 0; i < count; ++i) {
        result.push_back(reinterpret_cast<std::uintptr_t>(frames[i]));
    }
    return result;
}

[[gnu::noinline]] std::vector<std::uint64_t> captureOuterFrames() {
    auto frames = captureInnerFrames();
    frames.push_back(0); // keeps this call from being a tail call
    return frames;
}

void customTerminate() {
    std::abort();
}

void customSignalHandler(int) {
}

// Feeds timed helper answers to the crashed thread's wait and returns when it stops waiting.
struct Answer {
    qint64 at;
    char message; // 0: the helper goes away
};

qint64 waitEnds(const QList<Answer>& answers) {
    CrashWait wait(0);
    qsizetype next = 0;
    qint64 now = 0;
    while (!wait.finished()) {
        if (next < answers.size() && answers[next].at < wait.deadline()) {
            now = answers[next].at;
            if (answers[next].message == 0) {
                wait.onHelperGone();
            } else {
                wait.onMessage(answers[next].message, now);
            }
            ++next;
        } else {
            now = wait.deadline();
            wait.onTimeout(now);
        }
    }
    return now;
}

constexpr qint64 ms = 1'000'000;

using Reason = std::optional<QString>;
using Entries = QList<QPair<QString, QString>>;
using UserInfo = std::optional<Entries>;

} // namespace

Q_DECLARE_METATYPE(QList<Answer>)

class TestCrashReporter : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void signalReportIsTheWholeText() {
        QCOMPARE(crashReportText(sampleHeader(), signalReport(SIGSEGV, callStack)), uR"(Crash Report
============
App: TellwynAgent
Version: 1.5.1
OS Version: Debian GNU/Linux 12 (bookworm) (Linux 6.1.0)
Timestamp: 2024-05-01T12:34:56Z

Signal Type: SIGSEGV (Segmentation Violation)

Call Stack:
0   tellwyn-agent   0x0000000000401000 main + 12
1   libc.so.6       0x00007f0000001000 __libc_start_main + 133)"_s);
    }

    void missingNameAndVersionReadUnknown() {
        ReportHeader header = sampleHeader();
        header.applicationName.clear();
        header.version.clear();
        QVERIFY(crashReportText(header, {})
                    .startsWith(u"Crash Report\n============\nApp: Unknown\nVersion: Unknown\n"_s));
        const auto upload =
            makeCrashUpload(QUrl(u"https://crash.example/crash_reports/index.php"_s), u"x"_s, {}, {}, u"B"_s);
        QVERIFY(upload);
        QCOMPARE(upload->request.rawHeader("User-Agent"), QByteArray("Unknown-Unknown"));
    }

    void timestampIsUtc() {
        const QDateTime inParis(QDate(2024, 5, 1), QTime(14, 34, 56), Qt::OffsetFromUTC, 2 * 3600);
        QCOMPARE(reportTimestamp(inParis), u"2024-05-01T12:34:56Z"_s);
    }

    void exceptionReports_data() {
        QTest::addColumn<Reason>("reason");
        QTest::addColumn<UserInfo>("userInfo");
        QTest::addColumn<QString>("text");
        const QString stack = u"Call Stack:\n"_s + callStack.join(u'\n');
        QTest::newRow("reason, no user info")
            << Reason(u"bad value"_s) << UserInfo()
            << u"Exception Type: std::runtime_error\nException Reason: bad value\n\n"_s + stack;
        QTest::newRow("no reason") << Reason() << UserInfo()
                                   << u"Exception Type: std::runtime_error\nException Reason: Unknown\n\n"_s +
                                          stack;
        QTest::newRow("user info in its order")
            << Reason(u"refused"_s) << UserInfo(Entries{{u"code"_s, u"111"_s}, {u"category"_s, u"generic"_s}})
            << uR"(Exception Type: std::runtime_error
Exception Reason: refused

Call Stack:
0   tellwyn-agent   0x0000000000401000 main + 12
1   libc.so.6       0x00007f0000001000 __libc_start_main + 133

User Info:
code: 111
category: generic
)"_s;
        QTest::newRow("empty user info still has its section")
            << Reason(u"refused"_s) << UserInfo(Entries{})
            << u"Exception Type: std::runtime_error\nException Reason: refused\n\n"_s + stack +
                   u"\n\nUser Info:\n"_s;
    }
    void exceptionReports() {
        QFETCH(Reason, reason);
        QFETCH(UserInfo, userInfo);
        QFETCH(QString, text);
        QCOMPARE(exceptionReport({u"std::runtime_error"_s, reason, callStack, userInfo}), text);
    }

    void uploadIsTheSixPieces() {
        const QString boundary = u"0E8F4C5A-8D6B-4F0B-9C1E-2A3B4C5D6E7F"_s;
        const QString report = u"Crash Report\nÄ ✓"_s;
        const auto upload = makeCrashUpload(QUrl(u"https://crash.example/crash_reports/index.php"_s), report,
                                            u"TellwynAgent"_s, u"1.5.1"_s, boundary);
        QVERIFY(upload);
        QCOMPARE(upload->request.url(), QUrl(u"https://crash.example/crash_reports/index.php"_s));
        QCOMPARE(upload->request.transferTimeout(), 5000);
        QCOMPARE(upload->request.rawHeader("User-Agent"), QByteArray("TellwynAgent-1.5.1"));
        QCOMPARE(upload->request.rawHeader("Content-Type"),
                 "multipart/form-data; boundary=" + boundary.toUtf8());
        QCOMPARE(upload->body, "--" + boundary.toUtf8() + "\r\n" +
                                   "Content-Disposition: form-data; name=\"crashlog\"\r\n" + "\r\n" +
                                   report.toUtf8() + "\r\n" + "--" + boundary.toUtf8() + "--\r\n");
    }

    void nothingIsSentThatCannotBeEncoded() {
        const QUrl endpoint(u"https://crash.example/crash_reports/index.php"_s);
        QString broken = u"report "_s;
        broken.append(QChar(0xD800)); // half of a surrogate pair
        QVERIFY(!makeCrashUpload(endpoint, broken, u"TellwynAgent"_s, u"1.5.1"_s, newBoundary()));
        QVERIFY(!makeCrashUpload(QUrl(), u"report"_s, u"TellwynAgent"_s, u"1.5.1"_s, newBoundary()));
    }

    void boundaryIsANewUpperCaseUuid() {
        const QString first = newBoundary();
        static const QRegularExpression form(
            u"^[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$"_s);
        QVERIFY2(form.match(first).hasMatch(), qPrintable(first));
        QVERIFY(first != newBoundary());
    }

    void crashedThreadWaits_data() {
        QTest::addColumn<QList<Answer>>("answers");
        QTest::addColumn<qint64>("end");
        QTest::newRow("helper never starts") << QList<Answer>{} << 3000 * ms;
        QTest::newRow("helper gone") << QList<Answer>{{300 * ms, 'R'}, {350 * ms, 0}} << 350 * ms;
        QTest::newRow("uploaded, no display")
            << QList<Answer>{{300 * ms, 'R'}, {340 * ms, 'U'}, {341 * ms, 'N'}} << 341 * ms;
        QTest::newRow("upload abandoned by the helper")
            << QList<Answer>{{300 * ms, 'R'}, {800 * ms, 'U'}, {801 * ms, 'N'}} << 801 * ms;
        QTest::newRow("helper silent after its request")
            << QList<Answer>{{300 * ms, 'R'}} << (800 + 1000) * ms;
        QTest::newRow("upload answer too late for the wait")
            << QList<Answer>{{300 * ms, 'R'}, {900 * ms, 'U'}, {900 * ms, 'N'}} << 900 * ms;
        QTest::newRow("alert dismissed")
            << QList<Answer>{{300 * ms, 'R'}, {400 * ms, 'U'}, {450 * ms, 'A'}, {4000 * ms, 'D'}}
            << 4000 * ms;
        QTest::newRow("alert left open")
            << QList<Answer>{{300 * ms, 'R'}, {400 * ms, 'U'}, {450 * ms, 'A'}} << (450 + 10000) * ms;
    }
    void crashedThreadWaits() {
        QFETCH(QList<Answer>, answers);
        QFETCH(qint64, end);
        QCOMPARE(waitEnds(answers), end);
    }

    void symbolizesThisProcessesStack() {
        const std::vector<std::uint64_t> frames = captureOuterFrames();
        StackSymbolizer symbolizer = StackSymbolizer::forProcess(QCoreApplication::applicationPid());
        const QStringList lines = symbolizer.symbolize(frames);
        QCOMPARE(lines.size(), qsizetype(frames.size()));
        const auto indexOf = [&lines](const QString& name) {
            for (qsizetype i = 0; i < lines.size(); ++i) {
                if (lines[i].contains(name)) {
                    return i;
                }
            }
            return qsizetype(-1);
        };
        const qsizetype inner = indexOf(u" (anonymous namespace)::captureInnerFrames() + "_s);
        const qsizetype outer = indexOf(u" (anonymous namespace)::captureOuterFrames() + "_s);
        QVERIFY2(inner >= 0 && outer == inner + 1, qPrintable(lines.join(u'\n')));
        QVERIFY(lines[inner].startsWith(u"%1"_s.arg(inner, -4) + u"tst_crash_reporter "_s));
        QVERIFY(lines[inner].contains(u" 0x%1 "_s.arg(frames[std::size_t(inner)], 16, 16, QChar(u'0'))));
        // The instruction a signal struck is its own function's, even at the function's first byte,
        // where the same value as a return address belongs to the code before it.
        const auto start = reinterpret_cast<std::uintptr_t>(&captureInnerFrames);
        QVERIFY(symbolizer.symbolize({0, start}, start)[1].endsWith(u"::captureInnerFrames() + 0"_s));
        QVERIFY(!symbolizer.symbolize({0, start})[1].contains(u"captureInnerFrames"_s));
        // An address in no mapped file is only an address.
        QVERIFY(symbolizer.symbolize({0x10}).constFirst().startsWith(u"0   ???"_s));
    }

    void installTwiceInstallsOnceAndUninstallRestoresTheDefaults() {
        std::set_terminate(&customTerminate);
        CrashReporter::install();
        const std::terminate_handler installed = std::get_terminate();
        struct sigaction first {};
        sigaction(SIGSEGV, nullptr, &first);
        CrashReporter::install();
        QVERIFY(CrashReporter::isInstalled());
        QVERIFY(installed != &customTerminate);
        QVERIFY(std::get_terminate() == installed);
        for (const int signal : CrashReporter::handledSignals) {
            struct sigaction action {};
            sigaction(signal, nullptr, &action);
            QVERIFY(action.sa_flags & SA_SIGINFO);
            QVERIFY(action.sa_flags & SA_ONSTACK);
            QVERIFY(action.sa_sigaction == first.sa_sigaction);
        }
        stack_t alternate{};
        sigaltstack(nullptr, &alternate);
        QVERIFY(!(alternate.ss_flags & SS_DISABLE));
        QVERIFY(alternate.ss_size >= 64 * 1024);

        CrashReporter::uninstall();
        QVERIFY(!CrashReporter::isInstalled());
        QVERIFY(std::get_terminate() != installed);
        QVERIFY(std::get_terminate() != &customTerminate); // the earlier handler is not put back
        for (const int signal : CrashReporter::handledSignals) {
            struct sigaction action {};
            sigaction(signal, nullptr, &action);
            QVERIFY(action.sa_handler == SIG_DFL);
        }
    }

    void uninstallWhenNotInstalledDoesNothing() {
        QVERIFY(!CrashReporter::isInstalled());
        std::signal(SIGTRAP, &customSignalHandler);
        std::set_terminate(&customTerminate);
        CrashReporter::uninstall();
        struct sigaction action {};
        sigaction(SIGTRAP, nullptr, &action);
        QVERIFY(action.sa_handler == &customSignalHandler);
        QVERIFY(std::get_terminate() == &customTerminate);
        std::signal(SIGTRAP, SIG_DFL);
    }
};

QTEST_GUILESS_MAIN(TestCrashReporter)
#include "tst_crash_reporter.moc"
