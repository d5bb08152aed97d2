// The X11 permission checks and a real capture, run by test_x11_desktop.py on an Xvfb display
// and with no display at all; and the agent core on that display with them.

#include "event_wait.h"
#include "fake_platform.h"
#include "fake_services.h"
#include "linux/linux_display_probe.h"
#include "linux/x11_permission_service.h"
#include "linux/x11_screen_capture.h"
#include "log_lines.h"
#include "server_log_manager.h"
#include "server_manager.h"
#include "virtual_time.h"

#include <QImage>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace tellwyn;
using namespace tellwyn::testing;

class TestX11Desktop : public QObject {
    Q_OBJECT

    HLVPScreenCapture::Result captureOnce(quint32 display, double quality) {
        X11ScreenCapture capture;
        std::optional<HLVPScreenCapture::Result> result;
        capture.captureScreen(display, quality, this,
                              [&](HLVPScreenCapture::Result r) { result = std::move(r); });
        [&] {
            TRY_VERIFY(result.has_value());
        }();
        capture.cleanup();
        return *result;
    }

private Q_SLOTS:
    void onADisplayBothAreAllowedAndACaptureShowsTheScreen() {
        X11PermissionService permissions;
        QVERIFY(permissions.screenCaptureAllowed());
        QVERIFY(permissions.inputInjectionAllowed()); // Xvfb has XTEST
        const auto result = captureOnce(0, 0.05);
        const auto* picture = std::get_if<ScreenCaptureMessage>(&result);
        QVERIFY2(picture, picture ? "" : qPrintable(std::get<HLVPError>(result).localizedDescription()));
        QCOMPARE(picture->width, 640U);
        QCOMPARE(picture->height, 480U);
        const QImage image = QImage::fromData(picture->imageData, "JPEG");
        QCOMPARE(image.size(), QSize(640, 480));
        // A higher quality gives a larger picture of the same screen.
        const auto better = captureOnce(0, 0.9);
        QVERIFY(std::holds_alternative<ScreenCaptureMessage>(better));
        QVERIFY(std::get<ScreenCaptureMessage>(better).imageData.size() >= picture->imageData.size());
        QVERIFY(std::holds_alternative<HLVPError>(captureOnce(7, 0.5))); // no such display
    }

    // The real permission service, display count and capture behind the agent core; the clock
    // and the other services are the tests' own.
    void theAgentIsReadyForConnectionsAfterARealTestCapture() {
        ServerLogManager::shared().setEchoToStandardOutput(false);
        VirtualTime time;
        FakePreferences preferences;
        FakeSystemIdentity identity;
        LinuxDisplayProbe displays;
        FakeSystemEvents events;
        X11PermissionService permissions;
        QuietAgentServices services(time, identity);
        QTemporaryDir data;
        AgentEnvironment environment{time,   time,           preferences,         identity,   displays,
                                     events, services.stats, services.advertiser, data.path()};
        environment.permissions = &permissions;
        environment.makeScreenCapture = [] {
            return std::make_unique<X11ScreenCapture>();
        };
        ServerManager manager(environment);
        VirtualTime::drainEvents();

        // Not known yet, so the request asks the display, finds capture allowed and tries one.
        QVERIFY(!manager.permissionState().screenCaptureAuthorized);
        manager.requestScreenCapturePermission();
        TRY_VERIFY2(loggedLines().contains(u"[PERMISSIONS] Screen capture validation succeeded"_s),
                    qPrintable(loggedLines().join(u'\n')));
        QVERIFY(loggedLines().contains(u"[PERMISSIONS] Validating screen capture with a tiny capture"_s));
        QVERIFY(!loggedLines().filter(u"runtime validation failed"_s).size());
        QCOMPARE(manager.serverState().statusMessage, u"Ready for connections"_s);

        manager.refreshAllPermissions();
        VirtualTime::drainEvents();
        QVERIFY(manager.permissionState().screenCaptureAuthorized);
        QVERIFY(manager.permissionState().accessibilityAuthorized);
    }

    void withoutADisplayNothingIsAllowed() {
        X11PermissionService permissions;
        QVERIFY(!permissions.screenCaptureAllowed());
        QVERIFY(!permissions.inputInjectionAllowed());
        const auto result = captureOnce(0, 0.05);
        QVERIFY(std::holds_alternative<HLVPError>(result));
        QVERIFY(!std::get<HLVPError>(result).localizedDescription().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestX11Desktop)
#include "tst_x11_desktop.moc"
