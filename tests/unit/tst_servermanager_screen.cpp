// Screen streams in the agent core, over loopback TLS with a synthetic screen: who is refused
// and why, and that screen sleep ends a stream while the viewer stays connected.

#include "log_lines.h"
#include "loopback_agent.h"
#include "screen_source.h"
#include "screen_stream_hub.h"

#include <QTest>

using namespace Qt::StringLiterals;
using namespace tellwyn;
using namespace tellwyn::testing;

namespace {

// A still 128×64 desktop of one colour.
class StillScreen final : public ScreenSource {
public:
    std::optional<Failure> start(Listener) override { return std::nullopt; }
    ScreenLayout layout() const override { return {128, 64, {{0, 0, 128, 64, u"screen"_s, true}}}; }
    bool read(const QRect& area, PixelBuffer& into) override {
        for (int y = area.top(); y <= area.bottom(); ++y) {
            std::fill_n(into.row(y) + area.x(), area.width(), 0x336699U);
        }
        return true;
    }
    CursorImage cursor() override { return {}; }
    std::optional<QPoint> pointer() override { return QPoint(5, 5); }
};

} // namespace

class TestServerManagerScreen : public QObject {
    Q_OBJECT

    FakePermissionService permissions;

    std::unique_ptr<LoopbackViewer> signedInViewer(LoopbackAgent& agent) {
        auto viewer = agent.connectViewer(u"Dana's laptop"_s);
        if (viewer) {
            LoopbackAgent::signIn(*viewer, u"alice"_s, u"correct horse"_s);
            if (!QTest::qWaitFor([&] { return viewer->last<AuthenticationResponseMessage>() != nullptr; }, 60000)) {
                return nullptr;
            }
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
        viewer->connection->send(ScreenCaptureRequest{{}, {}, 9, u"lossless"_s, {}});
        QTRY_VERIFY_WITH_TIMEOUT(viewer->last<ErrorMessage>() != nullptr, 60000);
        QCOMPARE(*viewer->last<ErrorMessage>(), (ErrorMessage{code, text, u"screenCaptureRequest"_s, 9}));
        QVERIFY(agent.manager->serverState().streamingClients.isEmpty());
        QVERIFY(!viewer->closed);
    }

    void screenSleepEndsTheStreamAndKeepsTheViewer() {
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
        viewer->connection->send(ScreenCaptureRequest{{}, {}, {}, u"lossless"_s, {}});
        QTRY_VERIFY_WITH_TIMEOUT(viewer->last<ScreenFrameMessage>() != nullptr, 60000);
        const ScreenFrameMessage frame = *viewer->last<ScreenFrameMessage>();
        QCOMPARE(frame.frame, 1U);
        QVERIFY(frame.final);
        QCOMPARE(frame.rects.size(), 1); // the whole still screen as one solid run
        QCOMPARE(frame.rects.first().color, 0x336699U);
        QVERIFY(agent.manager->serverState().streamingClients.contains(viewer->key));
        QVERIFY(loggedInOrder(
            {u"[SCREEN] Screen stream 1 started for Dana's laptop: 128 × 64, lossless, up to 30 "
             u"frames per second"_s}));

        agent.manager->handleSleepNotification();
        QTRY_VERIFY_WITH_TIMEOUT(viewer->last<ScreenStreamEndedMessage>() != nullptr, 60000);
        QCOMPARE(viewer->last<ScreenStreamEndedMessage>()->reason, u"agentStopped"_s);
        QVERIFY(agent.manager->serverState().streamingClients.isEmpty());
        QVERIFY(
            loggedInOrder({u"[SCREEN] Screen stream 1 for Dana's laptop ended: streaming was stopped (screen "
                           u"sleep, clean-up or server stop)"_s}));
        // With nobody watching, the capture lets go of the display.
        QVERIFY(agent.manager->screenStreams() != nullptr);
        QTRY_VERIFY_WITH_TIMEOUT(!agent.manager->screenStreams()->isCapturing(), 60000);
        viewer->connection->send(HeartbeatMessage{77});
        QTRY_VERIFY_WITH_TIMEOUT(viewer->last<HeartbeatResponseMessage>() != nullptr, 60000);
        QVERIFY(!viewer->closed);
    }
};

QTEST_GUILESS_MAIN(TestServerManagerScreen)
#include "tst_servermanager_screen.moc"
