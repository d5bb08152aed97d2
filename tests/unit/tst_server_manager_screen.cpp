// Screen streams in the agent core, over loopback TLS with a synthetic screen: who is refused
// and why, and that screen sleep ends a stream while the viewer stays connected.

#include "event_wait.h"
#include "fake_services.h"
#include "log_lines.h"
#include "loopback_agent.h"
#include "screen_stream_hub.h"
#include "server_manager_access.h"

#include <QTest>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace tellwyn;
using namespace tellwyn::testing;

class TestServerManagerScreen : public QObject {
    Q_OBJECT

    FakePermissionService permissions;

    std::unique_ptr<LoopbackViewer> signedInViewer(LoopbackAgent& agent) {
        auto viewer = agent.connectViewer(u"Dana's laptop"_s);
        if (!viewer || !LoopbackAgent::signInAndWait(*viewer, u"alice"_s, u"correct horse"_s)) {
            return nullptr;
        }
        return viewer;
    }

private Q_SLOTS:
    void refusalsSayWhy_data() {
        QTest::addColumn<int>("displays");
        QTest::addColumn<QString>("unavailable");
        QTest::addColumn<bool>("permitted");
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("text");
        QTest::newRow("headless") << 0 << QString() << true << u"headless"_s
                                  << u"This computer has no screen to stream."_s;
        QTest::newRow("Wayland") << 1 << u"screen streaming on Wayland is not supported yet"_s << true
                                 << u"screenStreamingUnsupported"_s
                                 << u"screen streaming on Wayland is not supported yet"_s;
        QTest::newRow("no permission") << 1 << QString() << false << u"screenCaptureNotPermitted"_s
                                       << u"Screen recording is not permitted on this computer."_s;
    }

    void refusalsSayWhy() {
        QFETCH(int, displays);
        QFETCH(QString, unavailable);
        QFETCH(bool, permitted);
        QFETCH(QString, code);
        QFETCH(QString, text);
        LoopbackAgent agent;
        agent.displays.count = displays;
        permissions.captureAllowed = permitted;
        agent.permissions = &permissions;
        agent.screenStreamingUnavailable = unavailable;
        agent.makeScreenSource = [] {
            return std::make_unique<StillScreen>();
        };
        QVERIFY(agent.start());
        const auto viewer = signedInViewer(agent);
        QVERIFY(viewer);
        viewer->connection->send(ScreenCaptureRequest{{}, {}, u"lossless"_s, {}, {}, 9});
        TRY_VERIFY(viewer->last<ErrorMessage>() != nullptr);
        QCOMPARE(*viewer->last<ErrorMessage>(), (ErrorMessage{code, text, u"screenCaptureRequest"_s, 9}));
        QVERIFY(agent.manager->serverState().streamingClients.isEmpty());
        QVERIFY(!viewer->closed);
    }

    // Acknowledged frames keep a viewer that only watches from counting as idle; screen sleep ends
    // the stream and keeps the viewer.
    void acknowledgementsAreActivityAndScreenSleepEndsTheStream() {
        LoopbackAgent agent;
        agent.displays.count = 1;
        permissions.captureAllowed = true;
        agent.permissions = &permissions;
        agent.makeScreenSource = [] {
            return std::make_unique<StillScreen>();
        };
        QVERIFY(agent.start());
        const auto viewer = signedInViewer(agent);
        QVERIFY(viewer);
        viewer->connection->send(ScreenCaptureRequest{{}, {}, u"lossless"_s, {}, {}, {}});
        TRY_VERIFY(viewer->last<ScreenFrameMessage>() != nullptr);
        const ScreenFrameMessage frame = *viewer->last<ScreenFrameMessage>();
        QCOMPARE(frame.frame, 1U);
        QVERIFY(frame.final);
        QCOMPARE(frame.rects.size(), 1); // the whole still screen as one solid run
        QCOMPARE(frame.rects.first().color, 0x336699U);
        QVERIFY(agent.manager->serverState().streamingClients.contains(viewer->key));
        QVERIFY(loggedInOrder(
            {u"[SCREEN] Screen stream 1 started for Dana's laptop: 128 × 64, lossless, up to 30 "
             u"frames per second"_s}));

        agent.time.advance(50s);
        viewer->connection->send(ScreenFrameAckMessage{frame.streamID, frame.frame, {}});
        TRY_COMPARE(ServerManagerTestAccess(*agent.manager).lastClientActivity(viewer->key),
                    std::optional<QDateTime>(agent.time.now()));

        Q_EMIT agent.events.screensDidSleep();
        TRY_VERIFY(viewer->last<ScreenStreamEndedMessage>() != nullptr);
        QCOMPARE(viewer->last<ScreenStreamEndedMessage>()->reason, u"agentStopped"_s);
        QVERIFY(agent.manager->serverState().streamingClients.isEmpty());
        QVERIFY(
            loggedInOrder({u"[SCREEN] Screen stream 1 for Dana's laptop ended: streaming was stopped (screen "
                           u"sleep, clean-up or server stop)"_s}));
        // With nobody watching, the capture lets go of the display.
        ScreenStreamHub* hub = ServerManagerTestAccess(*agent.manager).screenStreams();
        QVERIFY(hub != nullptr);
        TRY_VERIFY(!hub->isCapturing());
        viewer->connection->send(HeartbeatMessage{77});
        TRY_VERIFY(viewer->last<HeartbeatResponseMessage>() != nullptr);
        QVERIFY(!viewer->closed);
    }

    // Input rides on the stream: refused before it and without permission, placed relative to the
    // streamed area, and whatever the viewer holds is let go when the stream ends.
    void inputGoesToTheStreamedDesktopAndNothingStaysPressed() {
        LoopbackAgent agent;
        agent.displays.count = 1;
        permissions.captureAllowed = true;
        permissions.inputAllowed = false;
        agent.permissions = &permissions;
        agent.makeScreenSource = [] {
            return std::make_unique<StillScreen>();
        };
        const auto actions = std::make_shared<QStringList>();
        agent.makeInputInjector = [actions] {
            return std::make_unique<FakeInputInjector>(actions);
        };
        QVERIFY(agent.start());
        const auto viewer = signedInViewer(agent);
        QVERIFY(viewer);
        const auto refusalOf = [&](const InputEventMessage& event) {
            const qsizetype before = viewer->count<ErrorMessage>();
            viewer->connection->send(event);
            return QTest::qWaitFor([&] { return viewer->count<ErrorMessage>() > before; }, eventDeadlineMs)
                       ? viewer->last<ErrorMessage>()->code
                       : u"(no refusal)"_s;
        };
        const InputEventMessage click{u"buttonPress"_s, 10, 20, 1, {}, {}, {}, {}, {}, {}};
        QCOMPARE(refusalOf(click), u"notStreaming"_s);
        viewer->connection->send(ScreenCaptureRequest{1, {}, u"lossless"_s, {}, u"byPhysicalKey"_s, {}});
        TRY_VERIFY(viewer->last<ScreenFrameMessage>() != nullptr);
        QCOMPARE(refusalOf(click), u"inputNotPermitted"_s);
        QVERIFY(actions->isEmpty());

        permissions.inputAllowed = true;
        ServerManagerTestAccess(*agent.manager).refreshAccessibilityPermission();
        viewer->connection->send(click);
        viewer->connection->send(InputEventMessage{u"keyPress"_s, {}, {}, {}, 30, {}, 0x61, {}, {}, {}});
        viewer->connection->send(InputEventMessage{u"wheel"_s, {}, {}, {}, {}, {}, {}, 0, -240, {}});
        viewer->connection->send(InputEventMessage{u"text"_s, {}, {}, {}, {}, u"é€"_s, {}, {}, {}, {}});
        TRY_COMPARE(actions->size(), 6);
        // Display 1 of the still desktop starts at (64, 0).
        QCOMPARE(*actions, (QStringList{u"by key"_s, u"move 74,20"_s, u"button 1 down"_s,
                                        u"key 0x61/30 down"_s, u"scroll 0,-240"_s, u"type é€"_s}));
        viewer->connection->send(ScreenStopMessage{});
        TRY_COMPARE(actions->constLast(), u"release all"_s);
        QCOMPARE(refusalOf(click), u"notStreaming"_s);
    }
};

QTEST_GUILESS_MAIN(TestServerManagerScreen)
#include "tst_server_manager_screen.moc"
