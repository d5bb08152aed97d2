// The tray's menu, icon and menu lock against a real agent core on loopback, offscreen, with
// virtual time and a scripted administrator.

#include "administrator_authorization.h"
#include "event_wait.h"
#include "loopback_agent.h"
#include "main_window.h"
#include "server_log_manager.h"
#include "status_bar_manager.h"
#include "status_icon.h"

#include <QAction>
#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace tellwyn;
using namespace tellwyn::testing;

namespace {

// Answers each request when the test says so.
struct ScriptedAdministrator final : AdministratorAuthorization {
    void request(QObject*, std::function<void(bool)> done) override { pending.append(std::move(done)); }
    void answer(bool granted) { pending.takeFirst()(granted); }
    QList<std::function<void(bool)>> pending;
};

QStringList menuTitles(const QMenu& menu) {
    QStringList titles;
    for (const QAction* action : menu.actions()) {
        titles.append(action->isSeparator() ? u"-"_s : action->text());
    }
    return titles;
}

PasswordPromptView* promptOf(QDialog* window) {
    return window ? window->findChild<PasswordPromptView*>() : nullptr;
}

bool errorLineShown(const PasswordPromptView* prompt) {
    const QList<QLabel*> labels = prompt->findChildren<QLabel*>();
    return std::any_of(labels.cbegin(), labels.cend(), [](const QLabel* label) {
        return label->text() == u"Invalid password"_s && label->isVisible();
    });
}

void type(PasswordPromptView* prompt, const QString& text) {
    prompt->field()->setText(text);
    QTest::keyClick(prompt->field(), Qt::Key_Return);
}

// The alert shown over `window`, with its message and informative text.
QStringList alertTexts(QWidget* window) {
    const QList<QMessageBox*> alerts = window->findChildren<QMessageBox*>();
    if (alerts.size() != 1) {
        return {};
    }
    QStringList texts{alerts.first()->text(), alerts.first()->informativeText()};
    alerts.first()->done(QMessageBox::Ok);
    return texts;
}

} // namespace

class TestStatusBarManager : public QObject {
    Q_OBJECT

    FakePermissionService screenPermission;
    std::unique_ptr<LoopbackAgent> agent;
    ScriptedAdministrator administrator;
    std::unique_ptr<StatusBarManager> statusBar;
    int terminations = 0;

    void start(bool protection) {
        agent = std::make_unique<LoopbackAgent>();
        // A desktop that may be streamed.
        agent->displays.count = 1;
        screenPermission.captureAllowed = true;
        agent->permissions = &screenPermission;
        agent->makeScreenSource = [] {
            return std::make_unique<StillScreen>();
        };
        if (protection) {
            agent->preferences.set(u"PasswordProtectionEnabled"_s, true);
            agent->preferences.set(u"ServerPassword"_s, u"sesame"_s); // kept in memory without a keyring
        }
        QVERIFY(agent->start());
        statusBar = std::make_unique<StatusBarManager>(
            *agent->manager,
            StatusBarServices{agent->preferences,
                              agent->time,
                              administrator,
                              [](QWidget* parent) { return new QLabel(u"content"_s, parent); },
                              {},
                              [this] { ++terminations; },
                              0ms});
    }

private Q_SLOTS:
    void initTestCase() { ServerLogManager::shared().setEchoToStandardOutput(false); }

    void cleanup() {
        statusBar.reset();
        agent.reset();
        administrator.pending.clear();
        terminations = 0;
    }

    void menuListsItsEntriesAndTheFirstFollowsSetupAndServerEachTimeItOpens() {
        start(false);
        QMenu& menu = *statusBar->menu();
        QCOMPARE(menuTitles(menu), (QStringList{u"Remote access disabled"_s, u"-"_s, u"TellwynAgent Status"_s,
                                                u"-"_s, u"About"_s, u"-"_s, u"Quit"_s}));
        QVERIFY(!statusBar->monitoringStatusMenuItem()->isEnabled());
        QCOMPARE(statusBar->statusItem()->contextMenu(), &menu);

        Q_EMIT menu.aboutToShow();
        QCOMPARE(statusBar->monitoringStatusMenuItem()->text(), u"Remote access not configured"_s);
        agent->preferences.set(StatusBarManager::hasCompletedSetupKey, true);
        Q_EMIT menu.aboutToShow();
        QCOMPARE(statusBar->monitoringStatusMenuItem()->text(), u"Remote access activated"_s);
        agent->manager->stopServer();
        LoopbackAgent::settle();
        Q_EMIT menu.aboutToShow();
        QCOMPARE(statusBar->monitoringStatusMenuItem()->text(), u"Remote access disabled"_s);
    }

    void iconTurnsBlueWhileAViewerIsSignedInAndTheTooltipNamesWhoWatches() {
        start(false);
        const auto centreColour = [this] {
            return statusBar->statusItem()->icon().pixmap(64, 64).toImage().pixelColor(32, 32);
        };
        const QColor plain = statusIconColour(false, desktopPanelIsDark());
        QCOMPARE(centreColour(), plain);

        auto viewer = agent->connectViewer(u"Viewer Mac"_s);
        LoopbackAgent::signIn(*viewer, u"alice"_s, u"correct horse"_s);
        TRY_VERIFY(!agent->manager->serverState().authenticatedClients.isEmpty());
        LoopbackAgent::settle();
        QVERIFY(statusBar->statusIconIsTinted());
        QCOMPARE(centreColour(), statusIconColour(true, desktopPanelIsDark()));
        // While it watches the screen, the tooltip names it.
        QCOMPARE(statusBar->statusItem()->toolTip(), u"TellwynAgent"_s);
        viewer->connection->send(ScreenCaptureRequest{});
        TRY_COMPARE(statusBar->statusItem()->toolTip(), u"TellwynAgent\nScreen watched by Viewer Mac"_s);

        agent->manager->disconnectClient(viewer->key);
        LoopbackAgent::settle();
        QVERIFY(!statusBar->statusIconIsTinted());
        QCOMPARE(centreColour(), plain);
        QCOMPARE(statusBar->statusItem()->toolTip(), u"TellwynAgent"_s);
    }

    void withoutProtectionTheWindowOpensFreelyAndQuitEndsAtOnce() {
        start(false);
        statusBar->showMainWindow();
        MainWindow* window = statusBar->mainWindow();
        QVERIFY(window->isVisible());
        QCOMPARE(window->size(), QSize(800, 600));
        QCOMPARE(window->windowTitle(), u"TellwynAgent"_s);
        QVERIFY(window->attachedSheets().isEmpty());

        // Closing hides; the next "TellwynAgent Status" shows the same window with its content.
        QWidget* content = window->content();
        window->close();
        QVERIFY(!window->isVisible());
        statusBar->showMainWindow();
        QCOMPARE(statusBar->mainWindow(), window);
        QCOMPARE(window->content(), content);
        QVERIFY(window->isVisible());

        statusBar->quitApplication();
        QCOMPARE(terminations, 1);
        QVERIFY(!statusBar->quitDialogWindow());
    }

    void unlockSheetChecksEntriesAndOpensOnTheRightPassword() {
        start(true);
        statusBar->showMainWindow();
        MainWindow* window = statusBar->mainWindow();
        QCOMPARE(window->attachedSheets().size(), 1);
        QDialog* sheet = window->attachedSheets().first();
        QCOMPARE(sheet->windowTitle(), u"Enter Password"_s);
        QCOMPARE(sheet->size(), QSize(400, 230));
        PasswordPromptView* prompt = promptOf(sheet);
        QVERIFY(!prompt->submitButton()->isEnabled());

        // An empty entry shows the error line and checks nothing (a check would count a failure).
        type(prompt, QString());
        QVERIFY(prompt->showingError());
        QVERIFY(errorLineShown(prompt));
        QCOMPARE(agent->manager->uiLockFailures(), 0);

        type(prompt, u"wrong"_s);
        QCOMPARE(alertTexts(sheet),
                 (QStringList{u"Invalid Password"_s, u"The password you entered is incorrect."_s}));
        QCOMPARE(window->attachedSheets(), QList<QDialog*>{sheet});
        QCOMPARE(prompt->password(), u"wrong"_s);
        QVERIFY(prompt->showingError()); // stays once shown

        // Cancel hides the window; the sheet stays attached and comes back with it.
        prompt->cancelButton()->click();
        QVERIFY(!window->isVisible());
        QCOMPARE(window->attachedSheets(), QList<QDialog*>{sheet});

        agent->time.advance(2s); // past the wait after a wrong entry
        type(prompt, u"sesame"_s);
        QVERIFY(window->attachedSheets().isEmpty());
    }

    void everyShowBeginsAFurtherSheetAndClosingOneHidesTheWindow() {
        start(true);
        statusBar->showMainWindow();
        statusBar->showMainWindow();
        MainWindow* window = statusBar->mainWindow();
        QCOMPARE(window->attachedSheets().size(), 2);
        window->attachedSheets().first()->reject(); // its close button
        QCOMPARE(window->attachedSheets().size(), 1);
        QVERIFY(!window->isVisible());
    }

    void quitDialogIsReusedAndQuitsOnTheRightPassword() {
        start(true);
        statusBar->quitApplication();
        PasswordPromptWindow* dialog = statusBar->quitDialogWindow();
        QVERIFY(dialog && dialog->isVisible());
        QCOMPARE(dialog->windowTitle(), u"Confirm Quit"_s);
        QCOMPARE(dialog->size(), QSize(400, 280));
        QCOMPARE(dialog->view()->submitButton()->text(), u"Quit"_s);
        statusBar->quitApplication();
        QCOMPARE(statusBar->quitDialogWindow(), dialog);

        type(dialog->view(), u"wrong"_s);
        QCOMPARE(alertTexts(dialog),
                 (QStringList{u"Invalid Password"_s,
                              u"The password you entered is incorrect. Quit cancelled."_s}));
        QCOMPARE(statusBar->quitDialogWindow(), dialog);
        QCOMPARE(terminations, 0);

        dialog->view()->cancelButton()->click();
        QVERIFY(!statusBar->quitDialogWindow());
        statusBar->quitApplication();
        QVERIFY(statusBar->quitDialogWindow() != nullptr);
        agent->time.advance(2s);
        type(statusBar->quitDialogWindow()->view(), u"sesame"_s);
        QVERIFY(!statusBar->quitDialogWindow());
        QCOMPARE(terminations, 1);
    }

    void administratorOpensTheLockOnlyWhenGranted() {
        start(true);
        statusBar->showMainWindow();
        MainWindow* window = statusBar->mainWindow();
        PasswordPromptView* prompt = promptOf(window->attachedSheets().first());
        prompt->recoverButton()->click();
        administrator.answer(false);
        QCOMPARE(window->attachedSheets().size(), 1);
        prompt->recoverButton()->click();
        administrator.answer(true);
        QVERIFY(window->attachedSheets().isEmpty());
        QCOMPARE(agent->manager->uiLockFailures(), 0);

        statusBar->quitApplication();
        statusBar->quitDialogWindow()->view()->recoverButton()->click();
        administrator.answer(false);
        QVERIFY(statusBar->quitDialogWindow() != nullptr);
        statusBar->quitDialogWindow()->view()->recoverButton()->click();
        administrator.answer(true);
        QVERIFY(!statusBar->quitDialogWindow());
        QCOMPARE(terminations, 1);
    }
};

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    TestStatusBarManager test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_status_bar_manager.moc"
