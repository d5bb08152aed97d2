#pragma once

#include "main_window.h"
#include "password_prompt.h"

#include <QObject>
#include <QPointer>
#include <QSystemTrayIcon>
#include <functional>
#include <memory>

class QAction;
class QDBusServiceWatcher;
class QMenu;
class QMessageBox;

namespace tellwyn {

class AdministratorAuthorization;
class Preferences;
class Scheduler;
class ScheduledTimer;
class ServerManager;

// What the tray needs from the rest of the application.
struct StatusBarServices {
    Preferences& preferences; // "hasCompletedSetup"
    Scheduler& scheduler;
    AdministratorAuthorization& administrator; // "Forgot Password…"
    // The main window's content, made when the window is first shown.
    std::function<QWidget*(QWidget* parent)> makeContent;
    // Shows the About window (made on first use and kept).
    std::function<void()> showAbout;
    // Ends the application.
    std::function<void()> terminate;
    // Wait for a StatusNotifierItem host on the session bus before creating the item, at most
    // this long; zero creates it at once.
    std::chrono::milliseconds trayHostWait{60000};
};

// Everything reached from the panel: the eye icon and its menu, the main window, and the password
// prompts that lock the main window and "Quit".
class StatusBarManager final : public QObject {
    Q_OBJECT
public:
    static const QString hasCompletedSetupKey;

    StatusBarManager(ServerManager& manager, StatusBarServices services, QObject* parent = nullptr);
    ~StatusBarManager() override;

    // Menu actions.
    void showMainWindow();
    void showAbout();
    void quitApplication();

    // Recomputes the first menu item's text; runs each time the menu opens.
    void updateMonitoringStatus();
    void updateStatusIconTint();

    QMenu* menu() const { return m_menu; }
    QSystemTrayIcon* statusItem() const { return m_statusItem; }
    QAction* monitoringStatusMenuItem() const { return m_monitoringStatusMenuItem; }
    MainWindow* mainWindow() const { return m_mainWindow; }
    PasswordPromptWindow* quitDialogWindow() const { return m_quitDialogWindow; }
    bool statusIconIsTinted() const { return m_tinted; }
    // "TellwynAgent", with the viewers watching the screen, if any.
    QString statusToolTip() const;

Q_SIGNALS:
    // The status item was (re)created; a panel can show it now.
    void statusItemCreated();

private Q_SLOTS:
    // Creates the item once the panel's host is registered (called again by its signal).
    void waitForTrayHost();

private:
    void setupStatusItem();
    bool trayHostRegistered() const;
    // The unique bus name of the panel's current watcher; empty without one.
    QString watcherOwner() const;
    void createStatusItem();
    void observeServerState();
    void showUnlockSheet();
    void handleUnlockPassword(const QString& text);
    void showQuitPasswordDialog();
    void closeQuitDialog();
    void handleQuitPassword(const QString& text);
    enum class RecoveryVariant { unlock, quit };
    void recoverWithAdministrator(RecoveryVariant variant);
    QMessageBox* showInvalidPasswordAlert(const QString& informativeText, QWidget* over);

    ServerManager& m_manager;
    StatusBarServices m_services;

    QPointer<QSystemTrayIcon> m_statusItem;
    QPointer<MainWindow> m_mainWindow;
    QPointer<PasswordPromptWindow> m_quitDialogWindow;
    QAction* m_monitoringStatusMenuItem = nullptr;
    QMenu* m_menu = nullptr;
    bool m_tinted = false;
    QDBusServiceWatcher* m_watcherWatch = nullptr;
    bool m_listeningForHost = false;
    QString m_itemWatcherOwner;
    std::unique_ptr<ScheduledTimer> m_trayHostDeadline;
};

} // namespace tellwyn
