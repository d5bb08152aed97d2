#include "portal_permission_service.h"

#include "desktop_settings.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QDir>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QSaveFile>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

constexpr auto portalService = "org.freedesktop.portal.Desktop";
constexpr auto portalPath = "/org/freedesktop/portal/desktop";
constexpr int propertyTimeoutMs = 2000;
constexpr uint persistUntilRevoked = 2;

struct KindDetails {
    QString interface;
    QString selectMethod;
    QString typesProperty;
    uint neededTypes; // every bit must be offered
    QString grantKey;
};

// ScreenCast: MONITOR is 1. RemoteDesktop: KEYBOARD is 1, POINTER is 2.
const KindDetails& details(std::size_t kind) {
    static const KindDetails kinds[] = {
        {u"org.freedesktop.portal.ScreenCast"_s, u"SelectSources"_s, u"AvailableSourceTypes"_s, 1,
         u"screenCastRestoreToken"_s},
        {u"org.freedesktop.portal.RemoteDesktop"_s, u"SelectDevices"_s, u"AvailableDeviceTypes"_s, 3,
         u"remoteDesktopRestoreToken"_s},
    };
    return kinds[kind];
}

QString sessionPathFrom(const QVariant& value) {
    if (value.canConvert<QDBusObjectPath>()) {
        return value.value<QDBusObjectPath>().path();
    }
    return value.toString();
}

} // namespace

PortalPermissionService::PortalPermissionService(QDBusConnection bus, QString grantsFile, QObject* parent)
    : QObject(parent), m_bus(std::move(bus)), m_grantsFile(std::move(grantsFile)) {
    refreshOfferedTypes(Kind::screenCast);
    refreshOfferedTypes(Kind::remoteDesktop);
}

void PortalPermissionService::refreshOfferedTypes(Kind kind) {
    if (!m_bus.isConnected()) {
        return;
    }
    const KindDetails& kindDetails = details(static_cast<std::size_t>(kind));
    QDBusMessage get = QDBusMessage::createMethodCall(QLatin1String(portalService), QLatin1String(portalPath),
                                                      u"org.freedesktop.DBus.Properties"_s, u"Get"_s);
    get << kindDetails.interface << kindDetails.typesProperty;
    auto* watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(get, propertyTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, kind](QDBusPendingCallWatcher* call) {
        call->deleteLater();
        const QDBusMessage reply = call->reply();
        const bool answered = reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty();
        m_offeredTypes[static_cast<std::size_t>(kind)] =
            answered ? int(reply.arguments().constFirst().value<QDBusVariant>().variant().toUInt()) : 0;
    });
}

bool PortalPermissionService::screenCaptureAllowed() {
    return allowed(Kind::screenCast);
}
bool PortalPermissionService::requestScreenCapture() {
    return request(Kind::screenCast);
}
bool PortalPermissionService::inputInjectionAllowed() {
    return allowed(Kind::remoteDesktop);
}
bool PortalPermissionService::requestInputInjection() {
    return request(Kind::remoteDesktop);
}
bool PortalPermissionService::openSettings(SettingsPage page) {
    // While the portal's dialog is open, that dialog is where the user answers.
    return !isRequestPending() && openDesktopSettings(page);
}

bool PortalPermissionService::allowed(Kind kind) {
    const KindDetails& kindDetails = details(static_cast<std::size_t>(kind));
    if (storedToken(kind).isEmpty() || !m_bus.isConnected()) {
        return false;
    }
    // What the portal offers is asked in the background and answered from the last reply, so a
    // query never waits on the bus (it may come from the main thread or the statistics thread).
    QMetaObject::invokeMethod(
        this, [this, kind] { refreshOfferedTypes(kind); }, Qt::QueuedConnection);
    const int offered = m_offeredTypes[static_cast<std::size_t>(kind)];
    return offered >= 0 && (uint(offered) & kindDetails.neededTypes) == kindDetails.neededTypes;
}

bool PortalPermissionService::request(Kind kind) {
    const bool allowedNow = allowed(kind);
    if (m_pending[static_cast<std::size_t>(kind)] || !m_bus.isConnected()) {
        return allowedNow;
    }
    m_pending[static_cast<std::size_t>(kind)] = true;
    const QVariantMap options{{u"session_handle_token"_s, newToken()}};
    callWithResponse(kind, u"CreateSession"_s, {options},
                     [this, kind](uint code, const QVariantMap& results) {
                         const QString session = sessionPathFrom(results.value(u"session_handle"_s));
                         if (code != 0 || session.isEmpty()) {
                             finish(kind, {}, std::nullopt);
                             return;
                         }
                         selectAndStart(kind, session);
                     });
    return allowedNow;
}

void PortalPermissionService::selectAndStart(Kind kind, const QString& session) {
    const KindDetails& kindDetails = details(static_cast<std::size_t>(kind));
    QVariantMap options{{u"types"_s, kindDetails.neededTypes}, {u"persist_mode"_s, persistUntilRevoked}};
    if (kind == Kind::screenCast) {
        options.insert(u"multiple"_s, false);
    }
    if (const QString token = storedToken(kind); !token.isEmpty()) {
        options.insert(u"restore_token"_s, token); // the portal skips the dialog while it is valid
    }
    callWithResponse(kind, kindDetails.selectMethod, {QVariant::fromValue(QDBusObjectPath(session)), options},
                     [this, kind, session](uint code, const QVariantMap&) {
                         if (code != 0) {
                             finish(kind, session, std::nullopt);
                             return;
                         }
                         // No parent window: the agent's own windows are not Wayland surfaces the
                         // portal could attach the dialog to.
                         callWithResponse(
                             kind, u"Start"_s,
                             {QVariant::fromValue(QDBusObjectPath(session)), QString(), QVariantMap()},
                             [this, kind, session](uint startCode, const QVariantMap& results) {
                                 if (startCode != 0) {
                                     finish(kind, session, std::nullopt);
                                     return;
                                 }
                                 finish(kind, session, results.value(u"restore_token"_s).toString());
                             });
                     });
}

void PortalPermissionService::finish(Kind kind, const QString& session, std::optional<QString> restoreToken) {
    m_pending[static_cast<std::size_t>(kind)] = false;
    // Cancelled or refused: whatever was approved before is no longer.
    storeToken(kind, restoreToken.value_or(QString()));
    if (!session.isEmpty()) {
        m_bus.asyncCall(QDBusMessage::createMethodCall(QLatin1String(portalService), session,
                                                       u"org.freedesktop.portal.Session"_s, u"Close"_s));
    }
}

void PortalPermissionService::callWithResponse(Kind kind, const QString& method, QVariantList arguments,
                                               Responder responder) {
    // The request object's path is known before the call, so the answer cannot slip past.
    const QString handleToken = newToken();
    QString sender = m_bus.baseService().mid(1);
    sender.replace(u'.', u'_');
    const QString requestPath = u"%1/request/%2/%3"_s.arg(QLatin1String(portalPath), sender, handleToken);
    m_bus.connect(QLatin1String(portalService), requestPath, u"org.freedesktop.portal.Request"_s,
                  u"Response"_s, this, SLOT(onResponse(QDBusMessage)));
    m_responders.insert(requestPath, std::move(responder));

    QVariantMap options = arguments.takeLast().toMap();
    options.insert(u"handle_token"_s, handleToken);
    arguments.append(options);
    QDBusMessage call =
        QDBusMessage::createMethodCall(QLatin1String(portalService), QLatin1String(portalPath),
                                       details(static_cast<std::size_t>(kind)).interface, method);
    call.setArguments(arguments);
    auto* watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, requestPath](QDBusPendingCallWatcher* done) {
                done->deleteLater();
                if (!done->isError()) {
                    return;
                }
                // No portal, or it refused the call: answer as a failed dialog would.
                m_bus.disconnect(QLatin1String(portalService), requestPath,
                                 u"org.freedesktop.portal.Request"_s, u"Response"_s, this,
                                 SLOT(onResponse(QDBusMessage)));
                const Responder failed = m_responders.take(requestPath);
                if (failed) {
                    failed(2, {});
                }
            });
}

void PortalPermissionService::onResponse(const QDBusMessage& message) {
    const Responder responder = m_responders.take(message.path());
    m_bus.disconnect(QLatin1String(portalService), message.path(), u"org.freedesktop.portal.Request"_s,
                     u"Response"_s, this, SLOT(onResponse(QDBusMessage)));
    const QVariantList arguments = message.arguments();
    if (!responder || arguments.size() < 2) {
        return;
    }
    responder(arguments.at(0).toUInt(), qdbus_cast<QVariantMap>(arguments.at(1)));
}

namespace {

// One "key=token" line per kind of session.
QHash<QString, QString> readGrants(const QString& path) {
    QHash<QString, QString> grants;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return grants;
    }
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray& line : lines) {
        const qsizetype equals = line.indexOf('=');
        if (equals > 0) {
            grants.insert(QString::fromUtf8(line.left(equals)), QString::fromUtf8(line.mid(equals + 1)));
        }
    }
    return grants;
}

} // namespace

QString PortalPermissionService::storedToken(Kind kind) const {
    return readGrants(m_grantsFile).value(details(static_cast<std::size_t>(kind)).grantKey);
}

void PortalPermissionService::storeToken(Kind kind, const QString& token) {
    if (token.contains(u'\n')) {
        return; // not a token any portal hands out
    }
    QHash<QString, QString> grants = readGrants(m_grantsFile);
    const QString& key = details(static_cast<std::size_t>(kind)).grantKey;
    if (token.isEmpty() ? grants.remove(key) == 0 : grants.value(key) == token) {
        return;
    }
    if (!token.isEmpty()) {
        grants.insert(key, token);
    }
    QDir().mkpath(QFileInfo(m_grantsFile).absolutePath());
    QSaveFile file(m_grantsFile);
    // A token lets a session start without asking the user: nobody else may read it.
    if (!file.open(QIODevice::WriteOnly) ||
        !file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner)) {
        return;
    }
    for (auto grant = grants.cbegin(); grant != grants.cend(); ++grant) {
        file.write(grant.key().toUtf8() + '=' + grant.value().toUtf8() + '\n');
    }
    file.commit();
}

QString PortalPermissionService::newToken() {
    return u"tellwyn%1_%2"_s.arg(++m_tokenCounter).arg(QRandomGenerator::global()->generate());
}

} // namespace tellwyn
