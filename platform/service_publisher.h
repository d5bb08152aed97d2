#pragma once

#include <QByteArray>
#include <QMap>
#include <QObject>
#include <QString>
#include <memory>

namespace tellwyn {

// What one DNS-SD advertisement announces. The TXT record maps each key to its raw value.
struct ServiceDescription {
    QString domain;
    QString type;
    QString name;
    quint16 port = 0;
    QMap<QString, QByteArray> txtRecord;
};

// One advertised service. Results arrive later, on the thread that owns the object, never from
// inside publish() or stop(). Destroying the object withdraws whatever it still announces.
class PublishedService : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;

    // Starts announcing. A name already taken on the network is replaced by the next free
    // alternative, and the confirmation carries the name actually in use.
    virtual void publish() = 0;
    // Withdraws the announcement; no further results are reported for it.
    virtual void stop() = 0;

Q_SIGNALS:
    void didPublish(const QString& name, quint16 port);
    void didNotPublish();
    // The announcement ended without being asked to and cannot come back.
    void didStop();
    // The responder went away (a daemon restart): the announcement is gone for now, and is made
    // again by itself when the responder returns, then reported by responderReturned.
    void responderLost();
    void responderReturned(const QString& name, quint16 port);
};

// Creates advertisements with the local DNS-SD responder.
class ServicePublisher {
public:
    virtual ~ServicePublisher() = default;
    virtual std::unique_ptr<PublishedService> createService(const ServiceDescription& description) = 0;
};

} // namespace tellwyn
