// "Forgot Password…" against the real polkit daemon: test_polkit.py runs this as an ordinary
// account on a private system bus whose polkitd answers yes or no, and names the slot to run.

#include "administrator_authorization.h"
#include "event_wait.h"
#include "fake_platform.h"
#include "fake_services.h"
#include "main_window.h"
#include "server_log_manager.h"
#include "server_manager.h"
#include "status_bar_manager.h"
#include "virtual_time.h"

#include <QApplication>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace tellwyn;
using namespace tellwyn::testing;

class TestPolkitUnlock : public QObject {
    Q_OBJECT

    VirtualTime time;
    FakePreferences preferences;
    FakeSystemIdentity identity;
    FakeDisplayProbe displays;
    FakeSystemEvents events;
    QTemporaryDir data;
    QuietAgentServices services{time, identity};
    PolkitAuthorization polkit;
    std::unique_ptr<ServerManager> manager;
    std::unique_ptr<StatusBarManager> statusBar;

    // Opens the locked window and asks polkit through "Forgot Password…".
    MainWindow* askAdministrator() {
        preferences.set(u"PasswordProtectionEnabled"_s, true);
        preferences.set(u"ServerPassword"_s, u"sesame"_s);
        manager = std::make_unique<ServerManager>(AgentEnvironment{time, time, preferences, identity,
                                                                   displays, events, services.stats,
                                                                   services.advertiser, data.path()});
        VirtualTime::drainEvents(); // the settings load
        statusBar = std::make_unique<StatusBarManager>(
            *manager, StatusBarServices{preferences, time, polkit, {}, {}, [] {}, 0ms});
        statusBar->showMainWindow();
        MainWindow* window = statusBar->mainWindow();
        window->attachedSheets().first()->findChild<PasswordPromptView*>()->recoverButton()->click();
        return window;
    }

private Q_SLOTS:
    void initTestCase() { ServerLogManager::shared().setEchoToStandardOutput(false); }

    void grantedAuthorizationRemovesTheSheet() {
        MainWindow* window = askAdministrator();
        TRY_VERIFY(window->attachedSheets().isEmpty());
    }

    void refusedAuthorizationKeepsTheSheet() {
        MainWindow* window = askAdministrator();
        // The refusal is logged only as the absence of a change: wait for polkit's answer itself.
        bool answered = false;
        polkit.request(this, [&answered](bool granted) { answered = !granted; });
        TRY_VERIFY(answered);
        QTest::qWait(200); // the first request was sent earlier and is answered first
        QCOMPARE(window->attachedSheets().size(), 1);
        QVERIFY(window->isVisible());
    }
};

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    TestPolkitUnlock test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_polkit_unlock.moc"
