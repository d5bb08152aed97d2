#pragma once

#include <QPointer>
#include <QSet>
#include <QWidget>
#include <functional>

class QGraphicsOpacityEffect;
class QLabel;
class QPushButton;
class QVBoxLayout;

namespace tellwyn {

class ServerManager;
class StatusDot;

// The running state, the number of connected viewers and the two permissions with "Refresh".
class ServerStatusOverview final : public QWidget {
    Q_OBJECT
public:
    explicit ServerStatusOverview(ServerManager& serverManager, QWidget* parent = nullptr);

private:
    void redraw();

    ServerManager& m_serverManager;
    StatusDot* m_runningDot;
    QLabel* m_runningText;
    QLabel* m_connectionCount;
    QLabel* m_screenRecordingStatus;
    QLabel* m_accessibilityStatus;
    QPushButton* m_refreshButton;
};

// Turning remote access on and off, and the way to the settings.
class QuickActionsView final : public QWidget {
    Q_OBJECT
public:
    QuickActionsView(ServerManager& serverManager, std::function<void()> showSettings,
                     QWidget* parent = nullptr);

private:
    void redraw();

    ServerManager& m_serverManager;
    QPushButton* m_remoteAccessButton;
    QPushButton* m_settingsButton;
};

// One row per connected viewer, each with its disconnect button; hidden while nobody is connected.
class ActiveConnectionsView final : public QWidget {
    Q_OBJECT
public:
    explicit ActiveConnectionsView(ServerManager& serverManager, QWidget* parent = nullptr);

    // The disconnect button's object name for the client `key`.
    static QString disconnectButtonName(const QString& key);

private:
    void redraw();

    ServerManager& m_serverManager;
    QLabel* m_count;
    QVBoxLayout* m_rows;
    QStringList m_shownKeys;
    QSet<QString> m_shownStreaming;
};

// The dashboard: header, status overview, quick actions and the connections.
class ServerFunctionsView final : public QWidget {
    Q_OBJECT
public:
    ServerFunctionsView(ServerManager& serverManager, std::function<void()> showSettings,
                        QWidget* parent = nullptr);

    // The opacity of the status overview, animated from 0 to 1 when the window appears.
    void setServerStatusOpacity(double opacity);
    double serverStatusOpacity() const;

private:
    ServerStatusOverview* m_statusOverview;
    QGraphicsOpacityEffect* m_statusOpacity;
};

} // namespace tellwyn
