#include "single_instance.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>

using namespace Qt::StringLiterals;

namespace tellwyn {

SingleInstance::SingleInstance(QObject* parent) : QObject(parent) {
}

SingleInstance::Claim SingleInstance::claim() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected() || !bus.interface()) {
        return Claim::noSessionBus;
    }
    const QString name = QString::fromLatin1(serviceName);
    const QString path = QString::fromLatin1(objectPath);
    bus.registerObject(path, this, QDBusConnection::ExportScriptableSlots);
    const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply = bus.interface()->registerService(
        name, QDBusConnectionInterface::DontQueueService, QDBusConnectionInterface::DontAllowReplacement);
    if (reply.isValid() && reply.value() == QDBusConnectionInterface::ServiceRegistered) {
        return Claim::owned;
    }
    bus.unregisterObject(path);
    const QDBusMessage answer = bus.call(
        QDBusMessage::createMethodCall(name, path, QString::fromLatin1(serviceName), u"ShowMainWindow"_s));
    return answer.type() == QDBusMessage::ReplyMessage ? Claim::heldByAnother : Claim::noSessionBus;
}

void SingleInstance::ShowMainWindow() {
    if (m_showMainWindow) {
        m_showMainWindow();
    }
}

} // namespace tellwyn
