#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QMap>
#include <QObject>
#include <QString>

namespace tellwyn {

// One instance of a DNS-SD service as seen on one interface and address family.
struct ServiceInstanceKey {
    int interfaceIndex = -1;
    int protocol = -1; // address family of the announcement as the responder numbers it
    QString name;
    QString type;
    QString domain;

    friend bool operator==(const ServiceInstanceKey&, const ServiceInstanceKey&) = default;
};

// A resolved instance: where it runs and what its TXT record says.
struct ResolvedService {
    ServiceInstanceKey key;
    QString hostName;
    QHostAddress address;
    quint16 port = 0;
    QMap<QString, QByteArray> txtRecord;
};

// Browses for one service type with the local DNS-SD responder and resolves every instance
// found. Results arrive on the thread that owns the object.
class ServiceBrowserBackend : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;

    // Starts browsing; false when no responder can be reached (`failed` is not emitted then).
    virtual bool start(const QString& type, const QString& domain) = 0;
    virtual void stop() = 0;

Q_SIGNALS:
    void serviceResolved(const tellwyn::ResolvedService& service);
    void serviceRemoved(const tellwyn::ServiceInstanceKey& key);
    // Every instance known when browsing started has been reported.
    void allForNow();
    void failed(const QString& reason);
};

} // namespace tellwyn
