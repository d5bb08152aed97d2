#include "linux_system_identity.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QSysInfo>

#include <pwd.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

QString LinuxSystemIdentity::loginName() const {
    // getpwuid_r: the agent's other threads may look up accounts too.
    struct passwd entry {};
    struct passwd* result = nullptr;
    long bufferSize = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    QByteArray buffer(bufferSize > 0 ? static_cast<qsizetype>(bufferSize) : 16384, '\0');
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), static_cast<size_t>(buffer.size()), &result) == 0 &&
        result != nullptr) {
        return QString::fromLocal8Bit(result->pw_name);
    }
    return QString::number(::getuid());
}

std::optional<QString> LinuxSystemIdentity::localizedComputerName() const {
    QDBusConnection bus = QDBusConnection::systemBus();
    if (bus.isConnected()) {
        QDBusMessage get = QDBusMessage::createMethodCall(u"org.freedesktop.hostname1"_s,
                                                          u"/org/freedesktop/hostname1"_s,
                                                          u"org.freedesktop.DBus.Properties"_s, u"Get"_s);
        get << u"org.freedesktop.hostname1"_s << u"PrettyHostname"_s;
        // hostnamed starts on demand; a machine without it answers at once with an error.
        const QDBusMessage reply = bus.call(get, QDBus::Block, 2000);
        if (reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty()) {
            const QString pretty =
                qvariant_cast<QDBusVariant>(reply.arguments().constFirst()).variant().toString().trimmed();
            if (!pretty.isEmpty()) {
                return pretty;
            }
        }
    }
    const QString hostName = QSysInfo::machineHostName().trimmed();
    if (hostName.isEmpty()) {
        return std::nullopt;
    }
    return hostName;
}

} // namespace tellwyn
