#pragma once

// The one way tests reach the agent core's internal steps and tables, which are private so that
// the user interface sees only the published state and its commands.

#include "server_manager.h"

namespace tellwyn::testing {

class ServerManagerTestAccess {
public:
    explicit ServerManagerTestAccess(ServerManager& manager) : m(manager) {}

    HLVPServer* server() const { return m.server(); }
    qsizetype activeTaskCount() const { return m.activeTaskCount(); }
    void trackTask(const TaskPtr& task) { m.trackTask(task); }

    std::optional<QDateTime> lastClientActivity(const QString& key) const {
        return m.lastClientActivity(key);
    }
    bool hasStatsPushTask(const QString& key) const { return m.hasStatsPushTask(key); }
    ScreenStreamHub* screenStreams() const { return m.screenStreams(); }

    const QHash<QString, AuthFailureRecord>& endpointAuthFailures() const { return m.m_endpointAuthFailures; }
    const QHash<QString, AuthFailureRecord>& globalAuthFailures() const { return m.m_globalAuthFailures; }
    qsizetype pendingAuthenticationCount() const { return m.m_authenticationInProgress.size(); }
    void recordAuthFailure(QHash<QString, AuthFailureRecord>& map, const QString& key) {
        m.recordAuthFailure(map, key);
    }
    bool isAuthFailureBlocked(const std::optional<AuthFailureRecord>& record, qint64 limit) const {
        return m.isAuthFailureBlocked(record, limit);
    }

    void loadPasswordProtectionSettings() { m.loadPasswordProtectionSettings(); }
    bool isClipboardMonitorRunning() const { return m.isClipboardMonitorRunning(); }

    void screenCaptureStartupPreflight() { m.screenCaptureStartupPreflight(); }
    void checkScreenCapturePermission() { m.checkScreenCapturePermission(); }
    void checkAccessibilityPermission() { m.checkAccessibilityPermission(); }
    void refreshAccessibilityPermission() { m.refreshAccessibilityPermission(); }
    void validateScreenCaptureRuntime() { m.validateScreenCaptureRuntime(); }
    std::optional<bool> cachedPermission(const QString& key) const { return m.cachedPermission(key); }

private:
    ServerManager& m;
};

} // namespace tellwyn::testing
