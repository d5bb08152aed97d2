// The main window's content against a real ServerManager with fakes and virtual time: the
// setup assistant's steps and rules, the settings, a connection row's disconnect and the log list.

#include "content_view.h"
#include "dashboard.h"
#include "event_wait.h"
#include "fake_services.h"
#include "log_lines.h"
#include "log_page.h"
#include "loopback_agent.h"
#include "manager_fixture.h"
#include "server_log_manager.h"
#include "server_manager_access.h"
#include "settings_view.h"
#include "setup_wizard.h"

#include <QAccessible>
#include <QCheckBox>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMessageBox>
#include <QPushButton>
#include <QScrollBar>
#include <QTest>
#include <QToolButton>

using namespace Qt::StringLiterals;
using namespace tellwyn;
using namespace tellwyn::testing;

namespace {

// An agent core with every seam faked, its server not started.
struct Desk : ManagerFixture {
    explicit Desk(std::optional<int> storedPort = std::nullopt) {
        if (storedPort) {
            preferences.set(u"serverPort"_s, *storedPort);
        }
        AgentEnvironment environment = fakeEnvironment();
        environment.permissions = &permissions;
        environment.credentialStore = &keyring;
        environment.loginItem = &loginItem;
        startManager(std::move(environment));
    }
};

template <typename T = QPushButton> T* child(const QWidget* root, const QString& name) {
    T* found = root->findChild<T*>(name);
    if (found == nullptr) {
        qWarning("no %s named %s", T::staticMetaObject.className(), qPrintable(name));
    }
    return found;
}

void click(QAbstractButton* button) {
    QVERIFY(button != nullptr);
    QVERIFY(button->isVisible());
    QVERIFY(button->isEnabled());
    // A check box answers on its box and title, not on the empty rest of its row.
    const QPoint where =
        qobject_cast<QCheckBox*>(button) ? QPoint(6, button->height() / 2) : button->rect().center();
    QTest::mouseClick(button, Qt::LeftButton, {}, where);
    VirtualTime::drainEvents();
}

// Runs posted work and the views' own zero-time layout timers; no agent time passes.
void settleViews() {
    for (int i = 0; i < 3; ++i) {
        QCoreApplication::processEvents();
        VirtualTime::drainEvents();
    }
}

void commit(QLineEdit* field, const QString& text) {
    field->setFocus();
    field->selectAll();
    QTest::keyClicks(field, text);
    QTest::keyClick(field, Qt::Key_Return);
    VirtualTime::drainEvents();
}

} // namespace

class TestContentView : public QObject {
    Q_OBJECT

    // A shown content view on a fresh profile, with its assistant open.
    std::unique_ptr<ContentView> openContent(Desk& desk) {
        auto view = std::make_unique<ContentView>(*desk.manager, nullptr, desk.preferences);
        view->show();
        VirtualTime::drainEvents();
        return view;
    }

private Q_SLOTS:
    void initTestCase() { ServerLogManager::shared().setEchoToStandardOutput(false); }

    void assistantShowsOnAFreshProfileAndEveryDismissalCompletesSetup() {
        const auto refreshes = [] {
            return loggedCount(u"[PERMISSIONS] Refreshing all permissions (cache cleared)"_s);
        };
        for (const QString& dismissal : {u"escape"_s, u"skip"_s, u"done"_s}) {
            Desk desk;
            ServerLogManager::shared().clearLogs();
            auto view = openContent(desk);
            // While the assistant shows, opening the window does not refresh the permissions.
            QCOMPARE(refreshes(), 0);
            SetupWizardView* wizard = view->setupWizard();
            QVERIFY(wizard != nullptr);
            QVERIFY(wizard->isVisible());
            QCOMPARE(wizard->currentStep(), 1);
            QVERIFY(child(wizard, u"next"_s)->isEnabled());
            QVERIFY(!child(wizard, u"back"_s)->isVisible());
            click(child(wizard, u"next"_s));
            click(child(wizard, u"next"_s));
            QCOMPARE(wizard->currentStep(), 3);
            QVERIFY(child(wizard, u"back"_s)->isVisible());
            // One permission missing: "Done" waits, "Skip" does not.
            desk.permissions.captureAllowed = true;
            desk.manager->refreshAllPermissions();
            desk.time->advance(std::chrono::seconds(2));
            QVERIFY(desk.manager->permissionState().screenCaptureAuthorized);
            QVERIFY(!child(wizard, u"done"_s)->isEnabled());
            QVERIFY(child(wizard, u"skip"_s)->isEnabled());
            if (dismissal == u"escape"_s) {
                QTest::keyClick(wizard, Qt::Key_Escape);
            } else if (dismissal == u"skip"_s) {
                click(child(wizard, u"skip"_s));
            } else {
                desk.permissions.inputAllowed = true;
                desk.manager->refreshAllPermissions();
                desk.time->advance(std::chrono::seconds(2));
                click(child(wizard, u"done"_s));
            }
            VirtualTime::drainEvents();
            QVERIFY2(view->setupWizard() == nullptr || !view->setupWizard()->isVisible(),
                     qPrintable(dismissal));
            QVERIFY(!view->showingSetupWizard());
            QCOMPARE(desk.preferences.values.value(u"hasCompletedSetup"_s), QVariant(true));

            // The next window opens on the dashboard and refreshes the permissions as it appears.
            ServerLogManager::shared().clearLogs();
            auto next = openContent(desk);
            QVERIFY(next->setupWizard() == nullptr);
            QCOMPARE(refreshes(), 1);
        }
    }

    void portStepKeepsToItsRangeAndAppliesEveryChange() {
        Desk desk(80);
        QCOMPARE(desk.manager->settingsState().serverPort, 80);
        SetupWizardView wizard(*desk.manager);
        wizard.show();
        click(child(&wizard, u"next"_s));
        // Below 1024 when the step appears: the recommended port.
        QCOMPARE(desk.manager->settingsState().serverPort, 5905);
        QCOMPARE(desk.preferences.values.value(u"serverPort"_s).toInt(), 5905);

        auto* minus = child(&wizard, u"portMinus"_s);
        auto* plus = child(&wizard, u"portPlus"_s);
        auto* field = child<QLineEdit>(&wizard, u"portField"_s);
        QCOMPARE(field->text(), u"5905"_s);
        commit(field, u"1025"_s);
        click(minus);
        QCOMPARE(desk.manager->settingsState().serverPort, 1024);
        QVERIFY(!minus->isEnabled());
        commit(field, u"65534"_s);
        QCOMPARE(field->text(), u"65534"_s);
        click(plus);
        QCOMPARE(desk.manager->settingsState().serverPort, 65535);
        QVERIFY(!plus->isEnabled());
        commit(field, u"12"_s);
        QCOMPARE(desk.manager->settingsState().serverPort, 1024);
        commit(field, u"70000"_s);
        QCOMPARE(desk.manager->settingsState().serverPort, 65535);
        QCOMPARE(field->text(), u"65535"_s);
        QVERIFY(child(&wizard, u"next"_s)->isEnabled());
    }

    void permissionCardsRequestAndShowTheRelaunchState() {
        Desk desk;
        SetupWizardView wizard(*desk.manager);
        wizard.show();
        click(child(&wizard, u"next"_s));
        click(child(&wizard, u"next"_s));
        auto* request = child(&wizard, u"screenCaptureRequest"_s);
        QCOMPARE(request->text(), u"Request Permission"_s);
        click(request);
        QCOMPARE(desk.permissions.screenCaptureRequests, 1);
        QVERIFY(desk.manager->screenCaptureRequiresRelaunch());
        QCOMPARE(request->text(), u"Open Desktop Settings"_s);
        QVERIFY(child<QLabel>(&wizard, u"screenCaptureText"_s)
                    ->text()
                    .startsWith(u"Permission was requested."_s));
        click(request);
        QCOMPARE(desk.permissions.screenCaptureRequests, 2);

        desk.permissions.inputAllowed = true;
        click(child(&wizard, u"accessibilityRequest"_s));
        QCOMPARE(child<QLabel>(&wizard, u"accessibilityText"_s)->text(),
                 u"Permission granted successfully"_s);
        QVERIFY(!child(&wizard, u"accessibilityRequest"_s)->isVisible());
    }

    void settingsDoneClampsThePortAndCallsNothingWhenUnchanged() {
        Desk desk;
        const auto portChanges = [] {
            return loggedLines().filter(u"Server port updated to"_s).size();
        };
        {
            SettingsView settings(*desk.manager);
            settings.show();
            ServerLogManager::shared().clearLogs();
            click(child(&settings, u"done"_s));
            QCOMPARE(portChanges(), 0);
            QCOMPARE(settings.result(), int(QDialog::Accepted));
        }
        SettingsView settings(*desk.manager);
        settings.show();
        auto* field = child<QLineEdit>(&settings, u"portField"_s);
        QCOMPARE(field->text(), u"5905"_s);
        field->selectAll();
        QTest::keyClicks(field, u"0"_s);
        click(child(&settings, u"done"_s));
        QCOMPARE(desk.manager->settingsState().serverPort, 1);
        QCOMPARE(portChanges(), 1);
    }

    void settingsPasswordSaveConfirmsOrAlerts() {
        Desk desk;
        desk.keyring.stored = u"old secret"_s;
        desk.keyring.holdAnswers = true;
        ServerManagerTestAccess(*desk.manager).loadPasswordProtectionSettings();
        desk.manager->setPasswordProtection(true);
        SettingsView settings(*desk.manager);
        settings.show();
        auto* field = child<QLineEdit>(&settings, u"passwordField"_s);
        auto* save = child(&settings, u"savePassword"_s);
        auto* saved = child<QWidget>(&settings, u"passwordSavedRow"_s);
        // The keyring's answer arrives after the sheet opened, and shows in it.
        QCOMPARE(field->text(), QString());
        desk.keyring.releaseAnswers();
        VirtualTime::drainEvents();
        QCOMPARE(field->text(), u"old secret"_s);
        QVERIFY(!saved->isVisible());

        // While the keyring is asked the sheet stays usable; the result shows when it answers.
        field->clear();
        QTest::keyClicks(field, u"new secret"_s);
        desk.keyring.holdAnswers = true;
        QTest::keyClick(field, Qt::Key_Return);
        QVERIFY(!save->isEnabled());
        desk.keyring.releaseAnswers();
        VirtualTime::drainEvents();
        QVERIFY(save->isEnabled());
        QCOMPARE(desk.keyring.stored, u"new secret"_s);
        QVERIFY(saved->isVisible());
        QTest::keyClicks(field, u"!"_s);
        QVERIFY(!saved->isVisible());

        desk.keyring.failure = u"The keyring is locked"_s;
        click(save);
        QVERIFY(settings.passwordSaveFailed());
        QMessageBox* alert = settings.passwordAlert();
        QVERIFY(alert != nullptr && alert->isVisible());
        QCOMPARE(alert->text(), u"Password Not Saved"_s);
        QCOMPARE(alert->buttons().size(), 1);
        QCOMPARE(alert->buttonRole(alert->buttons().constFirst()), QMessageBox::RejectRole);
        click(alert->buttons().constFirst());
        QVERIFY(!settings.passwordSaveFailed());

        // Switching the lock off hides the field and is written at once.
        click(child<QCheckBox>(&settings, u"passwordProtection"_s));
        QVERIFY(!desk.manager->settingsState().passwordProtectionEnabled);
        QVERIFY(!field->isVisible());
    }

    void settingsTogglesWriteTheSettingsAndCallTheCore() {
        Desk desk;
        SettingsView settings(*desk.manager);
        settings.show();
        const bool transfers = desk.manager->settingsState().enableFileTransfers;
        click(child<QCheckBox>(&settings, u"fileTransfers"_s));
        QCOMPARE(desk.manager->settingsState().enableFileTransfers, !transfers);
        QCOMPARE(desk.preferences.values.value(u"enableFileTransfers"_s), QVariant(!transfers));
        const bool sharing = desk.manager->settingsState().enableClipboardSharing;
        click(child<QCheckBox>(&settings, u"clipboardSharing"_s));
        QCOMPARE(desk.manager->settingsState().enableClipboardSharing, !sharing);
        QCOMPARE(desk.preferences.values.value(u"enableClipboardSharing"_s), QVariant(!sharing));

        click(child<QCheckBox>(&settings, u"launchAtLogin"_s));
        QVERIFY(desk.loginItem.registered);
        QVERIFY(desk.manager->settingsState().enableLoginItems);
        QCOMPARE(desk.preferences.values.value(u"enableLoginItems"_s), QVariant(true));
        // A failed registration leaves the switch on, written all the same.
        desk.loginItem.failure = u"read-only folder"_s;
        click(child<QCheckBox>(&settings, u"launchAtLogin"_s));
        QVERIFY(desk.loginItem.registered);
        QVERIFY(!desk.manager->settingsState().enableLoginItems);

        click(child<QCheckBox>(&settings, u"autoStart"_s));
        QVERIFY(desk.manager->settingsState().autoStartServer);
        QCOMPARE(desk.preferences.values.value(u"autoStartServer"_s), QVariant(true));
        // The switches follow the settings when something else changes them.
        desk.manager->setAutoStartServer(false);
        QVERIFY(!child<QCheckBox>(&settings, u"autoStart"_s)->isChecked());
    }

    void aConnectionRowDisconnectsItsViewer() {
        LoopbackAgent agent;
        QVERIFY(agent.start());
        agent.preferences.set(u"hasCompletedSetup"_s, true);
        ContentView view(*agent.manager, nullptr, agent.preferences);
        view.show();
        auto* count = child<QLabel>(&view, u"connectionCount"_s);
        QCOMPARE(count->text(), u"0"_s);
        QCOMPARE(child(view.dashboard(), u"remoteAccess"_s)->text(), u"Disable Remote Access"_s);

        auto first = agent.connectViewer(u"First Viewer"_s);
        auto second = agent.connectViewer(u"Second Viewer"_s);
        QVERIFY(first && second);
        QCOMPARE(count->text(), u"2"_s);
        auto* button = child<QToolButton>(&view, ActiveConnectionsView::disconnectButtonName(second->key));
        QCOMPARE(button->accessibleDescription(), u"Client "_s + second->key);
        click(button);
        TRY_VERIFY(second->closed);
        const auto* goodbye = second->last<DisconnectMessage>();
        QVERIFY(goodbye != nullptr);
        QCOMPARE(goodbye->reason, u"Normal disconnect"_s);
        QVERIFY(!first->closed);
        QCOMPARE(count->text(), u"1"_s);
        QVERIFY(view.findChild<QToolButton*>(ActiveConnectionsView::disconnectButtonName(second->key)) ==
                nullptr);
        QVERIFY(view.findChild<QToolButton*>(ActiveConnectionsView::disconnectButtonName(first->key)) !=
                nullptr);

        click(child(view.dashboard(), u"remoteAccess"_s));
        QVERIFY(!agent.manager->serverState().isRunning);
        QCOMPARE(child(view.dashboard(), u"remoteAccess"_s)->text(), u"Enable Remote Access"_s);
    }

    void logListFollowsTheCappedLogAndStaysWhereTheReaderScrolled() {
        ServerLogManager& log = ServerLogManager::shared();
        log.clearLogs();
        settleViews();
        LogsOnlyView page(log);
        page.resize(700, 400);
        page.show();
        auto* count = child<QLabel>(&page, u"logCount"_s);
        QCOMPARE(count->text(), u"0 entries"_s);
        QVERIFY(!page.listView()->isVisible());

        for (int i = 0; i < 1000; ++i) {
            log.log(u"line %1"_s.arg(i), i % 2 ? u"WARN"_s : u"AUTH"_s);
        }
        settleViews();
        QCOMPARE(count->text(), u"1000 entries"_s);
        QVERIFY(page.listView()->isVisible());
        QScrollBar* bar = page.listView()->verticalScrollBar();
        QCOMPARE(bar->value(), bar->maximum());

        // The reader scrolls up: new lines, and the old ones they push out, leave the reader's
        // lines where they are; a burst of 5,000 lines keeps the cap and does not pull the list down.
        bar->setValue(bar->maximum() / 2);
        QVERIFY(!page.isPinnedToBottom());
        const QString shown = page.listView()->indexAt(QPoint(10, 10)).data().toString();
        for (int i = 1000; i < 1010; ++i) {
            log.log(u"line %1"_s.arg(i), u"AUTH"_s);
        }
        settleViews();
        QCOMPARE(page.listView()->indexAt(QPoint(10, 10)).data().toString(), shown);
        for (int i = 1010; i < 6000; ++i) {
            log.log(u"line %1"_s.arg(i), u"AUTH"_s);
        }
        settleViews();
        QCOMPARE(page.model()->rowCount(), 1000);
        QCOMPARE(page.model()->index(0).data(ServerLogModel::MessageRole).toString(), u"line 5000"_s);
        QCOMPARE(page.model()->index(999).data(ServerLogModel::MessageRole).toString(), u"line 5999"_s);
        QVERIFY(bar->value() < bar->maximum());

        // Back at the end, it follows again.
        bar->setValue(bar->maximum());
        log.log(u"line 6000"_s, u"AUTH"_s);
        settleViews();
        QCOMPARE(bar->value(), bar->maximum());
        QCOMPARE(page.model()->index(999).data(ServerLogModel::MessageRole).toString(), u"line 6000"_s);

        click(child(&page, u"clearLog"_s));
        QCOMPARE(page.model()->rowCount(), 0);
        QCOMPARE(count->text(), u"0 entries"_s);
        QVERIFY(!page.listView()->isVisible());
    }

    void logRowsSplitTheLineAndColourTheCategory() {
        ServerLogManager& log = ServerLogManager::shared();
        log.clearLogs();
        log.log(u"listener failed"_s, u"ERROR"_s);
        log.log(u"slow"_s, u"WARN"_s);
        log.log(u"warned"_s, u"WARNING"_s);
        VirtualTime::drainEvents();
        ServerLogModel model(log);
        QCOMPARE(model.index(0).data(ServerLogModel::CategoryRole).toString(), u"ERROR"_s);
        QCOMPARE(model.index(0).data(ServerLogModel::MessageRole).toString(), u"listener failed"_s);
        QVERIFY(!model.index(0).data(ServerLogModel::TimeRole).toString().isEmpty());
        QWidget widget;
        QCOMPARE(ServerLogEntryDelegate::categoryColour(u"ERROR"_s, &widget), QColor(0xd9, 0x30, 0x25));
        QCOMPARE(ServerLogEntryDelegate::categoryColour(u"WARN"_s, &widget), QColor(0xe0, 0x8a, 0x00));
        const QColor secondary = widget.palette().color(QPalette::PlaceholderText);
        QCOMPARE(ServerLogEntryDelegate::categoryColour(u"WARNING"_s, &widget), secondary);
        QCOMPARE(ServerLogEntryDelegate::categoryColour(u"INFO"_s, &widget), secondary);
    }

    void everyControlHasAnAccessibleName() {
        Desk desk;
        auto view = openContent(desk);
        view->showSettings();
        VirtualTime::drainEvents();
        QList<QWidget*> roots{view.get(), view->setupWizard(), view->settingsView()};
        int controls = 0;
        for (QWidget* root : roots) {
            QVERIFY(root != nullptr);
            QList<QWidget*> widgets;
            for (auto* button : root->findChildren<QAbstractButton*>()) {
                widgets.append(button);
            }
            for (auto* field : root->findChildren<QLineEdit*>()) {
                widgets.append(field);
            }
            for (QWidget* widget : widgets) {
                QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(widget);
                QVERIFY(accessible != nullptr);
                QVERIFY2(!accessible->text(QAccessible::Name).isEmpty(), qPrintable(widget->objectName()));
                ++controls;
            }
        }
        QVERIFY(controls > 20);
    }
};

QTEST_MAIN(TestContentView)
#include "tst_content_view.moc"
