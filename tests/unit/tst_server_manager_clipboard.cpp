// The clipboard policy of the agent core: when the machine's clipboard is watched, what is sent
// to whom, and that nothing echoes. A fake clipboard, real loopback TLS and virtual time.

#include "event_wait.h"
#include "log_lines.h"
#include "loopback_agent.h"
#include "server_log_manager.h"
#include "server_manager_access.h"

#include <QTest>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace tellwyn;
using namespace tellwyn::testing;

class TestServerManagerClipboard : public QObject {
    Q_OBJECT

    std::unique_ptr<LoopbackAgent> agent;

    ServerManager& manager() { return *agent->manager; }
    ServerManagerTestAccess access() { return ServerManagerTestAccess(*agent->manager); }

    std::unique_ptr<LoopbackViewer> signedInViewer(const QString& name) {
        auto viewer = agent->connectViewer(name);
        if (!viewer) {
            return nullptr;
        }
        if (!LoopbackAgent::signInAndWait(*viewer, u"alice"_s, u"correct horse"_s)) {
            return nullptr;
        }
        LoopbackAgent::settle();
        return viewer;
    }

    // One tick of the monitor, and the traffic it causes.
    void tick() {
        agent->time.advance(1500ms);
        LoopbackAgent::settle();
    }

    void copyLocally(const QString& text) { agent->systemClipboard.setString(text); }

    static QStringList clipboardTexts(const LoopbackViewer& viewer) {
        QStringList texts;
        for (const HLVPMessage& message : viewer.received) {
            if (const auto* clipboard = std::get_if<ClipboardMessage>(&message)) {
                texts.append(clipboard->text);
            }
        }
        return texts;
    }

private Q_SLOTS:
    void init() {
        agent = std::make_unique<LoopbackAgent>();
        QVERIFY(agent->start());
    }

    void cleanup() { agent.reset(); }

    void withoutASignedInViewerTheClipboardIsNeverRead() {
        copyLocally(u"secret"_s);
        auto viewer = agent->connectViewer(u"Not Signed In"_s);
        QVERIFY(viewer);
        agent->time.advance(30s);
        LoopbackAgent::settle();
        QVERIFY(!access().isClipboardMonitorRunning());
        QCOMPARE(agent->systemClipboard.reads, 0);
        QVERIFY(clipboardTexts(*viewer).isEmpty());
    }

    void localCopiesReachEverySignedInViewerOnceEach() {
        copyLocally(u"first"_s);
        auto one = signedInViewer(u"One"_s);
        auto two = signedInViewer(u"Two"_s);
        QVERIFY(one && two);
        QVERIFY(loggedInOrder({u"[CLIPBOARD] Clipboard sync monitor started"_s}));
        QCOMPARE(loggedCount(u"[CLIPBOARD] Clipboard sync monitor started"_s), 1);
        // The first tick after a start sends what is on the clipboard.
        tick();
        QCOMPARE(clipboardTexts(*one), QStringList{u"first"_s});
        QCOMPARE(clipboardTexts(*two), QStringList{u"first"_s});

        copyLocally(u"first"_s); // copied again: a change, but the same text
        tick();
        copyLocally(u"second"_s);
        tick();
        copyLocally(u"first"_s);
        tick();
        tick(); // no change: the clipboard is not even read
        const QStringList expected{u"first"_s, u"second"_s, u"first"_s};
        QCOMPARE(clipboardTexts(*one), expected);
        QCOMPARE(clipboardTexts(*two), expected);
    }

    void aTextFromAViewerIsAppliedAndNeverSentBack() {
        auto sender = signedInViewer(u"Sender"_s);
        auto other = signedInViewer(u"Other"_s);
        QVERIFY(sender && other);
        tick();
        sender->connection->send(ClipboardMessage{u"from the viewer ✓"_s, std::nullopt});
        TRY_COMPARE(agent->systemClipboard.text, std::optional<QString>(u"from the viewer ✓"_s));
        TRY_VERIFY(
            loggedLines().contains(u"[CLIPBOARD] Clipboard snapshot received from Sender (19 bytes)"_s));
        tick();
        copyLocally(u"from the viewer ✓"_s); // the user copies that same text again
        tick();
        QVERIFY(clipboardTexts(*sender).isEmpty());
        QVERIFY(clipboardTexts(*other).isEmpty());
        // A different text goes out as usual, also to the viewer that sent the first.
        copyLocally(u"local"_s);
        tick();
        QCOMPARE(clipboardTexts(*sender), QStringList{u"local"_s});
    }

    void theLimitCountsUtf8Bytes() {
        auto viewer = signedInViewer(u"Viewer"_s);
        QVERIFY(viewer);
        tick();
        // Fewer characters than the limit, one byte over it in UTF-8.
        const QString tooLarge = QString(HLVP::maxClipboardBytes / 2, QChar(0x00e9)) + u'x';
        QVERIFY(tooLarge.size() < HLVP::maxClipboardBytes);
        copyLocally(tooLarge);
        tick();
        tick();
        QVERIFY(clipboardTexts(*viewer).isEmpty());
        copyLocally(u"small"_s);
        tick();
        QCOMPARE(clipboardTexts(*viewer), QStringList{u"small"_s});

        // The same limit guards what viewers send: refused, and the connection stays.
        viewer->connection->send(ClipboardMessage{tooLarge, std::nullopt});
        TRY_VERIFY(viewer->last<ErrorMessage>());
        QCOMPARE(viewer->last<ErrorMessage>()->code, u"clipboardTooLarge"_s);
        QCOMPARE(agent->systemClipboard.text, std::optional<QString>(u"small"_s));
        QVERIFY(!viewer->closed);
    }

    void switchingSharingOffStopsAndResetsAndOnSendsAgain() {
        copyLocally(u"before"_s);
        auto viewer = signedInViewer(u"Viewer"_s);
        QVERIFY(viewer);
        tick();
        QCOMPARE(clipboardTexts(*viewer), QStringList{u"before"_s});

        manager().setFeatureSwitches(true, false, false);
        QVERIFY(!access().isClipboardMonitorRunning());
        QVERIFY(loggedInOrder({u"[CLIPBOARD] Clipboard sync monitor stopped"_s}));
        QCOMPARE(agent->preferences.values.value(u"enableClipboardSharing"_s), QVariant(false));
        // The connection refuses clipboard traffic while sharing is off.
        viewer->connection->send(ClipboardMessage{u"blocked"_s, std::nullopt});
        TRY_VERIFY(viewer->last<ErrorMessage>());
        QCOMPARE(viewer->last<ErrorMessage>()->code, u"clipboardSharingDisabled"_s);
        QCOMPARE(agent->systemClipboard.text, std::optional<QString>(u"before"_s));

        manager().setFeatureSwitches(true, true, false);
        QVERIFY(access().isClipboardMonitorRunning());
        tick();
        // Remembered texts were cleared: the same text goes out again.
        QCOMPARE(clipboardTexts(*viewer), (QStringList{u"before"_s, u"before"_s}));
    }

    void theMonitorStopsWithTheLastViewer() {
        auto viewer = signedInViewer(u"Viewer"_s);
        QVERIFY(viewer);
        QVERIFY(access().isClipboardMonitorRunning());
        viewer->connection->disconnectFromAgent(u"bye"_s);
        TRY_VERIFY(!access().isClipboardMonitorRunning());
        QVERIFY(loggedInOrder({u"[CLIPBOARD] Clipboard sync monitor stopped"_s}));
    }

    void fileTransferSwitchReachesEveryOpenConnection() {
        auto viewer = signedInViewer(u"Viewer"_s);
        QVERIFY(viewer);
        manager().setFeatureSwitches(false, true, false);
        viewer->connection->send(FileOfferMessage{u"t1"_s, u"notes.txt"_s, 5, std::nullopt});
        TRY_VERIFY(viewer->last<FileResultMessage>());
        QVERIFY(!viewer->last<FileResultMessage>()->success);
        QCOMPARE(viewer->last<FileResultMessage>()->errorMessage,
                 std::optional<QString>(u"File transfers are switched off on this computer."_s));
        QCOMPARE(agent->preferences.values.value(u"enableFileTransfers"_s), QVariant(false));
    }
};

QTEST_GUILESS_MAIN(TestServerManagerClipboard)
#include "tst_server_manager_clipboard.moc"
