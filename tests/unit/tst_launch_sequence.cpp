// The desktop start-up: the tray first, the launch and menu animations in virtual time, the main
// window on the first run only; and the animations' own rules.

#include "administrator_authorization.h"
#include "app_delegate.h"
#include "launch_animation.h"
#include "main_window.h"
#include "manager_fixture.h"
#include "menu_animation.h"
#include "server_log_manager.h"
#include "server_manager.h"
#include "status_bar_manager.h"

#include <QApplication>
#include <QRandomGenerator>
#include <QScreen>
#include <QTest>
#include <cmath>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace tellwyn;
using namespace tellwyn::testing;

namespace {

struct RefusingAdministrator final : AdministratorAuthorization {
    void request(QObject*, std::function<void(bool)> done) override { done(false); }
};

} // namespace

class TestLaunchSequence : public QObject, ManagerFixture {
    Q_OBJECT

    RefusingAdministrator administrator;
    std::unique_ptr<LaunchAnimationController> launch;
    std::unique_ptr<MenuAnimationController> menu;
    std::unique_ptr<AppDelegate> delegate;
    bool statusItemBeforeLaunchAnimation = false;

    void makeDelegate() {
        delegate.reset();
        launch = std::make_unique<LaunchAnimationController>(*time, *time);
        menu = std::make_unique<MenuAnimationController>(*time, *time);
        delegate = std::make_unique<AppDelegate>(AppDelegate::Parts{
            [this] { return std::make_unique<ServerManager>(fakeEnvironment()); },
            [this](ServerManager& core) {
                return std::make_unique<StatusBarManager>(
                    core, StatusBarServices{preferences, *time, administrator, {}, {}, [] {}, 0ms});
            },
            *launch, *menu, *time});
    }

    MainWindow* window() const { return delegate->statusBarManager()->mainWindow(); }

private Q_SLOTS:
    void initTestCase() { ServerLogManager::shared().setEchoToStandardOutput(false); }

    void init() { resetFakes(); }

    void cleanup() {
        delegate.reset();
        launch.reset();
        menu.reset();
    }

    void firstLaunchOpensTheWindowAfterBothAnimationsThenNeverAgain() {
        makeDelegate();
        delegate->applicationDidFinishLaunching();
        QVERIFY(delegate->statusBarManager()->statusItem() != nullptr);
        QVERIFY(!launch->isPlaying()); // started from the event loop, after the call returned
        VirtualTime::drainEvents();
        time->advance(0ms);
        QVERIFY(launch->isPlaying());

        time->advance(1299ms);
        QVERIFY(!menu->isPlaying());
        time->advance(1ms);
        QVERIFY(!launch->isPlaying());
        QVERIFY(menu->isPlaying());
        QVERIFY(!window());
        time->advance(1150ms);
        QVERIFY(!menu->isPlaying());
        QVERIFY(window() && window()->isVisible());
        QVERIFY(window()->attachedSheets().isEmpty());
        QCOMPARE(delegate->serverManager()->settingsState().isFirstLaunch, false);
        QCOMPARE(preferences.storedBool(u"isFirstLaunch"_s), std::optional<bool>(false));

        // A second call in the same process plays nothing.
        window()->hide();
        delegate->applicationDidFinishLaunching();
        time->advance(5s);
        QVERIFY(!launch->isPlaying() && !menu->isPlaying());
        QVERIFY(!window()->isVisible());

        // The next start plays the animations but opens no window.
        makeDelegate();
        delegate->applicationDidFinishLaunching();
        time->advance(0ms);
        QVERIFY(launch->isPlaying());
        time->advance(5s);
        QVERIFY(delegate->menuAnimationPlayed());
        QVERIFY(!window());
    }

    void firstLaunchWithProtectionShowsTheUnlockSheet() {
        preferences.set(u"PasswordProtectionEnabled"_s, true);
        makeDelegate();
        delegate->applicationDidFinishLaunching();
        time->advance(0ms);
        time->advance(3s);
        QVERIFY(window() && window()->isVisible());
        QCOMPARE(window()->attachedSheets().size(), 1);
    }

    void animationsIgnoreASecondPlayAndCompleteOnce() {
        LaunchAnimationController launchOnly(*time, *time);
        int completions = 0;
        launchOnly.play([&] { ++completions; });
        launchOnly.play([&] { completions += 100; });
        QVERIFY(launchOnly.panel() && launchOnly.panel()->isVisible());
        QVERIFY(launchOnly.panel()->testAttribute(Qt::WA_TranslucentBackground));
        QVERIFY(launchOnly.panel()->windowFlags().testFlag(Qt::WindowTransparentForInput));
        time->advance(2s);
        QCOMPARE(completions, 1);
        QVERIFY(!launchOnly.panel());

        MenuAnimationController burst(*time, *time);
        burst.play([&] { ++completions; });
        burst.play([&] { completions += 100; });
        QCOMPARE(burst.panel()->size(), QSize(308, 308));
        time->advance(2s);
        QCOMPARE(completions, 2);
    }

    void ringSizeFollowsTheScreen() {
        const LaunchAnimationMetrics wide = launchAnimationMetrics(QSizeF(1440, 900), QSizeF());
        QCOMPARE(wide.ringDiameter, 216.0);
        QCOMPARE(wide.strokeWidth, 4.05);
        QCOMPARE(wide.expansionScale, 3.6);
        const LaunchAnimationMetrics low = launchAnimationMetrics(QSizeF(0, 0), QSizeF(800, 500));
        QCOMPARE(low.ringDiameter, 140.0);
        QCOMPARE(low.strokeWidth, 3.0);
    }

    void burstStartsAtTheStatusItemElseBesideTheScreensRightEdge() {
        const QScreen* screen = QGuiApplication::primaryScreen();
        setStatusItemCenterProvider({});
        MenuAnimationController burst(*time, *time);
        burst.play({});
        QCOMPARE(burst.origin(),
                 fallbackMenuAnimationOrigin(screen->geometry(), screen->availableGeometry()));
        QCOMPARE(burst.origin().x(), screen->availableGeometry().right() + 1 - 14);
        time->advance(2s);

        setStatusItemCenterProvider([] { return std::optional<QPoint>(QPoint(700, 11)); });
        burst.play({});
        QCOMPARE(burst.origin(), QPoint(700, 11));
        QCOMPARE(burst.panel()->geometry(), QRect(700 - 154, 11 - 154, 308, 308));
        time->advance(2s);
        setStatusItemCenterProvider({});

        // A top panel 24 high: the burst is in its middle.
        QCOMPARE(fallbackMenuAnimationOrigin(QRect(0, 0, 1280, 800), QRect(0, 24, 1280, 776)),
                 QPoint(1266, 12));
    }

    void particlesFlyOutAndFadeAfterTheirDelay() {
        QRandomGenerator random(7);
        const QList<MenuParticleSeed> seeds = makeMenuParticleSeeds(random);
        QCOMPARE(seeds.size(), 36);
        for (const MenuParticleSeed& seed : seeds) {
            QVERIFY(seed.angle >= 0 && seed.angle < 2 * M_PI);
            QVERIFY(seed.distance >= 48 && seed.distance <= 130);
            QVERIFY(seed.size >= 2.5 && seed.size <= 7);
            QVERIFY(seed.delay >= 0 && seed.delay <= 0.12);
        }
        const MenuParticleSeed seed{0.0, 100.0, 4.0, 0.1};
        const MenuParticleFrame waiting = menuParticleFrame(seed, 0.05);
        QCOMPARE(waiting.opacity, 0.95);
        QCOMPARE(waiting.offset, QPointF(0, 0));
        const MenuParticleFrame half = menuParticleFrame(seed, 0.55); // t = 0.5
        QCOMPARE(half.opacity, 0.95 * 0.5);
        QCOMPARE(half.offset.x(), (1.0 - std::pow(0.5, 2.4)) * 100.0);
        const MenuParticleFrame done = menuParticleFrame(seed, 1.0);
        QCOMPARE(done.opacity, 0.0);
        QCOMPARE(done.offset.x(), 100.0);
    }
};

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    TestLaunchSequence test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_launch_sequence.moc"
