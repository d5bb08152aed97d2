#include "dashboard.h"

#include "content_support.h"
#include "server_manager.h"

#include <QFile>
#include <QGraphicsOpacityEffect>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QScrollArea>
#include <QToolButton>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

// Where the application's artwork is compiled in; a build without it shows no logo.
const QString logoResource = u":/tellwyn/logo.svg"_s;
constexpr int logoSize = 128;

QWidget* header(QWidget* parent) {
    auto* box = new QWidget(parent);
    auto* column = new QVBoxLayout(box);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(6);
    if (QFile::exists(logoResource)) {
        auto* logo = new QLabel(box);
        logo->setObjectName(u"logo"_s);
        logo->setPixmap(QIcon(logoResource).pixmap(logoSize, logoSize));
        logo->setFixedSize(logoSize, logoSize);
        logo->setAccessibleName(uiText("TellwynAgent"));
        column->addWidget(logo, 0, Qt::AlignHCenter);
    }
    const auto centred = [&](QLabel* label) {
        label->setAlignment(Qt::AlignHCenter);
        label->setWordWrap(true);
        column->addWidget(label);
        return label;
    };
    centred(makeLabel(uiText("TellwynAgent 1.5.1"), box, 1.6, QFont::Bold));
    centred(makeLabel(uiText("FREE background agent app collecting data of monitored computers"), box, 1.1));
    setTextColour(centred(makeLabel(uiText("Powered by the Halvo Protocol (HLVP)."), box, 0.9)),
                  UiColor::secondary(box));
    setTextColour(
        centred(makeLabel(uiText("Download Tellwyn app to remotely access this computer."), box, 0.9)),
        UiColor::secondary(box));
    return box;
}

QFrame* card(QWidget* parent) {
    auto* frame = new QFrame(parent);
    frame->setFrameShape(QFrame::StyledPanel);
    return frame;
}

} // namespace

ServerStatusOverview::ServerStatusOverview(ServerManager& serverManager, QWidget* parent)
    : QWidget(parent), m_serverManager(serverManager), m_runningDot(new StatusDot(12, Qt::gray, this)),
      m_runningText(makeLabel({}, this, 1.0, QFont::DemiBold)),
      m_connectionCount(makeLabel({}, this, 2.4, QFont::Bold)),
      m_screenRecordingStatus(makeLabel({}, this, 0.85)), m_accessibilityStatus(makeLabel({}, this, 0.85)),
      m_refreshButton(new QPushButton(symbolIcon(u"arrow.clockwise"_s, this), uiText("Refresh"), this)) {
    auto* frame = card(this);
    auto* column = new QVBoxLayout(frame);

    auto* statusRow = new QHBoxLayout;
    statusRow->addWidget(m_runningDot);
    statusRow->addWidget(m_runningText);
    statusRow->addStretch(1);
    column->addLayout(statusRow);

    m_connectionCount->setObjectName(u"connectionCount"_s);
    setTextColour(m_connectionCount, UiColor::blue());
    m_connectionCount->setAlignment(Qt::AlignHCenter);
    column->addWidget(m_connectionCount);
    auto* caption = makeLabel(uiText("Active Connections"), this);
    caption->setAlignment(Qt::AlignHCenter);
    column->addWidget(caption);

    column->addWidget(makeLabel(uiText("System Permissions"), this, 1.0, QFont::DemiBold));
    const auto permissionRow = [&](const char* title, QLabel* status) {
        auto* row = new QHBoxLayout;
        row->addWidget(makeLabel(uiText(title), this));
        row->addStretch(1);
        row->addWidget(status);
        column->addLayout(row);
    };
    permissionRow("Screen Recording", m_screenRecordingStatus);
    permissionRow("Accessibility", m_accessibilityStatus);
    m_screenRecordingStatus->setObjectName(u"screenRecordingStatus"_s);
    m_accessibilityStatus->setObjectName(u"accessibilityStatus"_s);

    m_refreshButton->setObjectName(u"refreshPermissions"_s);
    nameForAccessibility(m_refreshButton, uiText("Refresh"));
    column->addWidget(m_refreshButton, 0, Qt::AlignLeft);

    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    outer->addWidget(frame);

    connect(m_refreshButton, &QPushButton::clicked, this,
            [this] { m_serverManager.refreshAllPermissions(); });
    connect(&m_serverManager, &ServerManager::changed, this, &ServerStatusOverview::redraw);
    redraw();
}

void ServerStatusOverview::redraw() {
    const bool running = m_serverManager.serverState().isRunning;
    m_runningDot->setColour(running ? UiColor::green() : QColor(Qt::gray));
    m_runningText->setText(running ? uiText("Running") : uiText("Stopped"));
    setTextColour(m_runningText, running ? UiColor::green() : UiColor::secondary(this));
    m_connectionCount->setText(QString::number(m_serverManager.serverState().connectedClients.size()));

    const PermissionState& permissions = m_serverManager.permissionState();
    const PermissionStatus screen =
        screenRecordingStatus(permissions, m_serverManager.screenCaptureRequiresRelaunch());
    m_screenRecordingStatus->setText(screen.text);
    setTextColour(m_screenRecordingStatus, screen.colour);
    const PermissionStatus input = accessibilityStatus(permissions);
    m_accessibilityStatus->setText(input.text);
    setTextColour(m_accessibilityStatus, input.colour);
}

QuickActionsView::QuickActionsView(ServerManager& serverManager, std::function<void()> showSettings,
                                   QWidget* parent)
    : QWidget(parent), m_serverManager(serverManager), m_remoteAccessButton(new QPushButton(this)),
      m_settingsButton(new QPushButton(symbolIcon(u"gear"_s, this), uiText("Settings"), this)) {
    m_remoteAccessButton->setObjectName(u"remoteAccess"_s);
    m_remoteAccessButton->setFixedWidth(200);
    m_remoteAccessButton->setDefault(true);
    m_settingsButton->setObjectName(u"settings"_s);
    m_settingsButton->setFixedWidth(100);
    nameForAccessibility(m_settingsButton, uiText("Settings"));

    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(0, 0, 0, 0);
    row->addStretch(1);
    row->addWidget(m_remoteAccessButton);
    row->addWidget(m_settingsButton);
    row->addStretch(1);

    connect(m_remoteAccessButton, &QPushButton::clicked, this, [this] {
        if (m_serverManager.serverState().isRunning) {
            m_serverManager.stopServer();
        } else {
            m_serverManager.startServer();
        }
    });
    connect(m_settingsButton, &QPushButton::clicked, this, [showSettings = std::move(showSettings)] {
        if (showSettings) {
            showSettings();
        }
    });
    connect(&m_serverManager, &ServerManager::serverStateChanged, this, &QuickActionsView::redraw);
    redraw();
}

void QuickActionsView::redraw() {
    const bool running = m_serverManager.serverState().isRunning;
    const QString title = running ? uiText("Disable Remote Access") : uiText("Enable Remote Access");
    m_remoteAccessButton->setText(title);
    m_remoteAccessButton->setIcon(symbolIcon(running ? u"stop.fill"_s : u"play.fill"_s, this));
    nameForAccessibility(m_remoteAccessButton, title);
    QPalette palette = m_remoteAccessButton->palette();
    palette.setColor(QPalette::Button, running ? UiColor::red() : UiColor::green());
    palette.setColor(QPalette::ButtonText, Qt::white);
    m_remoteAccessButton->setPalette(palette);
}

ActiveConnectionsView::ActiveConnectionsView(ServerManager& serverManager, QWidget* parent)
    : QWidget(parent), m_serverManager(serverManager), m_count(makeLabel({}, this, 1.0, QFont::DemiBold)),
      m_rows(new QVBoxLayout) {
    auto* frame = card(this);
    auto* column = new QVBoxLayout(frame);
    auto* headerRow = new QHBoxLayout;
    headerRow->addWidget(makeLabel(uiText("Active Connections"), this, 1.0, QFont::DemiBold));
    headerRow->addStretch(1);
    headerRow->addWidget(m_count);
    column->addLayout(headerRow);
    column->addLayout(m_rows);
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    outer->addWidget(frame);

    connect(&m_serverManager, &ServerManager::serverStateChanged, this, &ActiveConnectionsView::redraw);
    redraw();
}

QString ActiveConnectionsView::disconnectButtonName(const QString& key) {
    return u"disconnect:"_s + key;
}

void ActiveConnectionsView::redraw() {
    const auto& clients = m_serverManager.serverState().connectedClients;
    setVisible(!clients.isEmpty());
    m_count->setText(QString::number(clients.size()));
    const QStringList keys = clients.keys();
    const QSet<QString>& streaming = m_serverManager.serverState().streamingClients;
    if (keys == m_shownKeys && streaming == m_shownStreaming) {
        return;
    }
    m_shownKeys = keys;
    m_shownStreaming = streaming;
    while (QLayoutItem* item = m_rows->takeAt(0)) {
        delete item->widget();
        delete item;
    }
    for (const QString& key : keys) {
        auto* row = new QWidget(this);
        auto* layout = new QHBoxLayout(row);
        layout->setContentsMargins(0, 0, 0, 0);
        layout->addWidget(new StatusDot(8, UiColor::green(), row));
        const QString name = uiText("Client ") + key;
        layout->addWidget(makeLabel(name, row), 1);
        auto* connected = makeLabel(
            streaming.contains(key) ? uiText("Watching the screen") : uiText("Connected"), row, 0.85);
        setTextColour(connected, UiColor::secondary(row));
        layout->addWidget(connected);
        auto* disconnect = new QToolButton(row);
        disconnect->setAutoRaise(true);
        disconnect->setIcon(symbolIcon(u"xmark.circle.fill"_s, row));
        disconnect->setToolTip(uiText("Disconnect client"));
        disconnect->setObjectName(disconnectButtonName(key));
        nameForAccessibility(disconnect, uiText("Disconnect client"), name);
        layout->addWidget(disconnect);
        connect(disconnect, &QToolButton::clicked, this,
                [this, key] { m_serverManager.disconnectClient(key); });
        m_rows->addWidget(row);
    }
}

ServerFunctionsView::ServerFunctionsView(ServerManager& serverManager, std::function<void()> showSettings,
                                         QWidget* parent)
    : QWidget(parent), m_statusOverview(new ServerStatusOverview(serverManager)),
      m_statusOpacity(new QGraphicsOpacityEffect(m_statusOverview)) {
    m_statusOpacity->setOpacity(0.0);
    m_statusOverview->setGraphicsEffect(m_statusOpacity);

    auto* content = new QWidget;
    auto* column = new QVBoxLayout(content);
    column->setSpacing(24);
    column->setContentsMargins(32, 24, 32, 24);
    column->addWidget(header(content));
    column->addWidget(m_statusOverview);
    column->addWidget(new QuickActionsView(serverManager, std::move(showSettings), content));
    column->addWidget(new ActiveConnectionsView(serverManager, content));
    column->addStretch(1);

    auto* scroll = new QScrollArea(this);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidget(content);
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    outer->addWidget(scroll);
}

void ServerFunctionsView::setServerStatusOpacity(double opacity) {
    m_statusOpacity->setOpacity(opacity);
    // Fully shown, the overview draws without the effect's off-screen pass.
    m_statusOpacity->setEnabled(opacity < 1.0);
}

double ServerFunctionsView::serverStatusOpacity() const {
    return m_statusOpacity->opacity();
}

} // namespace tellwyn
