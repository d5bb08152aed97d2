#pragma once

#include "server_log_manager.h"
#include "settings_view.h"
#include "setup_wizard.h"

#include <QPointer>
#include <QWidget>
#include <functional>

class QButtonGroup;
class QDialog;
class QPropertyAnimation;
class QStackedWidget;

namespace tellwyn {

class LogsOnlyView;
class Preferences;
class ServerFunctionsView;
class ServerManager;

// The main window's content: the "Status" / "Logs" switch over the dashboard and the log, and
// the two sheets it opens, the setup assistant and the settings. It reads everything it shows
// from the server manager and the log and keeps only its own view states.
class ContentView final : public QWidget {
    Q_OBJECT
    Q_PROPERTY(double serverStatusOpacity READ serverStatusOpacity WRITE setServerStatusOpacity)
public:
    // Where the setup assistant's completion is kept.
    static inline const char* const hasCompletedSetupKey = "hasCompletedSetup";

    ContentView(ServerManager& serverManager, QWidget* parent, Preferences& preferences,
                ServerLogManager& logManager = ServerLogManager::shared());

    // How a sheet is put on screen. By default it opens window-modal over this view's window and
    // is deleted when it ends; a window that attaches sheets itself passes its own way.
    using SheetPresenter = std::function<void(QDialog* sheet)>;
    void setSheetPresenter(SheetPresenter presenter);

    int selectedSegment() const { return m_selectedSegment; }
    void setSelectedSegment(int segment);
    bool showingSetupWizard() const { return m_showingSetupWizard; }
    bool showingSettings() const { return m_showingSettings; }
    SetupWizardView* setupWizard() const { return m_setupWizard; }
    SettingsView* settingsView() const { return m_settingsView; }
    ServerFunctionsView* dashboard() const { return m_dashboard; }
    LogsOnlyView* logPage() const { return m_logPage; }

    double serverStatusOpacity() const;
    void setServerStatusOpacity(double opacity);

    // Opens the settings sheet (the dashboard's "Settings").
    void showSettings();

protected:
    void showEvent(QShowEvent* event) override;

private:
    void presentSetupWizard();
    void setShouldSkipSetup(bool skip);
    void setupWizardDismissed();
    void present(QDialog* sheet);

    ServerManager& m_serverManager;
    Preferences& m_preferences;
    bool m_showingSettings = false;
    bool m_showingSetupWizard = false;
    bool m_shouldSkipSetup = false;
    int m_selectedSegment = 0;
    QButtonGroup* m_segments;
    QStackedWidget* m_pages;
    ServerFunctionsView* m_dashboard;
    LogsOnlyView* m_logPage;
    QPropertyAnimation* m_statusAnimation;
    QPointer<SetupWizardView> m_setupWizard;
    QPointer<SettingsView> m_settingsView;
    SheetPresenter m_presentSheet;
};

} // namespace tellwyn
