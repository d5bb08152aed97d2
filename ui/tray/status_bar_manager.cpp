#include "status_bar_manager.h"

#include "administrator_authorization.h"
#include "clock.h"
#include "main_window.h"
#include "menu_animation.h"
#include "preferences.h"
#include "server_manager.h"
#include "status_icon.h"

#include <QAction>
#include <QApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusServiceWatcher>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QScreen>
#include <QSystemTrayIcon>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

const QString watcherService = u"org.kde.StatusNotifierWatcher"_s;
const QString watcherPath = u"/StatusNotifierWatcher"_s;

// Whether the tray should be looked for on the session bus: a virtual Qt platform has none.
bool sessionHasPanels() {
    const QString platform = QGuiApplication::platformName();
    return platform != u"offscreen"_s && platform != u"minimal"_s &&
           QDBusConnection::sessionBus().isConnected();
}

void centreOnScreen(QWidget* window) {
    if (const QScreen* screen = window->screen() ? window->screen() : QGuiApplication::primaryScreen()) {
        QRect frame = window->frameGeometry();
        frame.moveCenter(screen->availableGeometry().center());
        window->move(frame.topLeft());
    }
}

} // namespace

const QString StatusBarManager::hasCompletedSetupKey = u"hasCompletedSetup"_s;

StatusBarManager::StatusBarManager(ServerManager& manager, StatusBarServices services, QObject* parent)
    : QObject(parent), m_manager(manager), m_services(std::move(services)) {
    setupStatusItem();
    observeServerState();
}

StatusBarManager::~StatusBarManager() {
    setStatusItemCenterProvider({});
    delete m_statusItem;
    delete m_mainWindow;
    delete m_quitDialogWindow;
    delete m_menu;
}

void StatusBarManager::setupStatusItem() {
    m_menu = new QMenu;
    m_monitoringStatusMenuItem = m_menu->addAction(tr("Remote access disabled"));
    m_monitoringStatusMenuItem->setEnabled(false);
    m_menu->addSeparator();
    connect(m_menu->addAction(tr("TellwynAgent Status")), &QAction::triggered, this,
            &StatusBarManager::showMainWindow);
    m_menu->addSeparator();
    connect(m_menu->addAction(tr("About")), &QAction::triggered, this, &StatusBarManager::showAbout);
    m_menu->addSeparator();
    connect(m_menu->addAction(tr("Quit")), &QAction::triggered, this, &StatusBarManager::quitApplication);
    connect(m_menu, &QMenu::aboutToShow, this, &StatusBarManager::updateMonitoringStatus);

    if (!sessionHasPanels()) {
        createStatusItem();
        return;
    }
    // Qt decides once per process, when the first item is made, whether the panel speaks
    // StatusNotifierItem, and falls back to the X11 tray for good when it does not. At session
    // start the agent may come before the panel: wait for the panel's watcher and host before
    // making the item. A new watcher (a restarted panel) does not learn of an existing item, so
    // the item is made anew for it; the watcher the item was made for is remembered, so that its
    // own late announcement does not give the panel a second eye.
    m_watcherWatch = new QDBusServiceWatcher(watcherService, QDBusConnection::sessionBus(),
                                             QDBusServiceWatcher::WatchForRegistration, this);
    connect(m_watcherWatch, &QDBusServiceWatcher::serviceRegistered, this, [this] {
        if (!m_statusItem) {
            waitForTrayHost();
        } else if (watcherOwner() != m_itemWatcherOwner) {
            createStatusItem();
        }
    });
    if (trayHostRegistered() || m_services.trayHostWait.count() == 0) {
        createStatusItem();
        return;
    }
    m_trayHostDeadline = m_services.scheduler.oneShot(m_services.trayHostWait, this, [this] {
        if (!m_statusItem) {
            createStatusItem(); // no panel came: the item falls back to the X11 system tray
        }
    });
    waitForTrayHost();
}

QString StatusBarManager::watcherOwner() const {
    const QDBusConnectionInterface* bus = QDBusConnection::sessionBus().interface();
    return bus ? bus->serviceOwner(watcherService).value() : QString();
}

bool StatusBarManager::trayHostRegistered() const {
    QDBusInterface watcher(watcherService, watcherPath, watcherService, QDBusConnection::sessionBus());
    return watcher.isValid() && watcher.property("IsStatusNotifierHostRegistered").toBool();
}

void StatusBarManager::waitForTrayHost() {
    if (m_statusItem) {
        return;
    }
    if (trayHostRegistered()) {
        createStatusItem();
        return;
    }
    // The watcher is there but its host is not yet: it announces the host when it comes.
    if (!m_listeningForHost) {
        m_listeningForHost = QDBusConnection::sessionBus().connect(
            watcherService, watcherPath, watcherService, u"StatusNotifierHostRegistered"_s, this,
            SLOT(waitForTrayHost()));
    }
}

void StatusBarManager::createStatusItem() {
    m_trayHostDeadline.reset();
    if (m_watcherWatch) {
        m_itemWatcherOwner = watcherOwner();
    }
    delete m_statusItem;
    m_statusItem = new QSystemTrayIcon(this);
    m_statusItem->setToolTip(statusToolTip());
    m_statusItem->setContextMenu(m_menu);
    m_tinted = statusIconTinted(m_manager.serverState());
    m_statusItem->setIcon(statusIcon(statusIconColour(m_tinted, desktopPanelIsDark())));
    setStatusItemCenterProvider([item = QPointer<QSystemTrayIcon>(m_statusItem)]() -> std::optional<QPoint> {
        if (!item || !item->geometry().isValid() || item->geometry().isEmpty()) {
            return std::nullopt;
        }
        return item->geometry().center();
    });
    // A click on the icon opens the menu, as a right click does.
    connect(m_statusItem, &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger && m_statusItem) {
                    const QRect where = m_statusItem->geometry();
                    m_menu->popup(where.isValid() ? where.bottomLeft() : QCursor::pos());
                }
            });
    m_statusItem->show();
    Q_EMIT statusItemCreated();
}

void StatusBarManager::observeServerState() {
    connect(&m_manager, &ServerManager::serverStateChanged, this, &StatusBarManager::updateStatusIconTint,
            Qt::QueuedConnection);
}

void StatusBarManager::updateStatusIconTint() {
    if (m_statusItem) {
        // Whoever watches the screen is named where the local user can always see it.
        m_statusItem->setToolTip(statusToolTip());
    }
    const bool tinted = statusIconTinted(m_manager.serverState());
    if (tinted == m_tinted) {
        return;
    }
    m_tinted = tinted;
    if (m_statusItem) {
        m_statusItem->setIcon(statusIcon(statusIconColour(tinted, desktopPanelIsDark())));
    }
}

QString StatusBarManager::statusToolTip() const {
    QStringList watching;
    for (const QString& key : m_manager.serverState().streamingClients) {
        watching.append(m_manager.displayLabel(key));
    }
    if (watching.isEmpty()) {
        return tr("TellwynAgent");
    }
    watching.sort();
    return tr("TellwynAgent\nScreen watched by %1").arg(watching.join(u", "_s));
}

void StatusBarManager::updateMonitoringStatus() {
    QString title;
    if (m_services.preferences.boolValue(hasCompletedSetupKey)) {
        title =
            m_manager.serverState().isRunning ? tr("Remote access activated") : tr("Remote access disabled");
    } else {
        title = tr("Remote access not configured");
    }
    m_monitoringStatusMenuItem->setText(title);
}

void StatusBarManager::showMainWindow() {
    if (!m_mainWindow) {
        m_mainWindow = new MainWindow;
        if (m_services.makeContent) {
            m_mainWindow->setContent(m_services.makeContent(m_mainWindow));
        }
        connect(m_mainWindow, &MainWindow::sheetEnded, this, [this](QDialog*, int result) {
            if (result == QDialog::Rejected && m_mainWindow) {
                m_mainWindow->hide();
            }
        });
    }
    m_mainWindow->present();
    if (m_manager.settingsState().passwordProtectionEnabled) {
        showUnlockSheet();
    }
}

void StatusBarManager::showUnlockSheet() {
    const QPointer<StatusBarManager> self(this);
    PasswordPromptView::Actions actions{
        [self](const QString& text) {
            if (self) {
                self->handleUnlockPassword(text);
            }
        },
        [self] {
            if (self) {
                self->recoverWithAdministrator(RecoveryVariant::unlock);
            }
        },
        [self] {
            if (self && self->m_mainWindow) {
                self->m_mainWindow->hide(); // the sheet stays attached to the hidden window
            }
        }};
    if (m_mainWindow) {
        m_mainWindow->beginSheet(
            new PasswordPromptWindow(PasswordPromptView::Kind::unlock, std::move(actions)));
    }
}

void StatusBarManager::handleUnlockPassword(const QString& text) {
    if (m_manager.verifyLockPassword(text)) {
        if (m_mainWindow) {
            m_mainWindow->endFirstSheet();
        }
        return;
    }
    QWidget* over = m_mainWindow && !m_mainWindow->attachedSheets().isEmpty()
                        ? static_cast<QWidget*>(m_mainWindow->attachedSheets().constFirst())
                        : m_mainWindow.data();
    showInvalidPasswordAlert(tr("The password you entered is incorrect."), over);
}

QMessageBox* StatusBarManager::showInvalidPasswordAlert(const QString& informativeText, QWidget* over) {
    auto* alert = new QMessageBox(QMessageBox::Warning, tr("Invalid Password"), tr("Invalid Password"),
                                  QMessageBox::Ok, over);
    alert->setInformativeText(informativeText);
    alert->setWindowModality(Qt::ApplicationModal);
    alert->setAttribute(Qt::WA_DeleteOnClose);
    alert->open();
    return alert;
}

void StatusBarManager::quitApplication() {
    if (!m_manager.settingsState().passwordProtectionEnabled) {
        m_services.terminate();
        return;
    }
    showQuitPasswordDialog();
}

void StatusBarManager::showQuitPasswordDialog() {
    if (!m_quitDialogWindow) {
        const QPointer<StatusBarManager> self(this);
        PasswordPromptView::Actions actions{[self](const QString& text) {
                                                if (self) {
                                                    self->handleQuitPassword(text);
                                                }
                                            },
                                            [self] {
                                                if (self) {
                                                    self->recoverWithAdministrator(RecoveryVariant::quit);
                                                }
                                            },
                                            [self] {
                                                if (self) {
                                                    self->closeQuitDialog();
                                                }
                                            }};
        m_quitDialogWindow = new PasswordPromptWindow(PasswordPromptView::Kind::quit, std::move(actions));
        // The close button and Escape remove the dialog, as "Cancel" does.
        connect(m_quitDialogWindow, &QDialog::finished, this, &StatusBarManager::closeQuitDialog);
        m_quitDialogWindow->show();
        centreOnScreen(m_quitDialogWindow);
    }
    m_quitDialogWindow->show();
    m_quitDialogWindow->raise();
    m_quitDialogWindow->activateWindow();
}

void StatusBarManager::closeQuitDialog() {
    if (PasswordPromptWindow* dialog = m_quitDialogWindow) {
        m_quitDialogWindow = nullptr;
        dialog->hide();
        dialog->deleteLater();
    }
}

void StatusBarManager::handleQuitPassword(const QString& text) {
    if (m_manager.verifyLockPassword(text)) {
        closeQuitDialog();
        m_services.terminate();
        return;
    }
    showInvalidPasswordAlert(tr("The password you entered is incorrect. Quit cancelled."),
                             m_quitDialogWindow);
}

void StatusBarManager::recoverWithAdministrator(RecoveryVariant variant) {
    m_services.administrator.request(this, [this, variant](bool granted) {
        if (!granted) {
            return; // denied or cancelled: the prompt stays
        }
        if (variant == RecoveryVariant::unlock) {
            if (m_mainWindow) {
                m_mainWindow->endFirstSheet();
            }
        } else {
            closeQuitDialog();
            m_services.terminate();
        }
    });
}

void StatusBarManager::showAbout() {
    if (m_services.showAbout) {
        m_services.showAbout();
    }
}

} // namespace tellwyn
