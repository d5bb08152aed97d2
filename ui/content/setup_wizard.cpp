#include "setup_wizard.h"

#include "content_support.h"
#include "server_manager.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QRegularExpressionValidator>
#include <QStackedWidget>
#include <QVBoxLayout>
#include <algorithm>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace AssistantPort {
quint16 afterMinus(quint16 current) {
    return static_cast<quint16>(std::max<int>(current, minimum + 1) - 1);
}
quint16 afterPlus(quint16 current) {
    return static_cast<quint16>(std::min<int>(current + 1, maximum));
}
quint16 clamped(qint64 entered) {
    return static_cast<quint16>(std::clamp<qint64>(entered, minimum, maximum));
}
} // namespace AssistantPort

namespace {

// The longer texts, each on one line so that it reads (and is searched for) whole.
// clang-format off
constexpr const char* welcomeText = "TellwynAgent runs quietly in the menu bar and lets trusted Tellwyn clients monitor, transfer files, and remotely control this computer when you allow it.";
constexpr const char* closingText = "Keep TellwynAgent running on every computer you want to supervise. You can change these settings later from the menu bar eye icon.";
constexpr const char* permissionsText = "Screen capture and accessibility permissions are needed for full functionality. Remote clients will sign in with the username and password of the currently logged-in account on this computer.";
constexpr const char* relaunchText = "Permission was requested. The desktop may require you to quit and reopen TellwynAgent before screen recording becomes active.";
constexpr const char* screenCaptureNeededText = "Required to share this computer's screen during remote sessions. After granting access, return here and refresh.";
constexpr const char* accessibilityNeededText = "Required to send mouse clicks and keyboard input during remote control.";
constexpr const char* refreshHelpText = "Refresh permission status after granting access in the desktop's settings";
// clang-format on

constexpr int iconSize = 20;

QLabel* wrapped(QLabel* label) {
    label->setWordWrap(true);
    return label;
}

QLabel* iconLabel(const QString& symbol, QWidget* parent) {
    auto* label = new QLabel(parent);
    label->setPixmap(symbolIcon(symbol, parent).pixmap(iconSize, iconSize));
    label->setFixedSize(iconSize, iconSize);
    return label;
}

// A busy indicator with its text, shown while something runs.
QWidget* busyRow(const QString& text, QWidget* parent) {
    auto* row = new QWidget(parent);
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    auto* bar = new QProgressBar(row);
    bar->setRange(0, 0);
    bar->setFixedWidth(60);
    bar->setTextVisible(false);
    bar->setAccessibleName(text);
    layout->addWidget(bar);
    layout->addWidget(makeLabel(text, row, 0.9));
    layout->addStretch(1);
    return row;
}

// Without an icon theme the button shows `fallbackText` instead.
QPushButton* symbolButton(const QString& symbol, const QString& fallbackText, const QString& name,
                          QWidget* parent) {
    const QIcon icon = symbolIcon(symbol, parent);
    auto* button = new QPushButton(icon, icon.isNull() ? fallbackText : QString(), parent);
    button->setFlat(!icon.isNull());
    button->setFixedWidth(36);
    button->setIconSize({24, 24});
    nameForAccessibility(button, name);
    return button;
}

} // namespace

AgentWelcomeStep::AgentWelcomeStep(QWidget* parent) : QWidget(parent) {
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->addWidget(wrapped(makeLabel(uiText("Step 1: Welcome to TellwynAgent"), this, 1.2, QFont::Bold)));
    column->addWidget(wrapped(makeLabel(uiText(welcomeText), this)));
    column->addSpacing(8);
    column->addWidget(makeLabel(uiText("What happens next"), this, 1.0, QFont::DemiBold));
    const std::pair<QString, const char*> nextItems[] = {
        {u"network"_s, "Choose the local port clients will use to find this computer."},
        {u"lock.shield"_s,
         "Grant Screen Recording and Accessibility so remote sessions can view and control the computer."},
        {u"person.crop.circle.badge.checkmark"_s,
         "Remote clients sign in with the currently logged-in account on this computer."},
    };
    for (const auto& [symbol, text] : nextItems) {
        auto* row = new QHBoxLayout;
        row->addWidget(iconLabel(symbol, this), 0, Qt::AlignTop);
        row->addWidget(wrapped(makeLabel(uiText(text), this)), 1);
        column->addLayout(row);
    }
    column->addSpacing(8);
    auto* closing = wrapped(makeLabel(uiText(closingText), this, 0.9));
    setTextColour(closing, UiColor::secondary(this));
    column->addWidget(closing);
    column->addStretch(1);
}

ServerPortStep::ServerPortStep(ServerManager& serverManager, QWidget* parent)
    : QWidget(parent), m_serverManager(serverManager),
      m_minus(symbolButton(u"minus.circle.fill"_s, u"−"_s, uiText("Decrease port"), this)),
      m_field(new QLineEdit(this)),
      m_plus(symbolButton(u"plus.circle.fill"_s, u"+"_s, uiText("Increase port"), this)),
      m_configuring(busyRow(uiText("Configuring port..."), this)) {
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->addWidget(wrapped(makeLabel(uiText("Step 2: Configure Agent Port"), this, 1.2, QFont::Bold)));
    column->addWidget(
        wrapped(makeLabel(uiText("Choose a port for TellwynAgent. Port 5905 is recommended."), this)));

    m_minus->setObjectName(u"portMinus"_s);
    m_plus->setObjectName(u"portPlus"_s);
    m_field->setObjectName(u"portField"_s);
    m_field->setFixedWidth(100);
    m_field->setAlignment(Qt::AlignCenter);
    m_field->setValidator(new QRegularExpressionValidator(QRegularExpression(u"[0-9]{0,9}"_s), m_field));
    nameForAccessibility(m_field, uiText("Port:"));
    auto* row = new QHBoxLayout;
    row->addStretch(1);
    row->addWidget(m_minus);
    row->addWidget(m_field);
    row->addWidget(m_plus);
    row->addStretch(1);
    column->addLayout(row);
    auto* range = makeLabel(uiText("Port Range: 1024 - 65535"), this, 0.9);
    range->setAlignment(Qt::AlignHCenter);
    setTextColour(range, UiColor::secondary(this));
    column->addWidget(range);
    column->addWidget(m_configuring);
    column->addStretch(1);

    connect(m_minus, &QPushButton::clicked, this,
            [this] { apply(AssistantPort::afterMinus(m_serverManager.settingsState().serverPort)); });
    connect(m_plus, &QPushButton::clicked, this,
            [this] { apply(AssistantPort::afterPlus(m_serverManager.settingsState().serverPort)); });
    connect(m_field, &QLineEdit::editingFinished, this, &ServerPortStep::commitField);
    connect(&m_serverManager, &ServerManager::changed, this, &ServerPortStep::redraw);
    redraw();
}

void ServerPortStep::appear() {
    if (m_serverManager.settingsState().serverPort < AssistantPort::minimum) {
        apply(AssistantPort::recommended);
    }
}

void ServerPortStep::apply(quint16 port) {
    m_serverManager.updateServerPort(port);
}

void ServerPortStep::commitField() {
    bool ok = false;
    const qint64 entered = m_field->text().toLongLong(&ok);
    m_field->setModified(false);
    if (!ok) {
        redraw();
        return;
    }
    const quint16 port = AssistantPort::clamped(entered);
    if (port != m_serverManager.settingsState().serverPort) {
        apply(port);
    }
    redraw();
}

void ServerPortStep::redraw() {
    const quint16 port = m_serverManager.settingsState().serverPort;
    const bool configuring = m_serverManager.isConfiguringPort();
    if (!m_field->isModified()) {
        m_field->setText(QString::number(port));
    }
    m_minus->setEnabled(port >= AssistantPort::minimum + 1 && !configuring);
    m_plus->setEnabled(port < AssistantPort::maximum && !configuring);
    m_configuring->setVisible(configuring);
}

PermissionsStep::PermissionsStep(ServerManager& serverManager, QWidget* parent)
    : QWidget(parent), m_serverManager(serverManager),
      m_checking(busyRow(uiText("Checking permissions..."), this)) {
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->addWidget(wrapped(makeLabel(uiText("Step 3: Grant Permissions"), this, 1.2, QFont::Bold)));
    column->addWidget(wrapped(makeLabel(uiText(permissionsText), this)));
    column->addWidget(m_checking);
    m_screenCapture = makeCard(uiText("Screen Capture Permission"), u"screenCapture"_s);
    m_accessibility = makeCard(uiText("Accessibility Permission"), u"accessibility"_s);
    column->addStretch(1);

    connect(m_screenCapture.button, &QPushButton::clicked, this,
            [this] { m_serverManager.requestScreenCapturePermission(); });
    connect(m_accessibility.button, &QPushButton::clicked, this,
            [this] { m_serverManager.requestAccessibilityPermission(); });
    connect(&m_serverManager, &ServerManager::changed, this, &PermissionsStep::redraw);
    redraw();
}

PermissionsStep::Card PermissionsStep::makeCard(const QString& title, const QString& objectName) {
    auto* frame = new QFrame(this);
    frame->setFrameShape(QFrame::StyledPanel);
    auto* layout = new QVBoxLayout(frame);
    layout->addWidget(makeLabel(title, frame, 1.0, QFont::DemiBold));
    auto* row = new QHBoxLayout;
    Card card{new QLabel(frame), wrapped(makeLabel({}, frame, 0.9)), new QPushButton(frame)};
    card.icon->setFixedSize(iconSize, iconSize);
    card.text->setObjectName(objectName + u"Text"_s);
    card.button->setObjectName(objectName + u"Request"_s);
    row->addWidget(card.icon, 0, Qt::AlignTop);
    row->addWidget(card.text, 1);
    layout->addLayout(row);
    layout->addWidget(card.button, 0, Qt::AlignLeft);
    static_cast<QVBoxLayout*>(this->layout())->addWidget(frame);
    return card;
}

void PermissionsStep::redraw() {
    const PermissionState& permissions = m_serverManager.permissionState();
    const bool relaunch = m_serverManager.screenCaptureRequiresRelaunch();
    m_checking->setVisible(m_serverManager.isRefreshingPermissions());

    const auto show = [this](Card& card, const QString& symbol, const QString& text, const QString& button) {
        card.icon->setPixmap(symbolIcon(symbol, this).pixmap(iconSize, iconSize));
        card.text->setText(text);
        // A granted permission hides the button; it keeps its last title and name.
        card.button->setVisible(!button.isEmpty());
        if (!button.isEmpty()) {
            card.button->setText(button);
            nameForAccessibility(card.button, button);
        }
    };
    if (permissions.screenCaptureAuthorized) {
        show(m_screenCapture, u"checkmark.circle.fill"_s, uiText("Permission granted successfully"), {});
    } else if (relaunch) {
        show(m_screenCapture, u"arrow.clockwise.circle.fill"_s, uiText(relaunchText),
             uiText("Open Desktop Settings"));
    } else {
        show(m_screenCapture, u"desktopcomputer"_s, uiText(screenCaptureNeededText),
             uiText("Request Permission"));
    }
    if (permissions.accessibilityAuthorized) {
        show(m_accessibility, u"checkmark.circle.fill"_s, uiText("Permission granted successfully"), {});
    } else {
        show(m_accessibility, u"hand.raised"_s, uiText(accessibilityNeededText),
             uiText("Request Permission"));
    }
}

SetupWizardView::SetupWizardView(ServerManager& serverManager, QWidget* parent)
    : QDialog(parent), m_serverManager(serverManager), m_steps(new QStackedWidget(this)),
      m_portStep(new ServerPortStep(serverManager, this)), m_back(new QPushButton(uiText("Back"), this)),
      m_next(new QPushButton(uiText("Next"), this)),
      m_refresh(new QPushButton(symbolIcon(u"arrow.clockwise"_s, this), uiText("Refresh"), this)),
      m_skip(new QPushButton(uiText("Skip"), this)), m_done(new QPushButton(uiText("Done"), this)) {
    setObjectName(u"setupAssistant"_s);
    setWindowTitle(uiText("Configuration Assistant"));
    setFixedSize(500, 600);

    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(28, 24, 28, 20);
    auto* title = makeLabel(uiText("Configuration Assistant"), this, 1.5, QFont::Bold);
    title->setAlignment(Qt::AlignHCenter);
    column->addWidget(title);
    auto* subtitle =
        wrapped(makeLabel(uiText("Let's get this background agent configured in just a few steps"), this));
    subtitle->setAlignment(Qt::AlignHCenter);
    column->addWidget(subtitle);
    auto* hint = wrapped(makeLabel(uiText("Use the eye icon in the menu bar for main access."), this, 0.9));
    hint->setAlignment(Qt::AlignHCenter);
    setTextColour(hint, UiColor::secondary(this));
    column->addWidget(hint);

    auto* dots = new QHBoxLayout;
    dots->addStretch(1);
    for (int step = 1; step <= totalSteps; ++step) {
        auto* dot = new StatusDot(8, Qt::gray, this);
        dot->setObjectName(u"stepDot%1"_s.arg(step));
        m_dots.append(dot);
        dots->addWidget(dot);
    }
    dots->addStretch(1);
    column->addLayout(dots);
    column->addSpacing(12);

    m_steps->addWidget(new AgentWelcomeStep(this));
    m_steps->addWidget(m_portStep);
    m_steps->addWidget(new PermissionsStep(serverManager, this));
    column->addWidget(m_steps, 1);

    m_next->setDefault(true);
    m_done->setDefault(true);
    m_refresh->setToolTip(uiText(refreshHelpText));
    m_skip->setToolTip(uiText("Skip permission setup and complete setup later"));
    for (QPushButton* button : {m_back, m_next, m_refresh, m_skip, m_done}) {
        nameForAccessibility(button, button->text(), button->toolTip());
    }
    m_back->setObjectName(u"back"_s);
    m_next->setObjectName(u"next"_s);
    m_refresh->setObjectName(u"refresh"_s);
    m_skip->setObjectName(u"skip"_s);
    m_done->setObjectName(u"done"_s);
    auto* navigation = new QHBoxLayout;
    navigation->addWidget(m_back);
    navigation->addStretch(1);
    navigation->addWidget(m_next);
    navigation->addWidget(m_refresh);
    navigation->addWidget(m_skip);
    navigation->addWidget(m_done);
    column->addLayout(navigation);

    connect(m_back, &QPushButton::clicked, this, [this] { goTo(m_currentStep - 1); });
    connect(m_next, &QPushButton::clicked, this, [this] {
        if (canLeaveStep(m_currentStep)) {
            goTo(m_currentStep + 1);
        }
    });
    connect(m_refresh, &QPushButton::clicked, this, [this] { m_serverManager.refreshAllPermissions(); });
    connect(m_skip, &QPushButton::clicked, this, &SetupWizardView::skipRequested);
    connect(m_done, &QPushButton::clicked, this, [this] {
        if (canLeaveStep(totalSteps)) {
            accept();
        }
    });
    connect(&m_serverManager, &ServerManager::changed, this, &SetupWizardView::redraw);
    goTo(1);
}

bool SetupWizardView::canLeaveStep(int step) const {
    switch (step) {
    case 1:
        return true;
    case 2:
        return m_serverManager.settingsState().serverPort >= AssistantPort::minimum;
    case 3:
        return m_serverManager.permissionState().screenCaptureAuthorized &&
               m_serverManager.permissionState().accessibilityAuthorized;
    default:
        return false;
    }
}

void SetupWizardView::goTo(int step) {
    m_currentStep = std::clamp(step, 1, totalSteps);
    m_steps->setCurrentIndex(m_currentStep - 1);
    redraw();
    if (m_currentStep == 2) {
        m_portStep->appear();
    }
}

void SetupWizardView::redraw() {
    for (int step = 1; step <= totalSteps; ++step) {
        QColor grey(Qt::gray);
        grey.setAlphaF(0.3f);
        m_dots.at(step - 1)->setColour(m_currentStep >= step ? UiColor::blue() : grey);
    }
    const bool last = m_currentStep == totalSteps;
    m_back->setVisible(m_currentStep >= 2);
    m_next->setVisible(!last);
    m_next->setEnabled(canLeaveStep(m_currentStep));
    m_refresh->setVisible(last);
    m_refresh->setEnabled(!m_serverManager.isRefreshingPermissions());
    m_skip->setVisible(last);
    m_done->setVisible(last);
    m_done->setEnabled(canLeaveStep(totalSteps));
}

} // namespace tellwyn
