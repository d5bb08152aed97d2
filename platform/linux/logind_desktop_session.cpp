#include "logind_desktop_session.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

constexpr int callTimeoutMs = 1000;
const QString login1 = u"org.freedesktop.login1"_s;
const QString networkManager = u"org.freedesktop.NetworkManager"_s;

std::optional<QVariant> call(QDBusConnection bus, const QString& service, const QString& path,
                             const QString& interface, const QString& method,
                             const QVariantList& arguments = {}) {
    if (!bus.isConnected()) {
        return std::nullopt;
    }
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, interface, method);
    message.setArguments(arguments);
    const QDBusMessage reply = bus.call(message, QDBus::Block, callTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) {
        return std::nullopt;
    }
    return reply.arguments().constFirst();
}

std::optional<QVariant> dbusProperty(QDBusConnection bus, const QString& service, const QString& path,
                                     const QString& interface, const QString& name) {
    const auto value =
        call(bus, service, path, u"org.freedesktop.DBus.Properties"_s, u"Get"_s, {interface, name});
    if (!value) {
        return std::nullopt;
    }
    return qvariant_cast<QDBusVariant>(*value).variant();
}

QString objectPathOf(const QVariant& value) {
    return qvariant_cast<QDBusObjectPath>(value).path();
}

// seat0's ActiveSession is a (session id, object path) structure.
QString activeSessionPath() {
    const auto value =
        dbusProperty(QDBusConnection::systemBus(), login1, u"/org/freedesktop/login1/seat/seat0"_s,
                     u"org.freedesktop.login1.Seat"_s, u"ActiveSession"_s);
    if (!value) {
        return {};
    }
    const QDBusArgument argument = qvariant_cast<QDBusArgument>(*value);
    QString id;
    QDBusObjectPath path;
    argument.beginStructure();
    argument >> id >> path;
    argument.endStructure();
    return path.path() == u"/"_s ? QString() : path.path();
}

QString deviceOf(const QString& interfaceName) {
    const auto device =
        call(QDBusConnection::systemBus(), networkManager, u"/org/freedesktop/NetworkManager"_s,
             networkManager, u"GetDeviceByIpIface"_s, {interfaceName});
    return device ? objectPathOf(*device) : QString();
}

} // namespace

LogindDesktopSession::LogindDesktopSession(QObject* parent) : DesktopSession(parent) {
    QDBusConnection system = QDBusConnection::systemBus();
    if (system.isConnected()) {
        system.connect(login1, u"/org/freedesktop/login1"_s, u"org.freedesktop.login1.Manager"_s,
                       u"PrepareForSleep"_s, this, SLOT(onPrepareForSleep(bool)));
    }
}

void LogindDesktopSession::onPrepareForSleep(bool goingToSleep) {
    Q_EMIT prepareForSleep(goingToSleep);
}

std::optional<bool> LogindDesktopSession::screenLocked() {
    const QString session = activeSessionPath();
    if (!session.isEmpty()) {
        const auto locked = dbusProperty(QDBusConnection::systemBus(), login1, session,
                                         u"org.freedesktop.login1.Session"_s, u"LockedHint"_s);
        if (locked) {
            return locked->toBool();
        }
    }
    // Both names are in use: the freedesktop one (KDE, Xfce) and GNOME's own.
    const QDBusConnection bus = QDBusConnection::sessionBus();
    for (const auto& [service, path] :
         {std::pair{u"org.freedesktop.ScreenSaver"_s, u"/org/freedesktop/ScreenSaver"_s},
          std::pair{u"org.gnome.ScreenSaver"_s, u"/org/gnome/ScreenSaver"_s}}) {
        if (const auto active = call(bus, service, path, service, u"GetActive"_s)) {
            return active->toBool();
        }
    }
    return std::nullopt;
}

std::optional<DesktopSession::SeatUser> LogindDesktopSession::activeSeatUser() {
    const QString session = activeSessionPath();
    if (session.isEmpty()) {
        return std::nullopt;
    }
    const QDBusConnection bus = QDBusConnection::systemBus();
    const QString sessionInterface = u"org.freedesktop.login1.Session"_s;
    const auto name = dbusProperty(bus, login1, session, sessionInterface, u"Name"_s);
    if (!name || name->toString().isEmpty()) {
        return std::nullopt;
    }
    const auto sessionClass = dbusProperty(bus, login1, session, sessionInterface, u"Class"_s);
    return SeatUser{name->toString(), sessionClass && sessionClass->toString() == u"greeter"_s};
}

QString LogindDesktopSession::wirelessNetworkName(const QString& interfaceName) {
    const QString device = deviceOf(interfaceName);
    if (device.isEmpty()) {
        return {};
    }
    const QDBusConnection bus = QDBusConnection::systemBus();
    const auto accessPoint = dbusProperty(bus, networkManager, device, networkManager + u".Device.Wireless"_s,
                                          u"ActiveAccessPoint"_s);
    if (!accessPoint || objectPathOf(*accessPoint).isEmpty() || objectPathOf(*accessPoint) == u"/"_s) {
        return {};
    }
    const auto ssid = dbusProperty(bus, networkManager, objectPathOf(*accessPoint),
                                   networkManager + u".AccessPoint"_s, u"Ssid"_s);
    return ssid ? QString::fromUtf8(ssid->toByteArray()) : QString();
}

QString LogindDesktopSession::connectionName(const QString& interfaceName) {
    const QString device = deviceOf(interfaceName);
    if (device.isEmpty()) {
        return {};
    }
    const QDBusConnection bus = QDBusConnection::systemBus();
    const auto active =
        dbusProperty(bus, networkManager, device, networkManager + u".Device"_s, u"ActiveConnection"_s);
    if (!active || objectPathOf(*active).isEmpty() || objectPathOf(*active) == u"/"_s) {
        return {};
    }
    const auto id = dbusProperty(bus, networkManager, objectPathOf(*active),
                                 networkManager + u".Connection.Active"_s, u"Id"_s);
    return id ? id->toString() : QString();
}

} // namespace tellwyn
