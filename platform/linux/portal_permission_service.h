#pragma once

#include "permission_service.h"

#include <QDBusConnection>
#include <QHash>
#include <QObject>
#include <QString>
#include <QVariantMap>
#include <array>
#include <atomic>
#include <functional>
#include <optional>

class QDBusMessage;

namespace tellwyn {

// On Wayland the desktop portal decides who may see the screen (ScreenCast) and send input
// (RemoteDesktop), and it only ever answers by showing the user a dialog. A request opens that
// dialog without waiting for it (like a system prompt, it answers what is known now); when the user
// approves, the portal hands back a restore token that lets later sessions start without asking
// again. Holding such a token for a kind of session, on a portal that still offers it, is what
// "allowed" means here; a cancelled dialog forgets the token. Tokens live in `grantsFile` (0600).
class PortalPermissionService final : public QObject, public PermissionService {
    Q_OBJECT

public:
    PortalPermissionService(QDBusConnection bus, QString grantsFile, QObject* parent = nullptr);

    bool screenCaptureAllowed() override;
    bool requestScreenCapture() override;
    bool inputInjectionAllowed() override;
    bool requestInputInjection() override;
    bool openSettings(SettingsPage page) override;

    // The dialogs still waiting for the user's answer (or the portal's).
    bool isRequestPending() const { return m_pending[0] || m_pending[1]; }

private Q_SLOTS:
    void onResponse(const QDBusMessage& message);

private:
    enum class Kind : std::size_t { screenCast, remoteDesktop };
    using Responder = std::function<void(uint code, const QVariantMap& results)>;

    bool allowed(Kind kind);
    void refreshOfferedTypes(Kind kind);
    bool request(Kind kind);
    void selectAndStart(Kind kind, const QString& session);
    void finish(Kind kind, const QString& session, std::optional<QString> restoreToken);
    // Calls a portal method whose answer comes as a Response signal on a request object; the
    // options map, the last argument, gets the handle token that names that object.
    void callWithResponse(Kind kind, const QString& method, QVariantList arguments, Responder responder);
    QString storedToken(Kind kind) const;
    void storeToken(Kind kind, const QString& token);
    QString newToken();

    QDBusConnection m_bus;
    QString m_grantsFile;
    std::array<bool, 2> m_pending{}; // by kind: a dialog is under way
    // By kind: the session types the portal last said it offers; -1 until it has answered.
    std::array<std::atomic<int>, 2> m_offeredTypes{-1, -1};
    QHash<QString, Responder> m_responders; // by request object path
    quint64 m_tokenCounter = 0;
};

} // namespace tellwyn
