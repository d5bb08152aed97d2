#pragma once

#include <QDialog>
#include <QList>
#include <functional>

class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;
class QStackedWidget;

namespace tellwyn {

class ServerManager;
class StatusDot;

// The ports the assistant's port step moves to. It keeps to 1024 … 65535.
namespace AssistantPort {
constexpr int minimum = 1024;
constexpr int maximum = 65535;
constexpr quint16 recommended = 5905;
quint16 afterMinus(quint16 current);
quint16 afterPlus(quint16 current);
quint16 clamped(qint64 entered);
} // namespace AssistantPort

// Step 1: what the agent does and what comes next.
class AgentWelcomeStep final : public QWidget {
    Q_OBJECT
public:
    explicit AgentWelcomeStep(QWidget* parent = nullptr);
};

// Step 2: the port, applied at every change.
class ServerPortStep final : public QWidget {
    Q_OBJECT
public:
    explicit ServerPortStep(ServerManager& serverManager, QWidget* parent = nullptr);
    // The step came into view: a port below 1024 becomes the recommended one.
    void appear();

private:
    void redraw();
    void commitField();
    void apply(quint16 port);

    ServerManager& m_serverManager;
    QPushButton* m_minus;
    QLineEdit* m_field;
    QPushButton* m_plus;
    QWidget* m_configuring;
};

// Step 3: the two permissions as cards with their request buttons.
class PermissionsStep final : public QWidget {
    Q_OBJECT
public:
    explicit PermissionsStep(ServerManager& serverManager, QWidget* parent = nullptr);

private:
    struct Card {
        QLabel* icon = nullptr;
        QLabel* text = nullptr;
        QPushButton* button = nullptr;
    };
    Card makeCard(const QString& title, const QString& objectName);
    void redraw();

    ServerManager& m_serverManager;
    QWidget* m_checking;
    Card m_screenCapture;
    Card m_accessibility;
};

// The configuration assistant: three steps with dots, "Back" / "Next", and on the last step
// "Refresh", "Skip" and "Done". Accepting the dialog is "Done"; every way of closing it ends in
// the owner's dismissal handler.
class SetupWizardView final : public QDialog {
    Q_OBJECT
public:
    static constexpr int totalSteps = 3;

    explicit SetupWizardView(ServerManager& serverManager, QWidget* parent = nullptr);

    int currentStep() const { return m_currentStep; }
    // Whether the current step may be left forward.
    bool canLeaveStep(int step) const;

Q_SIGNALS:
    // "Skip" was pressed: the owner closes the assistant.
    void skipRequested();

private:
    void goTo(int step);
    void redraw();

    ServerManager& m_serverManager;
    int m_currentStep = 1;
    QList<StatusDot*> m_dots;
    QStackedWidget* m_steps;
    ServerPortStep* m_portStep;
    QPushButton* m_back;
    QPushButton* m_next;
    QPushButton* m_refresh;
    QPushButton* m_skip;
    QPushButton* m_done;
};

} // namespace tellwyn
