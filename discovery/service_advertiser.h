#pragma once

#include <QObject>
#include <QString>
#include <atomic>
#include <memory>
#include <optional>

namespace tellwyn {

class NetworkPathMonitor;
class PublishedService;
class Scheduler;
class ScheduledTimer;
class ServicePublisher;
class SystemIdentity;

// Advertises the running server on the local network by DNS-SD, and advertises it afresh after
// every change of the host's network path. Lives on the main thread; the application makes one
// for the process.
class ServiceAdvertiser final : public QObject {
    Q_OBJECT
public:
    static constexpr auto serviceDomain = "local.";
    static constexpr auto serviceName = "TellwynAgent";
    // Name of the thread on which path updates arrive.
    static constexpr auto monitorQueueLabel = "hlvp.dnssd.monitor";

    // Path monitoring starts here and runs for the life of the manager.
    ServiceAdvertiser(std::unique_ptr<ServicePublisher> publisher,
                      std::unique_ptr<NetworkPathMonitor> pathMonitor, Scheduler& scheduler,
                      SystemIdentity& identity, QObject* parent = nullptr);
    ~ServiceAdvertiser() override;

    // Starts publishing unless a service is published already.
    void publish(quint16 port, const std::optional<QString>& computerName);
    // Withdraws the published service; a publication not yet confirmed is left alone.
    void stop();

    bool isPublished() const { return m_isPublished.load(); }
    // The name and port the responder confirmed; empty and 0 when nothing is published.
    QString publishedServiceName() const { return m_publishedServiceName; }
    quint16 publishedPort() const { return m_publishedPort; }

Q_SIGNALS:
    void publishedServiceNameChanged(const QString& name);
    void publishedPortChanged(quint16 port);

private:
    void serviceDidPublish(const QString& name, quint16 port);
    void serviceDidNotPublish();
    void serviceDidStop();
    void postClearing();
    void setPublished(const QString& name, quint16 port);
    void handlePathUpdate();
    void republish();
    QString hostName() const;

    std::unique_ptr<ServicePublisher> m_publisher;
    Scheduler& m_scheduler;
    SystemIdentity& m_identity;

    std::unique_ptr<PublishedService> m_netService;
    // Written on the main thread only; read on the path monitor's thread too.
    std::atomic<bool> m_isPublished{false};
    std::unique_ptr<NetworkPathMonitor> m_pathMonitor;
    std::unique_ptr<ScheduledTimer> m_pendingRepublish;
    std::optional<QString> m_lastComputerName;
    QString m_publishedServiceName;
    quint16 m_publishedPort = 0;
};

} // namespace tellwyn
