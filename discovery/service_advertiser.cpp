#include "service_advertiser.h"

#include "clock.h"
#include "hlvp.h"
#include "network_path_monitor.h"
#include "server_log_manager.h"
#include "service_publisher.h"
#include "system_identity.h"

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace tellwyn {

namespace {
constexpr auto republishDelay = 1000ms;
// Host name when the computer has none to give.
constexpr auto fallbackHostName = "Linux";
} // namespace

ServiceAdvertiser::ServiceAdvertiser(std::unique_ptr<ServicePublisher> publisher,
                                     std::unique_ptr<NetworkPathMonitor> pathMonitor, Scheduler& scheduler,
                                     SystemIdentity& identity, QObject* parent)
    : QObject(parent), m_publisher(std::move(publisher)), m_scheduler(scheduler), m_identity(identity),
      m_pathMonitor(std::move(pathMonitor)) {
    // The monitor is owned here and joins its thread when destroyed, so `this` outlives the handler.
    m_pathMonitor->start([this] { handlePathUpdate(); });
}

ServiceAdvertiser::~ServiceAdvertiser() {
    m_pathMonitor.reset();
}

QString ServiceAdvertiser::hostName() const {
    return m_identity.localizedComputerName().value_or(QString::fromLatin1(fallbackHostName));
}

void ServiceAdvertiser::publish(quint16 port, const std::optional<QString>& computerName) {
    if (m_isPublished) {
        return;
    }
    m_lastComputerName = computerName;

    const QString host = hostName();
    const QString trimmed = computerName ? computerName->trimmed() : QString();
    const QString displayName = trimmed.isEmpty() ? host : trimmed;

    ServiceDescription description;
    description.domain = QString::fromLatin1(serviceDomain);
    description.type = QString::fromLatin1(HLVP::serviceType);
    description.name = QString::fromLatin1(serviceName) + u" - "_s + displayName;
    description.port = port;
    if (computerName && !computerName->isEmpty()) {
        description.txtRecord.insert(u"name"_s, computerName->toUtf8());
    }
    description.txtRecord.insert(u"hostname"_s, host.toUtf8());
    description.txtRecord.insert(u"type"_s, QByteArrayLiteral("HLVP"));

    m_netService = m_publisher->createService(description);
    PublishedService* service = m_netService.get();
    connect(service, &PublishedService::didPublish, this, &ServiceAdvertiser::serviceDidPublish);
    connect(service, &PublishedService::didNotPublish, this, &ServiceAdvertiser::serviceDidNotPublish);
    connect(service, &PublishedService::didStop, this, &ServiceAdvertiser::serviceDidStop);
    connect(service, &PublishedService::responderLost, this, [this] {
        ServerLogManager::shared().log(
            u"DNS-SD responder went away: the agent is advertised again when it returns"_s, u"WARN"_s);
        postClearing();
    });
    connect(service, &PublishedService::responderReturned, this,
            [this](const QString& confirmedName, quint16 confirmedPort) {
                ServerLogManager::shared().log(
                    u"DNS-SD responder is back: advertising \"%1\" again"_s.arg(confirmedName), u"INFO"_s);
                QMetaObject::invokeMethod(
                    this,
                    [this, confirmedName, confirmedPort] { setPublished(confirmedName, confirmedPort); },
                    Qt::QueuedConnection);
            });
    service->publish();
}

void ServiceAdvertiser::serviceDidPublish(const QString& name, quint16 port) {
    m_isPublished = true;
    QMetaObject::invokeMethod(
        this, [this, name, port] { setPublished(name, port); }, Qt::QueuedConnection);
}

void ServiceAdvertiser::serviceDidNotPublish() {
    m_isPublished = false;
    postClearing();
}

void ServiceAdvertiser::serviceDidStop() {
    m_isPublished = false;
    postClearing();
}

void ServiceAdvertiser::stop() {
    // A republish still waiting would advertise a stopped server, or an old port.
    m_pendingRepublish.reset();
    if (!m_netService || !m_isPublished) {
        return;
    }
    m_netService->stop();
    m_netService.reset();
    m_isPublished = false;
    postClearing();
}

void ServiceAdvertiser::postClearing() {
    QMetaObject::invokeMethod(
        this, [this] { setPublished(QString(), 0); }, Qt::QueuedConnection);
}

void ServiceAdvertiser::setPublished(const QString& name, quint16 port) {
    if (m_publishedServiceName != name) {
        m_publishedServiceName = name;
        Q_EMIT publishedServiceNameChanged(name);
    }
    if (m_publishedPort != port) {
        m_publishedPort = port;
        Q_EMIT publishedPortChanged(port);
    }
}

void ServiceAdvertiser::handlePathUpdate() {
    if (!m_isPublished) {
        return;
    }
    QMetaObject::invokeMethod(
        this, [this] { republish(); }, Qt::QueuedConnection);
}

void ServiceAdvertiser::republish() {
    const quint16 port = m_publishedPort;
    if (port == 0) {
        return;
    }
    const std::optional<QString> computerName = m_lastComputerName;
    stop();
    m_pendingRepublish = m_scheduler.oneShot(republishDelay, this, [this, port, computerName] {
        m_pendingRepublish.reset();
        publish(port, computerName);
    });
}

} // namespace tellwyn
