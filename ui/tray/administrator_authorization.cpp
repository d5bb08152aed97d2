#include "administrator_authorization.h"

#include "server_log_manager.h"

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QFile>
#include <QPointer>
#include <QVariantMap>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

// polkit's Subject: a kind and its details.
struct PolkitSubject {
    QString kind;
    QVariantMap details;
};

} // namespace tellwyn

Q_DECLARE_METATYPE(tellwyn::PolkitSubject)

namespace tellwyn {

QDBusArgument& operator<<(QDBusArgument& argument, const PolkitSubject& subject) {
    argument.beginStructure();
    argument << subject.kind << subject.details;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, PolkitSubject& subject) {
    argument.beginStructure();
    argument >> subject.kind >> subject.details;
    argument.endStructure();
    return argument;
}

namespace {

using PolkitDetails = QMap<QString, QString>;

// The process's start time in clock ticks since boot (field 22 of /proc/self/stat), which polkit
// uses with the process id to tell this process from a later one with the same id.
quint64 processStartTime() {
    QFile stat(u"/proc/self/stat"_s);
    if (!stat.open(QIODevice::ReadOnly)) {
        return 0;
    }
    const QByteArray line = stat.readAll();
    // The command name (field 2) may hold spaces and parentheses: count from its closing one.
    const qsizetype end = line.lastIndexOf(')');
    const QList<QByteArray> fields = line.mid(end + 2).split(' ');
    constexpr qsizetype startTimeIndex = 22 - 3;
    return fields.size() > startTimeIndex ? fields.at(startTimeIndex).toULongLong() : 0;
}

// The administrator may take a while to come and type.
constexpr int checkTimeoutMs = 10 * 60 * 1000;
constexpr uint allowUserInteraction = 0x1;

} // namespace

void PolkitAuthorization::request(QObject* context, std::function<void(bool granted)> done) {
    qDBusRegisterMetaType<PolkitSubject>();
    qDBusRegisterMetaType<PolkitDetails>();
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected()) {
        ServerLogManager::shared().log(u"Administrator authorization unavailable: no system bus"_s,
                                       u"ERROR"_s);
        QMetaObject::invokeMethod(
            context, [done] { done(false); }, Qt::QueuedConnection);
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        u"org.freedesktop.PolicyKit1"_s, u"/org/freedesktop/PolicyKit1/Authority"_s,
        u"org.freedesktop.PolicyKit1.Authority"_s, u"CheckAuthorization"_s);
    PolkitSubject subject{u"unix-process"_s,
                          {{u"pid"_s, QVariant::fromValue(static_cast<quint32>(getpid()))},
                           {u"start-time"_s, QVariant::fromValue(processStartTime())}}};
    call << QVariant::fromValue(subject) << QString::fromLatin1(actionId)
         << QVariant::fromValue(PolkitDetails{}) << allowUserInteraction << QString();
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, checkTimeoutMs), context);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, context, [watcher, done] {
        watcher->deleteLater();
        const QDBusMessage reply = watcher->reply();
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) {
            ServerLogManager::shared().log(
                u"Administrator authorization failed: %1"_s.arg(watcher->error().message()), u"ERROR"_s);
            done(false);
            return;
        }
        // The result is a structure (is_authorized, is_challenge, details).
        const QDBusArgument result = reply.arguments().constFirst().value<QDBusArgument>();
        bool authorized = false;
        bool challenge = false;
        PolkitDetails details;
        result.beginStructure();
        result >> authorized >> challenge >> details;
        result.endStructure();
        done(authorized);
    });
}

} // namespace tellwyn
