#include "content_view.h"

#include "content_support.h"
#include "dashboard.h"
#include "log_page.h"
#include "preferences.h"
#include "server_manager.h"
#include "settings_view.h"
#include "setup_wizard.h"

#include <QButtonGroup>
#include <QEasingCurve>
#include <QHBoxLayout>
#include <QPropertyAnimation>
#include <QPushButton>
#include <QShowEvent>
#include <QStackedWidget>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace tellwyn {

ContentView::ContentView(ServerManager& serverManager, QWidget* parent, Preferences& preferences,
                         ServerLogManager& logManager)
    : QWidget(parent), m_serverManager(serverManager), m_preferences(preferences),
      m_showingSetupWizard(!preferences.boolValue(QLatin1String(hasCompletedSetupKey))),
      m_segments(new QButtonGroup(this)), m_pages(new QStackedWidget(this)),
      m_dashboard(new ServerFunctionsView(
          serverManager, [this] { showSettings(); }, m_pages)),
      m_logPage(new LogsOnlyView(logManager, m_pages)),
      m_statusAnimation(new QPropertyAnimation(this, "serverStatusOpacity", this)) {
    setObjectName(u"contentView"_s);
    setMinimumSize(600, 475);
    setAutoFillBackground(true);
    setBackgroundRole(QPalette::Window);

    // The toolbar's two-segment switch, 200 wide, in the middle.
    auto* toolbar = new QHBoxLayout;
    toolbar->setSpacing(0);
    toolbar->addStretch(1);
    const char* const titles[] = {"Status", "Logs"};
    for (int segment = 0; segment < 2; ++segment) {
        auto* button = new QPushButton(uiText(titles[segment]), this);
        button->setCheckable(true);
        button->setFixedWidth(100);
        button->setObjectName(segment == 0 ? u"statusSegment"_s : u"logsSegment"_s);
        nameForAccessibility(button, button->text());
        m_segments->addButton(button, segment);
        toolbar->addWidget(button);
    }
    m_segments->setExclusive(true);
    m_segments->button(0)->setChecked(true);
    toolbar->addStretch(1);

    m_pages->addWidget(m_dashboard);
    m_pages->addWidget(m_logPage);

    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 8, 0, 0);
    column->addLayout(toolbar);
    column->addWidget(m_pages, 1);

    // Toggled, not clicked: a screen reader's toggle action switches pages too.
    connect(m_segments, &QButtonGroup::idToggled, this, [this](int segment, bool checked) {
        if (checked) {
            setSelectedSegment(segment);
        }
    });

    m_statusAnimation->setDuration(500);
    m_statusAnimation->setEasingCurve(QEasingCurve::InQuad);
    m_statusAnimation->setEndValue(1.0);
    m_dashboard->setServerStatusOpacity(0.0);

    m_presentSheet = [](QDialog* sheet) {
        sheet->setWindowModality(Qt::WindowModal);
        connect(sheet, &QDialog::finished, sheet, &QObject::deleteLater);
        sheet->open();
    };
}

void ContentView::setSheetPresenter(SheetPresenter presenter) {
    m_presentSheet = std::move(presenter);
}

void ContentView::setSelectedSegment(int segment) {
    m_selectedSegment = segment;
    // 0 is the dashboard; any other value the log.
    m_pages->setCurrentWidget(segment == 0 ? static_cast<QWidget*>(m_dashboard) : m_logPage);
    if (QAbstractButton* button = m_segments->button(segment == 0 ? 0 : 1)) {
        button->setChecked(true);
    }
}

double ContentView::serverStatusOpacity() const {
    return m_dashboard->serverStatusOpacity();
}

void ContentView::setServerStatusOpacity(double opacity) {
    m_dashboard->setServerStatusOpacity(opacity);
}

void ContentView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    if (event->spontaneous()) {
        return;
    }
    if (!m_showingSetupWizard) {
        m_serverManager.refreshAllPermissions();
    }
    if (serverStatusOpacity() < 1.0 && m_statusAnimation->state() != QAbstractAnimation::Running) {
        m_statusAnimation->setStartValue(serverStatusOpacity());
        m_statusAnimation->start();
    }
    if (m_showingSetupWizard && !m_setupWizard) {
        presentSetupWizard();
    }
}

void ContentView::presentSetupWizard() {
    m_setupWizard = new SetupWizardView(m_serverManager, this);
    connect(m_setupWizard, &SetupWizardView::skipRequested, this, [this] { setShouldSkipSetup(true); });
    connect(m_setupWizard, &QDialog::finished, this, &ContentView::setupWizardDismissed);
    present(m_setupWizard);
}

void ContentView::setShouldSkipSetup(bool skip) {
    m_shouldSkipSetup = skip;
    if (!m_shouldSkipSetup) {
        return;
    }
    m_showingSetupWizard = false;
    m_shouldSkipSetup = false;
    if (m_setupWizard) {
        m_setupWizard->reject();
    }
}

void ContentView::setupWizardDismissed() {
    // However the assistant went away ("Done", "Skip", Escape, the window closing it), setup
    // counts as completed and the assistant does not come back.
    m_preferences.set(QLatin1String(hasCompletedSetupKey), true);
    m_shouldSkipSetup = false;
    m_showingSetupWizard = false;
}

void ContentView::showSettings() {
    if (m_settingsView) {
        return;
    }
    m_showingSettings = true;
    m_settingsView = new SettingsView(m_serverManager, this);
    connect(m_settingsView, &QDialog::finished, this, [this] { m_showingSettings = false; });
    present(m_settingsView);
}

void ContentView::present(QDialog* sheet) {
    if (m_presentSheet) {
        m_presentSheet(sheet);
    }
}

} // namespace tellwyn
